#include "http/site_path.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/syscall.h>

#include <filesystem>
#include <string_view>
#include <utility>

#include "config/server_config.h"

namespace {

// True when path is already canonical as written, unless a link is on the way: absolute, no empty part, none that
// begins with a dot, no NUL.
bool is_plain(std::string_view path) {
    return path.starts_with('/') && !path.ends_with('/') && path.find("//") == path.npos &&
           path.find("/.") == path.npos && path.find('\0') == path.npos;
}

// Opens name, which is absolute and canonical, if no link is on the way: what has been checked is what is opened. Old
// kernels lack this system call, and some containers and service managers forbid it.
Descriptor open_without_links(const std::string& name) {
    open_how how{};
    how.flags = O_RDONLY;
    how.resolve = RESOLVE_NO_SYMLINKS;
    return Descriptor(static_cast<int>(syscall(SYS_openat2, AT_FDCWD, name.c_str(), &how, sizeof how)));
}

// Intended: website_path counts as written and no "/" need follow it, so /srv/www admits /srv/www-old too, and a
// website_path that is not canonical admits nothing, unless canonical names happen to begin with it.
bool has_website_path(const std::string& name) {
    return name.starts_with(server_config.website_path);
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
        Descriptor descriptor = open_without_links(name);
        if (descriptor) return {true, std::move(name), std::move(descriptor)};
    }
    name = canonical_name(relative_path);
    const bool is_allowed = has_website_path(name);
    Descriptor descriptor(is_allowed ? open(name.c_str(), O_RDONLY) : -1);
    return {is_allowed, std::move(name), std::move(descriptor)};
}
