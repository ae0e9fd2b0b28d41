#include "config/load_configuration.h"

#include <unistd.h>

#include <climits>
#include <cstdint>
#include <exception>
#include <filesystem>
#include <iostream>
#include <stdexcept>

#include "config/cache_ignore.h"
#include "config/config_file.h"
#include "config/pem.h"
#include "config/public_settings.h"
#include "config/server_config.h"
#include "log/access_log.h"
#include "log/log.h"
#include "log/signal_hold.h"

namespace {

void read_log(const Settings& settings, const std::string& use_key, const std::string& file_key, bool& enabled,
              std::string& file) {
    if (find_value(settings, use_key) == nullptr) return;
    const std::string path = value_or_empty(settings, file_key);
    enabled = is_yes(settings, use_key) && !path.empty();
    if (!path.empty()) file = path;
}

void open_logs() {
    if (server_config.http_log_enabled) http_logger = new Logger(server_config.http_log_file, log_debug);
    if (server_config.https_log_enabled) https_logger = new Logger(server_config.https_log_file, log_debug);
}

void read_site(const Settings& settings) {
    const std::string* const path = find_value(settings, "website_path");
    if (path == nullptr) {
        throw std::runtime_error("Unable to open configuration file: not found [website_path]");
    }
    if (path->empty()) throw std::runtime_error("Unable to open configuration file: [website_path] is empty");
    server_config.website_path = *path;
    if (path->back() == '/' || path->back() == '\\') server_config.website_path.pop_back();
    server_config.public_site = is_yes(settings, "public_site");

    server_config.start_http = is_yes(settings, "start_http");
    server_config.start_https = is_yes(settings, "start_https");
    if (!server_config.start_http && !server_config.start_https) {
        throw std::runtime_error("No permission to start any server: start_http and/or start_https");
    }
    admit_log_lines(server_config.start_http, server_config.start_https);
    if (server_config.public_site) read_public_settings(settings);
}

void require_file(const std::string& path, const std::string& key) {
    if (!file_exists(path)) {
        throw std::runtime_error("The path to the file is incorrect. File missing. [" + key + "]");
    }
}

void read_pem_file(const std::string& path) {
    require_file(path, "pem_file");
    const PemContents contents = inspect_pem(path);
    if (!contents.has_certificate) throw std::runtime_error("PEM is missing certificate [pem_file]");
    if (!contents.has_key) throw std::runtime_error("PEM is missing a key [pem_file]");
    server_config.use_pem_file = true;
    server_config.has_chain = contents.has_chain;
    server_config.pem_file = path;
}

void read_separate_files(const Settings& settings) {
    const std::string* const crt_file = find_value(settings, "crt_file");
    const std::string* const key_file = find_value(settings, "key_file");
    if (crt_file == nullptr || key_file == nullptr) {
        throw std::runtime_error("One of the items is missing: crt_file and/or key_file");
    }
    if (crt_file->empty() || key_file->empty()) {
        throw std::runtime_error("File path not specified: crt_file and/or key_file");
    }
    require_file(*crt_file, "crt_file");
    require_file(*key_file, "key_file");
    const std::string chain_file = value_or_empty(settings, "chain_file");
    if (!chain_file.empty()) {
        require_file(chain_file, "chain_file");
        server_config.has_chain = true;
        server_config.chain_file = chain_file;
    }
    server_config.crt_file = *crt_file;
    server_config.key_file = *key_file;
}

void read_tls(const Settings& settings) {
    const std::string pem_file = value_or_empty(settings, "pem_file");
    if (pem_file.empty()) {
        read_separate_files(settings);
    } else {
        read_pem_file(pem_file);
    }
    // Intended: the text speaks of an incorrect list, but only its presence is tested here.
    const std::string cipher_list = value_or_empty(settings, "cipher_list");
    if (cipher_list.empty()) throw std::runtime_error("The list of ciphers is incorrect. [cipher_list]");
    server_config.cipher_list = cipher_list;
}

void read_port(const Settings& settings, const std::string& key, std::int32_t& port) {
    const std::string* const value = find_value(settings, key);
    if (value == nullptr) return;
    if (!is_number(*value)) throw std::runtime_error("Value is not a number. [" + key + "]");
    // Intended: any number that fits is taken, 0 and 70000 too.
    port = std::stoi(*value);
}

void read_ports(const Settings& settings) {
    read_port(settings, "port", server_config.port_http);  // Intended: another name for port_http, which wins.
    read_port(settings, "port_http", server_config.port_http);
    read_port(settings, "port_https", server_config.port_https);
}

}  // namespace

bool load_configuration() {
    const std::string context = thread_context();
    server_config.starting_directory = get_starting_directory();
    if (server_config.starting_directory.empty()) {
        // Intended: this one error leaves the loader and ends the process by an abort.
        throw std::runtime_error("ERROR: starting directory - " + server_config.starting_directory);
    }
    // Intended: no log is open yet, so this line reaches none.
    log_shutdown_message("Starting directory: " + server_config.starting_directory, context);
    if (server_config.config_path.empty()) {
        server_config.config_path = server_config.starting_directory + "/marlu/marluserver.cfg";
    }
    try {
        const Settings settings = read_config_file(server_config.config_path);
        read_log_settings(settings);
        open_logs();
        hold_signals();  // before the first line that a log takes
        read_server_settings(settings, context);
        if (!server_config.access_log.empty()) access_log = new AccessLog(server_config.access_log);
        return true;
    } catch (const std::exception& error) {
        hold_signals();
        const std::string text = std::string("\nError reading configuration: \n") + error.what() + " ";
        std::cerr << text << std::flush;
        log_shutdown_message(text, context);
        return false;
    }
}

std::string get_starting_directory() {
    char target[PATH_MAX];
    const ssize_t length = readlink("/proc/self/exe", target, sizeof target);
    if (length < 0) return "";
    return std::filesystem::path(std::string(target, static_cast<std::size_t>(length))).parent_path().string();
}

void read_log_settings(const Settings& settings) {
    ServerConfig& config = server_config;
    // Intended: the first and the last are two names for the one HTTP log, and the last wins.
    read_log(settings, "use_log", "log_file", config.http_log_enabled, config.http_log_file);
    read_log(settings, "use_log_https", "log_file_https", config.https_log_enabled, config.https_log_file);
    read_log(settings, "use_log_http", "log_file_http", config.http_log_enabled, config.http_log_file);
}

void read_server_settings(const Settings& settings, const std::string& context) {
    read_site(settings);
    log_shutdown_message("The configuration file located at the following path is used: " + server_config.config_path,
                         context);
    if (server_config.start_https) read_tls(settings);
    read_ports(settings);
    const std::string cache_ignore = value_or_empty(settings, "cache_ignore");
    if (!cache_ignore.empty()) load_cache_ignore(cache_ignore, context);
}
