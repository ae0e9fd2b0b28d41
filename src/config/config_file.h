#pragma once

#include <map>
#include <string>
#include <string_view>

struct ConfigKey {
    std::string_view name;
    bool is_switch;                // on when its value is "yes" or "y"
    bool is_public_alone = false;  // without effect unless the site is public
};

// Every key that the loader knows. It ignores others.
inline constexpr ConfigKey config_keys[] = {
    {"use_log", true},
    {"log_file", false},
    {"use_log_http", true},
    {"log_file_http", false},
    {"use_log_https", true},
    {"log_file_https", false},
    {"website_path", false},
    {"public_site", true},
    {"start_http", true},
    {"start_https", true},
    {"pem_file", false},
    {"crt_file", false},
    {"key_file", false},
    {"chain_file", false},
    {"cipher_list", false},
    {"port", false},
    {"port_http", false},
    {"port_https", false},
    {"cache_ignore", false},
    {"access_log", false, true},
    {"headers_file", false, true},
    {"https_only", true, true},
    {"trusted_proxy", false, true},
};

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
