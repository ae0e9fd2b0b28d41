#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

#include "http/client_task.h"

// Worker threads that call handle_http_client for connections in the order in which they were queued. An exception that
// leaves the handler ends the process: a worker catches nothing.
class ThreadPool {
  public:
    // Starts size workers. Throws std::system_error when one cannot be started; those that run are joined first.
    explicit ThreadPool(std::size_t size);
    // Returns when every queued connection has been served and the workers have ended. Nothing may be queued meanwhile.
    ~ThreadPool();
    ThreadPool(const ThreadPool&) = delete;
    ThreadPool& operator=(const ThreadPool&) = delete;

    // Queues one connection, whose socket then belongs to the pool. Never refuses and never waits for room. Callable
    // from any thread. Throws std::bad_alloc, std::system_error when the lock fails.
    void enqueue(const ClientTask& task);

    // The number of connections that the handler is done with. Callable from any thread.
    std::uint64_t served() const { return served_count; }

  private:
    ThreadPool() = default;
    void work();

    std::vector<std::thread> workers;
    std::deque<ClientTask> tasks;  // oldest first
    std::mutex queue_mutex;        // guards tasks and stop
    std::condition_variable condition;
    bool stop = false;
    std::atomic<std::uint64_t> served_count{0};
};
