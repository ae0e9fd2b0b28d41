#include "log/access_log.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <new>
#include <stdexcept>
#include <utility>

#include "log/log.h"

namespace {

constexpr mode_t file_mode = 0640;

int open_for_appending(const std::string& name) {
    // Without waiting: the file may be a pipe that nobody reads.
    const int descriptor =
        open(name.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, file_mode);
    if (descriptor == -1) throw log_open_error(name, errno);
    struct stat status;
    if (fstat(descriptor, &status) != 0 || !S_ISREG(status.st_mode)) {
        close(descriptor);
        throw std::runtime_error("The access log is not a regular file. [access_log]");
    }
    return descriptor;
}

void tell(std::string_view text, std::string_view detail) {
    try {
        log_to_targets(log_target_both, std::string(text).append(detail), thread_context());
    } catch (const std::bad_alloc&) {
        // The access log goes on without.
    }
}

}  // namespace

AccessLog::AccessLog(const std::string& name) : file_name(name), descriptor(open_for_appending(name)) {}

AccessLog::~AccessLog() {
    close(descriptor);
}

void AccessLog::append(std::string_view lines) {
    const std::lock_guard guard(lock);
    int error = write_out(std::exchange(rest_of_line, ""), true);
    if (error == 0) error = write_out(lines, false);
    if ((error != 0) == is_failing) return;
    is_failing = error != 0;
    tell(is_failing ? "Failed to write the access log: " : "The access log is written again",
         is_failing ? std::strerror(error) : "");
}

void AccessLog::follow_name() {
    const std::lock_guard guard(lock);
    struct stat named;
    struct stat opened;
    const bool is_found = stat(file_name.c_str(), &named) == 0;
    if (fstat(descriptor, &opened) != 0) return;
    if (is_found && named.st_dev == opened.st_dev && named.st_ino == opened.st_ino) return;
    try {
        const int next = open_for_appending(file_name);
        write_out(std::exchange(rest_of_line, ""), true);
        rest_of_line.clear();  // a line goes into one file
        close(std::exchange(descriptor, next));
        has_lost_name = false;
    } catch (const std::runtime_error& error) {
        if (!std::exchange(has_lost_name, true)) tell(error.what(), "");
    }
}

int AccessLog::write_out(std::string_view bytes, bool is_line_begun) {
    while (!bytes.empty()) {
        const ssize_t count = write(descriptor, bytes.data(), bytes.size());
        const int error = errno;
        if (count > 0) {
            is_line_begun = bytes[static_cast<std::size_t>(count) - 1] != '\n';
            bytes.remove_prefix(static_cast<std::size_t>(count));
        } else if (error != EINTR) {
            if (is_line_begun) rest_of_line = bytes.substr(0, bytes.find('\n') + 1);
            return error;
        }
    }
    return 0;
}
