#include "http/request.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <utility>

#include "config/server_config.h"

namespace {

// Removes the first word, which may be empty, from the front of rest and returns it.
std::string_view take_word(std::string_view& rest) {
    constexpr std::string_view white_space = " \t\n\v\f\r";
    rest.remove_prefix(std::min(rest.find_first_not_of(white_space), rest.size()));
    const std::string_view word = rest.substr(0, rest.find_first_of(white_space));
    rest.remove_prefix(word.size());
    return word;
}

// True when nothing in path has to be removed or put in order: it is absolute, none of its parts is empty or begins with
// a dot, and it holds no NUL, where the system would take it to end.
bool is_plain(std::string_view path) {
    return path.starts_with('/') && !path.ends_with('/') && path.find("//") == path.npos &&
           path.find("/.") == path.npos && path.find('\0') == path.npos;
}

}  // namespace

RequestLine split_request_line(std::string_view text) {
    const std::string_view method = take_word(text);
    const std::string_view target = take_word(text);
    return {std::string(method), std::string(target)};
}

TargetParts split_target(const std::string& request_text) {
    const std::size_t begin = request_text.find(' ') + 1;
    const std::string target = request_text.substr(begin, request_text.find(' ', begin) - begin);
    const std::size_t mark = target.find('?');
    TargetParts parts{with_index_file(target.substr(0, mark)), std::nullopt};
    if (mark != std::string::npos) parts.query = target.substr(mark + 1);
    return parts;
}

std::unordered_map<std::string, std::string> parse_query(const std::string& query_text) {
    std::unordered_map<std::string, std::string> values;
    std::size_t begin = 0;
    for (;;) {
        const std::size_t end = query_text.find('&', begin);  // npos for the last pair
        const std::size_t equals = query_text.find('=', begin);
        if (equals < end) {
            values[query_text.substr(begin, equals - begin)] = query_text.substr(equals + 1, end - equals - 1);
        }
        if (end == std::string::npos) return values;
        begin = end + 1;
    }
}

std::string with_index_file(const std::string& target) {
    // Intended: no other directory has an index file.
    return target == "/" ? "/index.html" : target;
}

bool is_path_allowed(const std::string& relative_path, std::string* canonical_name) {
    const std::string& website_path = server_config.website_path;
    std::string name = std::filesystem::weakly_canonical(std::filesystem::path(website_path) / relative_path).string();
    // Intended: website_path counts as written and no "/" need follow it, so /srv/www admits /srv/www-old too, and a
    // website_path that is not canonical admits nothing.
    const bool is_inside = name.starts_with(website_path);
    if (canonical_name != nullptr) *canonical_name = std::move(name);
    return is_inside;
}

int open_plain_file(const std::string& relative_path, std::string* canonical_name) {
    if (server_config.website_path.empty()) return -1;  // names are then relative to the working directory
    *canonical_name = server_config.website_path + "/" + relative_path;
    if (!is_plain(*canonical_name)) return -1;
    open_how how{};
    how.flags = O_RDONLY;
    how.resolve = RESOLVE_NO_SYMLINKS;
    return static_cast<int>(syscall(SYS_openat2, AT_FDCWD, canonical_name->c_str(), &how, sizeof how));
}
