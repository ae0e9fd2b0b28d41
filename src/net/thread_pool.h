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

// Worker threads that serve connections in the order in which they were queued. An exception that leaves the handler
// ends the process: a worker catches nothing.
class ThreadPool {
  public:
    using Handler = void (*)(const ClientTask&);

    // Starts size workers, which call handler for each connection. Throws std::system_error when one cannot be started;
    // those that run are joined first. waiting_limit connections can be queued before enqueue waits.
    ThreadPool(std::size_t size, Handler handler, std::size_t waiting_limit = unlimited);
    // Returns when every queued connection has been served and the workers have ended. Nothing may be queued meanwhile.
    ~ThreadPool();
    ThreadPool(const ThreadPool&) = delete;
    ThreadPool& operator=(const ThreadPool&) = delete;

    // Queues one connection, whose socket then belongs to the pool. Never refuses. When waiting_limit is reached, waits
    // until workers have taken half of the connections. Callable from any thread. Throws std::bad_alloc,
    // std::system_error when the lock fails.
    void enqueue(const ClientTask& task);

    // The number of connections that the handler is done with. Callable from any thread.
    std::uint64_t served() const { return served_count; }

  private:
    static constexpr std::size_t unlimited = static_cast<std::size_t>(-1);

    ThreadPool(Handler connection_handler, std::size_t limit) : handler(connection_handler), waiting_limit(limit) {}
    void work();

    const Handler handler;
    const std::size_t waiting_limit;
    std::vector<std::thread> workers;
    std::deque<ClientTask> tasks;  // oldest first
    std::mutex queue_mutex;        // guards tasks and stop
    std::condition_variable condition;
    std::condition_variable has_room;
    bool stop = false;
    std::atomic<std::uint64_t> served_count{0};
};
