#include "public/site_file.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <string_view>
#include <system_error>

namespace {

constexpr int read_flags = O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
constexpr int most_attempts = 16;  // while directories are renamed the system cannot tell and asks for another one

std::string process_name(int descriptor) {
    return "/proc/self/fd/" + std::to_string(descriptor);
}

// Where an open file or directory lies now, or "".
std::string location(int descriptor) {
    char target[PATH_MAX];
    const ssize_t length = readlink(process_name(descriptor).c_str(), target, sizeof target);
    return length > 0 ? std::string(target, static_cast<std::size_t>(length)) : "";
}

bool is_below(std::string_view path, std::string_view directory) {
    if (directory == "/") return path.starts_with('/');
    return path.starts_with(directory) && (path.size() == directory.size() || path[directory.size()] == '/');
}

// For what openat2 cannot do: absolute links, and systems that do not have or do not allow this call. The file is
// opened without access to its content, looked at, and only then opened for reading.
Descriptor open_after_check(int site, const std::string& relative_path) {
    const Descriptor found(openat(site, relative_path.c_str(), O_PATH | O_CLOEXEC));
    if (!found) return Descriptor();
    const std::string directory = location(site);
    if (directory.empty() || !is_below(location(found.get()), directory)) {
        errno = ENOENT;
        return Descriptor();
    }
    return Descriptor(open(process_name(found.get()).c_str(), read_flags));
}

Descriptor open_once(int site, const std::string& relative_path) {
    open_how how{};
    how.flags = read_flags;
    how.resolve = RESOLVE_BENEATH;
    Descriptor file(static_cast<int>(syscall(SYS_openat2, site, relative_path.c_str(), &how, sizeof how)));
    if (!file && (errno == EXDEV || errno == ENOSYS || errno == EPERM)) return open_after_check(site, relative_path);
    return file;
}

}  // namespace

Descriptor open_in_site(int site, const std::string& relative_path) {
    for (int attempt = 0; attempt < most_attempts; ++attempt) {
        Descriptor file = open_once(site, relative_path);
        if (file) return file;
        if (errno == EMFILE || errno == ENFILE || errno == ENOMEM)
            throw std::system_error(errno, std::generic_category());
        if (errno != EAGAIN) return Descriptor();
    }
    return Descriptor();
}
