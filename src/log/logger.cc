#include "log/logger.h"

#include <pthread.h>
#include <signal.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <utility>

#include "log/signal_hold.h"

namespace {

const char* level_text(std::int32_t level) {
    static constexpr const char* words[] = {"DEBUG", "INFO", "WARN", "ERROR"};
    return level >= log_debug && level <= log_error ? words[level] : "UNKNOWN";
}

// The local time as "31.12.2026 23:59:59.007".
std::string time_text() {
    const auto since_epoch = std::chrono::system_clock::now().time_since_epoch();
    const auto nanoseconds = std::chrono::duration_cast<std::chrono::nanoseconds>(since_epoch).count();
    const auto milliseconds = static_cast<int>(nanoseconds / 1'000'000 % 1000);
    const std::time_t seconds = nanoseconds / 1'000'000'000;
    std::tm local{};
    localtime_r(&seconds, &local);
    char text[64];
    const std::size_t length = std::strftime(text, sizeof text, "%d.%m.%Y %H:%M:%S", &local);
    std::snprintf(text + length, sizeof text - length, ".%03d", milliseconds);
    return text;
}

}  // namespace

std::runtime_error log_open_error(const std::string& path, int error) {
    return std::runtime_error("Failed to open log file: " + path + " - " + std::strerror(error));
}

Logger::Logger(const std::string& path, std::int32_t lowest_level) : min_level(lowest_level) {
    file.open(path, std::ios::app);
    const int error = errno;  // now: putting the text together may change it
    if (!file) throw log_open_error(path, error);
    // The writer takes the queue's lock, so it starts with signals held; the caller may have admitted them.
    sigset_t before;
    pthread_sigmask(SIG_BLOCK, nullptr, &before);
    hold_signals();
    writer = std::thread(&Logger::run, this);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

void Logger::log(std::int32_t level, const std::string& message, const std::string& context) {
    if (level < min_level || disabled) return;
    LogEntry entry{time_text(), std::to_string(pthread_self()), context, level_text(level), message};
    {
        const std::lock_guard lock(queue_mutex);
        queue.push_back(std::move(entry));
        queued.fetch_add(1);
    }
    queue_cv.notify_one();
}

void Logger::wait_until_written(std::chrono::steady_clock::time_point deadline) const {
    const std::uint64_t last = queued.load();
    while (written.load() < last && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

void Logger::run() {
    for (;;) {
        std::unique_lock lock(queue_mutex);
        queue_cv.wait(lock, [this] { return !queue.empty() || flush_requested || stop; });
        if (!queue.empty()) {
            // The whole queue is swapped out at once, so that no caller ever waits for the disk.
            std::vector<LogEntry> batch;
            batch.swap(queue);
            lock.unlock();
            for (const LogEntry& entry : batch) {
                file << '[' << entry.time << "] (" << entry.context << ") [" << entry.thread_id << "] " << entry.message
                     << '\n'
                     << std::flush;
                written.fetch_add(1);
            }
            file.flush();
            lock.lock();
        }
        if (flush_requested) {
            file.flush();
            flush_requested = false;
        }
        if (stop && queue.empty()) return;
    }
}
