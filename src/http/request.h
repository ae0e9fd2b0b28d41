#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

// Bytes of a request that are read at most. Over HTTPS the last of them is a NUL.
inline constexpr std::size_t request_limit = 4096;

// The request line of a request over plain HTTP; a missing part is empty.
struct RequestLine {
    std::string method;
    std::string target;
};

// Takes the first two words of such a request, with any white space around them. Intended: a query belongs to the
// target.
RequestLine split_request_line(std::string_view text);

// The target of a request over HTTPS, divided at its first "?".
struct TargetParts {
    std::string path;  // with the index file put in
    std::optional<std::string> query;
};

// Divides the target of request_text, which must begin with "GET /": the text between its first two blanks, or all
// after the first one. Intended: over HTTPS only the second blank ends the target, a line end does not.
TargetParts split_target(const std::string& request_text);

// Returns the keys and values of a query, undecoded. The later of two equal keys counts; a part without "=" is left
// out.
std::unordered_map<std::string, std::string> parse_query(const std::string& query_text);

// Returns "/index.html" for "/", any other target unchanged.
std::string with_index_file(const std::string& target);
