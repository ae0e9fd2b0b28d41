#pragma once

#include <map>
#include <string>

// Keys in lower case, and their values. The loader's own; not shared between threads.
using Settings = std::map<std::string, std::string>;

// Reads the key=value lines of the file at path. If a key occurs twice, the later line counts. Throws
// std::runtime_error when the file cannot be opened, or a line is neither empty, nor a comment, nor key=value.
Settings read_config_file(const std::string& path);

// Returns the value of key, owned by settings, or null when the key is absent.
const std::string* find_value(const Settings& settings, const std::string& key);

// Returns the value of key, or "" when the key is absent.
std::string value_or_empty(const Settings& settings, const std::string& key);

// True when the value of key is "yes" or "y".
bool is_yes(const Settings& settings, const std::string& key);

// Returns text without white space at either end.
std::string trim(const std::string& text);

// Returns text with its upper-case letters in lower case.
std::string lower_case(std::string text);

// True when text consists of one or more decimal digits.
bool is_number(const std::string& text);

// True when path is a regular file, or a link to one. False also when path cannot be examined.
bool file_exists(const std::string& path);
