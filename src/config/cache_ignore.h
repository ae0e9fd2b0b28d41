#pragma once

#include <string>

// Reads the text file list_file, which names the files that are never cached, into cache_ignore_paths.
// Each line is one path relative to website_path. A path that leads out of the website directory is logged and left
// out. For the configuration loader, once website_path is set. context is that of the log lines. Throws
// std::runtime_error when list_file is no regular file or cannot be opened, std::filesystem::filesystem_error when a
// path cannot be made canonical.
void load_cache_ignore(const std::string& list_file, const std::string& context);

// Returns text without "/" at either end.
std::string trim_slashes(const std::string& text);
