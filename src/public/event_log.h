#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <string>
#include <string_view>

#include "log/log.h"

// What a loop of a public site tells the log of its server: no requests, and each kind of event at most once a second.
// An object belongs to one thread.
class EventLog {
  public:
    enum Kind { refusal, handshake, fault, kind_count };

    explicit EventLog(LogTarget server_log) : target(server_log), context(thread_context()) {}

    // The line is text and detail. Throws nothing: what cannot be told is left out.
    void tell(Kind kind, std::string_view text, std::string_view detail) noexcept;

  private:
    const LogTarget target;
    const std::string context;
    std::array<std::chrono::steady_clock::time_point, kind_count> told_at{};
};
