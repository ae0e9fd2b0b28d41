#include "log/log.h"

#include <unistd.h>

#include "config/server_config.h"

namespace {

bool is_http_logged() {
    return server_config.http_log_enabled && server_config.start_http;
}

bool is_https_logged() {
    return server_config.https_log_enabled && server_config.start_https;
}

bool reaches_http(LogTarget target) {
    return (target == log_target_http || target == log_target_both) && is_http_logged();
}

bool reaches_https(LogTarget target) {
    return (target == log_target_https || target == log_target_both) && is_https_logged();
}

}  // namespace

std::string thread_context() {
    return std::to_string(gettid());
}

void write_server_log(std::int32_t which, const std::string& message, const std::string& context) {
    const bool enabled = which == 0 ? server_config.http_log_enabled : server_config.https_log_enabled;
    Logger* const logger = which == 0 ? http_logger : https_logger;
    if (!enabled || logger == nullptr) return;
    try {
        logger->log(log_debug, message, context);
    } catch (...) {
        // A line that cannot be queued is lost; its caller goes on.
    }
}

void log_to_targets(LogTarget target, const std::string& message, const std::string& context) {
    if (reaches_http(target)) write_server_log(0, message, context);
    if (reaches_https(target)) write_server_log(1, message, context);
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
    if (is_http_logged()) write_server_log(0, message, context);
    if (is_https_logged()) write_server_log(1, message, context);
}

void wait_for_log_writers(std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    if (http_logger != nullptr) http_logger->wait_until_written(deadline);
    if (https_logger != nullptr) https_logger->wait_until_written(deadline);
}
