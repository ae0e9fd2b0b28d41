#pragma once

#include <map>
#include <string>

// Keys in lower case, and their values. The loader's own; not shared between threads.
using Settings = std::map<std::string, std::string>;

// Reads the key=value lines of the file at path; of a key given twice the later line counts. Throws std::runtime_error
// when it cannot be opened or has a line that is neither empty, nor a comment, nor key=value.
Settings read_config_file(const std::string& path);

// Returns the value of key, owned by settings, or null when the key is absent.
const std::string* find_value(const Settings& settings, const std::string& key);

// Returns text without white space at either end.
std::string trim(const std::string& text);

// True when text is one decimal digit or more and nothing else.
bool is_number(const std::string& text);

// True when path is a regular file, or a link to one. False also when that cannot be found out.
bool file_exists(const std::string& path);
