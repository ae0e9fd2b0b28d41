#include "http/site_path.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/syscall.h>

#include <cerrno>
#include <cstddef>
#include <filesystem>
#include <string_view>
#include <system_error>
#include <utility>

#include "config/server_config.h"

namespace {

// True when path is already canonical as written, unless a link is on the way: absolute, no empty part, none that
// begins with a dot, no NUL.
bool is_plain(std::string_view path) {
    return path.starts_with('/') && !path.ends_with('/') && path.find("//") == path.npos &&
           path.find("/.") == path.npos && path.find('\0') == path.npos;
}

// Opens name, which is absolute and canonical, one directory after the other. Returns none when that fails.
Descriptor open_step_by_step(const std::string& name, int flags) {
    Descriptor descriptor(open("/", O_PATH));
    for (std::size_t begin = 1; descriptor;) {
        const std::size_t end = name.find('/', begin);
        const bool is_last = end == name.npos;
        const std::string part = name.substr(begin, end - begin);
        const int part_flags = O_NOFOLLOW | (is_last ? flags : O_PATH | O_DIRECTORY);
        descriptor = Descriptor(openat(descriptor.get(), part.c_str(), part_flags));
        if (is_last) break;
        begin = end + 1;
    }
    return descriptor;
}

// Opens name, which is absolute and canonical, if no link is on the way: what has been checked is what is opened.
// Returns none when that fails.
Descriptor open_without_links(const std::string& name, int flags) {
    open_how how{};
    how.flags = static_cast<unsigned>(flags);
    how.resolve = RESOLVE_NO_SYMLINKS;
    Descriptor descriptor(static_cast<int>(syscall(SYS_openat2, AT_FDCWD, name.c_str(), &how, sizeof how)));
    // Old kernels lack this system call, and some containers and service managers forbid it.
    if (!descriptor && (errno == ENOSYS || errno == EPERM)) return open_step_by_step(name, flags);
    return descriptor;
}

// Intended: website_path counts as written and no "/" need follow it, so /srv/www admits /srv/www-old too, and a
// website_path that is not canonical admits nothing, unless canonical names happen to begin with it.
bool has_website_path(const std::string& name) {
    return name.starts_with(server_config.website_path);
}

// True when name, which begins with website_path, is that of website_path or of something in it.
bool is_inside(const std::string& website_path, const std::string& name) {
    return website_path == "/" || name.size() == website_path.size() || name[website_path.size()] == '/';
}

}  // namespace

std::string canonical_name(const std::string& relative_path) {
    const std::filesystem::path path = std::filesystem::path(server_config.website_path) / relative_path;
    return std::filesystem::weakly_canonical(path).string();
}

bool is_path_allowed(const std::string& relative_path) {
    return has_website_path(canonical_name(relative_path));
}

OpenedFile open_site_file(const std::string& relative_path) {
    const std::string& website_path = server_config.website_path;
    // The short way for most requests. Not with an empty website_path: names are then relative to the working
    // directory.
    std::string name = website_path + "/" + relative_path;
    if (!website_path.empty() && is_plain(name)) {
        Descriptor descriptor = open_without_links(name, O_RDONLY);
        if (descriptor) return {true, std::move(name), std::move(descriptor)};
    }
    name = canonical_name(relative_path);
    const bool is_allowed = has_website_path(name);
    Descriptor descriptor(is_allowed ? open(name.c_str(), O_RDONLY) : -1);
    return {is_allowed, std::move(name), std::move(descriptor)};
}

OpenedFile open_public_file(const std::string& relative_path) {
    const std::string& website_path = server_config.website_path;
    std::string name = website_path + "/" + relative_path;
    if (is_plain(name)) {
        Descriptor descriptor = open_without_links(name, O_RDONLY | O_NONBLOCK);
        if (descriptor) return {true, std::move(name), std::move(descriptor)};
    }
    if (name.find('\0') != name.npos)
        return {true, std::move(name), Descriptor()};  // the system would see another name
    name = canonical_name(relative_path);
    if (!has_website_path(name) || !is_inside(website_path, name)) return {false, std::move(name), Descriptor()};
    Descriptor descriptor = open_without_links(name, O_RDONLY | O_NONBLOCK);
    if (!descriptor && (errno == EMFILE || errno == ENFILE)) throw std::system_error(errno, std::generic_category());
    return {true, std::move(name), std::move(descriptor)};
}
