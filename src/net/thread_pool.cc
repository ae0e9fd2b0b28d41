#include "net/thread_pool.h"

#include <utility>

// Once the delegated constructor is done, the destructor runs even if this constructor throws: when a worker cannot be
// started, it joins those that run.
ThreadPool::ThreadPool(std::size_t size, Handler connection_handler, std::size_t limit)
    : ThreadPool(connection_handler, limit) {
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
        std::unique_lock lock(queue_mutex);
        // Half of them at once: otherwise caller and workers would wake each other for every connection.
        if (tasks.size() >= waiting_limit) {
            has_room.wait(lock, [this] { return tasks.size() <= waiting_limit / 2; });
        }
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
        if (tasks.size() == waiting_limit / 2) has_room.notify_all();
        lock.unlock();
        handler(task);
        ++served_count;
    }
}
