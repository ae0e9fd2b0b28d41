#pragma once

#include <string>

// Reads the list of files that are never cached into server_config.cache_ignore_paths. list_file names a text file with
// one path a line, relative to website_path; the paths that lie outside the website directory are logged and left out.
// To be called by the configuration loader, after website_path is set. context is that of its log lines.
// Throws std::runtime_error when list_file is no regular file or cannot be opened, std::filesystem::filesystem_error for a path that cannot be
// made canonical.
void load_cache_ignore(const std::string& list_file, const std::string& context);

// Returns text without "/" at either end.
std::string trim_slashes(const std::string& text);
