#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

// The request line of a plain-HTTP request; what is missing is empty.
struct RequestLine {
    std::string method;
    std::string target;
};

// Takes the first two words of a plain-HTTP request, whatever white space is around them. Intended: over plain HTTP a
// query belongs to the target.
RequestLine split_request_line(std::string_view text);

// The target of an HTTPS request, divided at its first "?".
struct TargetParts {
    std::string path;  // with the index file put in
    std::optional<std::string> query;
};

// Divides the target of request_text, which begins with "GET /": what lies between its first two blanks, or all after
// the first one. Intended: over HTTPS only the second blank ends the target, not a line end.
TargetParts split_target(const std::string& request_text);

// Returns the keys and values of a query, undecoded; of a key given twice the later one counts, and what has no "=" is
// left out.
std::unordered_map<std::string, std::string> parse_query(const std::string& query_text);

// Returns "/index.html" for "/" and any other target as it is.
std::string with_index_file(const std::string& target);

// True when the file that relative_path names lies inside the website directory, which means that its canonical name
// begins with website_path. On return *canonical_name, if given, is the name that was judged. Existence and kind of the
// file are not looked at. Throws std::filesystem::filesystem_error when the name cannot be made canonical (a name too
// long, links in a circle, a directory that cannot be searched).
bool is_path_allowed(const std::string& relative_path, std::string* canonical_name = nullptr);

// The short way to a file: one system call that checks and opens. Opens for reading what relative_path names if
// website_path is absolute, no part of the joined name is empty or begins with a dot, no link is on the way and the file
// can be opened. Returns a descriptor, which is the caller's, and sets *canonical_name. Otherwise returns -1, with
// anything in *canonical_name, and is_path_allowed has to decide.
int open_plain_file(const std::string& relative_path, std::string* canonical_name);
