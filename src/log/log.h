#pragma once

#include <chrono>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>

#include "log/logger.h"

// Which log a message goes to. The functions below may be called from any thread. A log that is not open takes nothing.
// A line that cannot be queued is lost without an error; std::bad_alloc is thrown only when the message itself cannot be
// put together.
enum LogTarget : std::int32_t { log_target_http = 0, log_target_https = 1, log_target_both = 2 };

// Null until the configuration loader opens them, then there until the process ends.
inline Logger* http_logger = nullptr;
inline Logger* https_logger = nullptr;

// The calling thread's kernel thread id in decimal: the context of its log lines.
std::string thread_context();

// Says which servers are to be started. Until then, and later for the log of a server that is not, lines are dropped.
// For the configuration loader, before any server thread exists.
void admit_log_lines(bool of_http, bool of_https);

// Writes to the logs that target names, the HTTP log first.
void log_to_targets(LogTarget target, const std::string& message, const std::string& context);

// Writes first + " " + second and a line end, so that an empty line follows the entry. second may come in parts, which
// are joined only if a log takes them.
void log_event(LogTarget target, const std::string& first, std::string_view second, const std::string& context);
void log_event(LogTarget target, const std::string& first, std::initializer_list<std::string_view> second,
               const std::string& context);

// log_to_targets for both logs. For the configuration loader and the signal handler.
void log_shutdown_message(const std::string& message, const std::string& context);

// Returns when the writers are done with everything logged so far, or after limit. Takes no lock: made for the signal
// handler.
void wait_for_log_writers(std::chrono::milliseconds limit);
