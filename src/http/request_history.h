#pragma once

#include <atomic>
#include <cstddef>
#include <deque>
#include <mutex>
#include <string>

// The texts of the most recent requests. Callable from any thread.
class RequestHistory {
  public:
    // Keeps request_text and drops the oldest one beyond 1000. Throws std::bad_alloc, std::system_error.
    void append(const std::string& request_text);

  private:
    std::mutex lock;                // guards queue
    std::deque<std::string> queue;  // oldest first
    std::atomic<bool> busy{false};  // Intended: set when more than 800 texts are kept; neither read nor cleared.
};
