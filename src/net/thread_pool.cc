#include "net/thread_pool.h"

#include <utility>

#include "http/http_handler.h"

// Once the delegated constructor is done, the destructor runs even if this constructor throws: when a worker cannot be
// started, it joins those that run.
ThreadPool::ThreadPool(std::size_t size) : ThreadPool() {
    for (std::size_t count = 0; count < size; ++count) workers.emplace_back(&ThreadPool::work, this);
}

ThreadPool::~ThreadPool() {
    {
        const std::lock_guard lock(queue_mutex);
        stop = true;
    }
    condition.notify_all();
    for (std::thread& worker : workers) {
        if (worker.joinable()) worker.join();
    }
}

void ThreadPool::enqueue(const ClientTask& task) {
    {
        const std::lock_guard lock(queue_mutex);
        tasks.push_back(task);
    }
    condition.notify_one();
}

void ThreadPool::work() {
    for (;;) {
        std::unique_lock lock(queue_mutex);
        condition.wait(lock, [this] { return stop || !tasks.empty(); });
        if (tasks.empty()) return;  // stopped, and nothing is left to serve
        const ClientTask task = std::move(tasks.front());
        tasks.pop_front();
        lock.unlock();
        handle_http_client(task);
        ++served_count;
    }
}
