#include "config/cache_ignore.h"

#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "config/config_file.h"
#include "config/server_config.h"
#include "log/log.h"

namespace {

void add_entry(const std::string& entry, const std::string& context) {
    const std::string& website_path = server_config.website_path;
    const std::string path = std::filesystem::weakly_canonical(std::filesystem::path(website_path) / entry).string();
    // Intended: website_path counts as written, so one that is not canonical admits no entry.
    if (path.starts_with(website_path)) {
        cache_ignore_paths.insert(path);
        log_shutdown_message("ADD: path to non-cached file: " + path, context);
        return;
    }
    log_shutdown_message("ERROR:", context);
    log_shutdown_message("path to non-cached file: " + entry, context);
    log_shutdown_message("site path: " + website_path, context);
    log_shutdown_message("result path: " + path, context);
    log_shutdown_message(std::string(39, '_'), context);
}

}  // namespace

void load_cache_ignore(const std::string& list_file, const std::string& context) {
    log_shutdown_message("PATH CACHE IGNORE: " + list_file, context);
    if (!file_exists(list_file)) throw std::runtime_error("The path to the file is incorrect. [cache_ignore]");
    std::ifstream file(list_file);
    if (!file) throw std::runtime_error("Failed to open file. [cache_ignore]");

    std::string line;
    while (std::getline(file, line)) {
        const std::string text = trim(line);
        if (!text.empty()) add_entry(trim_slashes(text), context);  // slashes alone mean the website directory itself
    }
}

std::string trim_slashes(const std::string& text) {
    const std::size_t first = text.find_first_not_of('/');
    return first == std::string::npos ? "" : text.substr(first, text.find_last_not_of('/') - first + 1);
}
