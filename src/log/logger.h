#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <fstream>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

enum LogLevel : std::int32_t { log_debug = 0, log_info = 1, log_warn = 2, log_error = 3 };

// One line to be written.
struct LogEntry {
    std::string time;
    std::string thread_id;
    std::string context;
    std::string level;  // Intended: kept with the entry but not printed.
    std::string message;
};

// The error of a log file that cannot be opened; error is the errno of the attempt.
std::runtime_error log_open_error(const std::string& path, int error);

// One log file and the thread that writes it. Callers only queue; the file is touched by the writer alone.
// A Logger is never destroyed: its writer runs until the process ends.
class Logger {
  public:
    // Opens path for appending and starts the writer. Entries below lowest_level (a LogLevel) are dropped.
    // Throws std::runtime_error when the file cannot be opened, std::system_error when the thread cannot be started.
    Logger(const std::string& path, std::int32_t lowest_level);
    Logger(const Logger&) = delete;
    Logger& operator=(const Logger&) = delete;

    // Queues one line; context may be empty, any number is taken as level. Callable from any thread, and from the
    // signal handler. Throws std::system_error when the queue cannot be locked, std::bad_alloc.
    void log(std::int32_t level, const std::string& message, const std::string& context);

    // Returns when the writer is done with every entry that was queued before the call, or at the deadline. Takes no
    // lock: made for the signal handler.
    void wait_until_written(std::chrono::steady_clock::time_point deadline) const;

  private:
    void run();

    std::ofstream file;
    std::thread writer;
    std::mutex queue_mutex;  // guards the queue and the three flags; log reads disabled without it
    std::condition_variable queue_cv;
    std::vector<LogEntry> queue;  // oldest first
    // Intended: nothing in the daemon sets these three; they are honoured all the same.
    bool stop = false;
    bool flush_requested = false;
    bool disabled = false;
    const std::int32_t min_level;
    std::atomic<std::uint64_t> queued{0};   // entries ever queued
    std::atomic<std::uint64_t> written{0};  // entries ever written
};
