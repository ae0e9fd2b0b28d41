#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

#include "http/client_task.h"

// Worker threads that serve connections in the order in which they were queued. An exception that leaves the handler
// ends the process: a worker catches nothing.
class ThreadPool {
  public:
    using Handler = void (*)(const ClientTask&);

    // Starts size workers, which call handler for each connection. Throws std::system_error when one cannot be started;
    // those that run are joined first.
    ThreadPool(std::size_t size, Handler handler);
    // Returns when every queued connection has been served and the workers have ended. Nothing may be queued meanwhile.
    ~ThreadPool();
    ThreadPool(const ThreadPool&) = delete;
    ThreadPool& operator=(const ThreadPool&) = delete;

    // Queues one connection, whose socket then belongs to the pool. Never refuses and never waits for a worker.
    // Callable from any thread. Throws std::bad_alloc, std::system_error when the lock fails.
    void enqueue(const ClientTask& task);

  private:
    explicit ThreadPool(Handler connection_handler) : handler(connection_handler) {}
    void work();

    const Handler handler;
    std::vector<std::thread> workers;
    std::deque<ClientTask> tasks;  // oldest first
    std::mutex queue_mutex;        // guards tasks and stop
    std::condition_variable condition;
    bool stop = false;
};
