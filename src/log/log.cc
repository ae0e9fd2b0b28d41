#include "log/log.h"

#include <unistd.h>

namespace {

bool is_http_started = false;
bool is_https_started = false;

bool reaches_http(LogTarget target) {
    return (target == log_target_http || target == log_target_both) && is_http_started && http_logger != nullptr;
}

bool reaches_https(LogTarget target) {
    return (target == log_target_https || target == log_target_both) && is_https_started && https_logger != nullptr;
}

// Writes to http_logger or https_logger, which must be open.
void write_server_log(LogTarget which, const std::string& message, const std::string& context) {
    try {
        (which == log_target_http ? http_logger : https_logger)->log(log_debug, message, context);
    } catch (...) {
        // A line that cannot be queued is lost; its caller goes on.
    }
}

}  // namespace

std::string thread_context() {
    return std::to_string(gettid());
}

void admit_log_lines(bool of_http, bool of_https) {
    is_http_started = of_http;
    is_https_started = of_https;
}

void log_to_targets(LogTarget target, const std::string& message, const std::string& context) {
    if (reaches_http(target)) write_server_log(log_target_http, message, context);
    if (reaches_https(target)) write_server_log(log_target_https, message, context);
}

void log_event(LogTarget target, const std::string& first, std::string_view second, const std::string& context) {
    log_event(target, first, {second}, context);
}

void log_event(LogTarget target, const std::string& first, std::initializer_list<std::string_view> second,
               const std::string& context) {
    if (!reaches_http(target) && !reaches_https(target)) return;
    std::string message = first + " ";
    for (const std::string_view part : second) message += part;
    // Intended: the message ends in a line end and the writer adds another, so an empty line follows each entry.
    message += '\n';
    log_to_targets(target, message, context);
}

void log_shutdown_message(const std::string& message, const std::string& context) {
    log_to_targets(log_target_both, message, context);
}

void wait_for_log_writers(std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    if (http_logger != nullptr) http_logger->wait_until_written(deadline);
    if (https_logger != nullptr) https_logger->wait_until_written(deadline);
}
