#pragma once

#include <string>
#include <string_view>

// The request line of a plain-HTTP request; what is missing is empty.
struct RequestLine {
    std::string method;
    std::string target;
};

// Takes the first two words of text, whatever white space is around them.
RequestLine split_request_line(std::string_view text);

// Returns "/index.html" for "/" and any other target as it is.
std::string with_index_file(const std::string& target);

// True when the file that relative_path names lies inside the website directory, which means that its canonical name
// begins with website_path. On return *canonical_name, if given, is the name that was judged. Existence and kind of the
// file are not looked at. Throws std::filesystem::filesystem_error when the name cannot be made canonical (a name too
// long, links in a circle, a directory that cannot be searched).
bool is_path_allowed(const std::string& relative_path, std::string* canonical_name = nullptr);
