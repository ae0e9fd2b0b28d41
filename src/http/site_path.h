#pragma once

#include <string>

#include "base/descriptor.h"

// Returns the canonical name of the file that relative_path names in the website; there need not be such a file. Throws
// std::filesystem::filesystem_error when the name cannot be made canonical (a name too long, links in a circle, a
// directory that cannot be searched). Callable from any thread.
std::string canonical_name(const std::string& relative_path);

// The rule that keeps requests inside the website directory: true when the canonical name begins with website_path.
// Throws what canonical_name throws. Callable from any thread.
bool is_path_allowed(const std::string& relative_path);

struct OpenedFile {
    bool is_allowed;
    std::string canonical_name;
    Descriptor descriptor;  // none when the file is not allowed or cannot be opened
};

// Opens the file that relative_path names in the configured website, for reading, if is_path_allowed allows it. Throws
// what canonical_name throws. Callable from any thread.
OpenedFile open_site_file(const std::string& relative_path);
