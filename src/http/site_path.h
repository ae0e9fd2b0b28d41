#pragma once

#include <string>

#include "base/descriptor.h"

// The rule that keeps requests inside the website directory: true when the canonical name of the file that
// relative_path names there begins with website_path. Sets *canonical_name to that name, allowed or not. Neither
// existence nor type of the file is checked. Throws std::filesystem::filesystem_error when the name cannot be made
// canonical (a name too long, links in a circle, a directory that cannot be searched). Callable from any thread.
bool is_path_allowed(const std::string& website_path, const std::string& relative_path, std::string* canonical_name);

struct OpenedFile {
    bool is_allowed;
    std::string canonical_name;
    Descriptor descriptor;  // none when the file is not allowed or cannot be opened
};

// Opens the file that relative_path names in the configured website, for reading, if is_path_allowed allows it. Throws
// what is_path_allowed throws. Callable from any thread.
OpenedFile open_site_file(const std::string& relative_path);
