#include "http/request.h"

#include <algorithm>

namespace {

// Removes the first word, which may be empty, from the front of rest and returns it.
std::string_view take_word(std::string_view& rest) {
    constexpr std::string_view white_space = " \t\n\v\f\r";
    rest.remove_prefix(std::min(rest.find_first_not_of(white_space), rest.size()));
    const std::string_view word = rest.substr(0, rest.find_first_of(white_space));
    rest.remove_prefix(word.size());
    return word;
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
