#include "http/request.h"

#include <algorithm>
#include <filesystem>
#include <system_error>
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

// The weakly canonical form of path. Mostly path is the canonical name of a file that is there: to find that out at once
// spares the system the question whether the file exists. All else takes the long way, links too, because the system may
// refuse to follow one that canonical() follows.
std::string canonical_or_normal(const std::filesystem::path& path) {
    std::error_code error;
    if (std::filesystem::canonical(path, error).native() == path.native() && !error) return path.string();
    return std::filesystem::weakly_canonical(path).string();
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
    std::string name = canonical_or_normal(std::filesystem::path(website_path) / relative_path);
    // Intended: website_path counts as written and no "/" need follow it, so /srv/www admits /srv/www-old too, and a
    // website_path that is not canonical admits nothing.
    const bool is_inside = name.starts_with(website_path);
    if (canonical_name != nullptr) *canonical_name = std::move(name);
    return is_inside;
}
