#include "check/config_check.h"

#include <fcntl.h>
#include <openssl/ui.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <stdexcept>
#include <vector>

#include "check/site_files.h"
#include "check/tls_check.h"
#include "check/warning.h"
#include "config/config_file.h"
#include "config/load_configuration.h"
#include "config/server_config.h"
#include "log/log.h"

namespace {

namespace fs = std::filesystem;

const std::vector<std::string> yes_no_keys = {
    "use_log", "use_log_http", "use_log_https", "public_site", "start_http", "start_https",
};
const std::vector<std::string> other_keys = {
    "log_file",   "log_file_http", "log_file_https", "website_path", "pem_file",   "crt_file",     "key_file",
    "chain_file", "cipher_list",   "port",           "port_http",    "port_https", "cache_ignore",
};

constexpr unsigned capability_net_bind_service = 10;
constexpr unsigned capability_net_raw = 13;

bool contains(const std::vector<std::string>& keys, const std::string& key) {
    return std::find(keys.begin(), keys.end(), key) != keys.end();
}

void check_keys(const Settings& settings) {
    std::string known;
    for (const auto& keys : {yes_no_keys, other_keys}) {
        for (const std::string& key : keys) known += " " + key;
    }
    for (const auto& [key, value] : settings) {
        if (!contains(yes_no_keys, key) && !contains(other_keys, key)) {
            warn("unknown key [" + key + "]; the keys are" + known);
        } else if (contains(yes_no_keys, key) && value != "yes" && value != "y" && value != "no" && value != "n") {
            warn("[" + key + "] is neither yes, y, no nor n: it counts as no");
        }
    }
}

// The daemon refuses to start when it cannot open a log. This finds that out without creating the file.
void require_log(bool enabled, const std::string& path) {
    if (!enabled) return;
    const int descriptor = open(path.c_str(), O_WRONLY | O_APPEND | O_NONBLOCK);
    if (descriptor != -1) {
        close(descriptor);
        return;
    }
    const fs::path parent = fs::path(path).parent_path();
    const bool can_be_made = errno == ENOENT && access(parent.empty() ? "." : parent.c_str(), W_OK | X_OK) == 0;
    if (!can_be_made) throw log_open_error(path, errno);
}

bool is_permitted(unsigned capability) {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.starts_with("CapEff:")) return (std::stoull(line.substr(7), nullptr, 16) >> capability & 1) != 0;
    }
    return false;
}

void check_port(const std::string& key, std::int32_t port) {
    if (port < 1 || port > 65535) {
        warn("[" + key + "] " + std::to_string(port) + " is no port from 1 to 65535: the daemon uses " +
             std::to_string(static_cast<std::uint16_t>(port)));
        return;
    }
    int first_free_port = 1024;
    std::ifstream("/proc/sys/net/ipv4/ip_unprivileged_port_start") >> first_free_port;
    if (port < first_free_port && !is_permitted(capability_net_bind_service)) {
        warn("[" + key + "] no permission here to open port " + std::to_string(port));
    }
}

// Returns false after a warning that leaves no website to look at.
bool check_directory() {
    const std::string& path = server_config.website_path;
    if (path.empty() || path == "/") {
        warn("[website_path] is the root directory: every file of this machine is served");
        return false;
    }
    std::error_code error;
    if (fs::is_directory(path, error)) return true;
    warn("[website_path] is no directory: " + path);
    return false;
}

// Each of these three returns true after a warning. None of them concerns a public site.

// Unless the path is canonical, every request is answered 403.
bool warn_of_path() {
    std::error_code error;
    const std::string canonical = fs::canonical(server_config.website_path, error).string();
    if (canonical == server_config.website_path) return false;
    warn("[website_path] is not canonical, every request will be answered 403: write " + canonical);
    return true;
}

bool warn_of_neighbours() {
    bool has_warned = false;
    const fs::path website(server_config.website_path);
    std::error_code error;
    for (const fs::directory_entry& entry : fs::directory_iterator(website.parent_path(), error)) {
        if (entry.path() != website && entry.path().string().starts_with(website.string())) {
            warn("[website_path] " + entry.path().string() + " begins with it and is served too (as /../" +
                 entry.path().filename().string() + "); over HTTPS it shares the cache slots of the website");
            has_warned = true;
        }
    }
    return has_warned;
}

bool warn_of_cache_slots() {
    std::vector<SiteFile> cached = find_site_files().files;
    std::erase_if(cached,
                  [](const SiteFile& file) { return cache_ignore_paths.contains(file.canonical_name); });
    const std::vector<SiteFile> missing = files_to_ignore(cached);
    if (missing.empty()) return false;
    warn("[cache_ignore] " + std::to_string(missing.size()) +
         " files share a cache slot with another file and can be answered with its bytes over HTTPS, for instance " +
         missing.front().entry + ": make the list with marlu-check list " + server_config.website_path);
    return true;
}

void check_website() {
    if (!check_directory() || server_config.public_site) return;
    bool has_cure = warn_of_path();
    if (!has_cure) {
        has_cure = warn_of_neighbours();
        if (server_config.start_https && warn_of_cache_slots()) has_cure = true;
    }
    if (has_cure) warn("public_site=yes would cure what these warnings say of [website_path] and [cache_ignore]");
}

std::string server_summary(std::int32_t port, bool log_enabled, const std::string& log_file) {
    return "port " + std::to_string(port) + ", log " + (log_enabled ? log_file : "off");
}

void print_summary(const std::string& certificate) {
    const ServerConfig& config = server_config;
    std::cout << "OK\nwebsite      " << config.website_path << '\n'
              << "served       " << (config.public_site ? "as a public site" : "as by default") << '\n';
    if (config.start_http) {
        std::cout << "HTTP         " << server_summary(config.port_http, config.http_log_enabled, config.http_log_file)
                  << '\n';
    }
    if (config.start_https) {
        std::cout << "HTTPS        "
                  << server_summary(config.port_https, config.https_log_enabled, config.https_log_file) << '\n'
                  << "certificate  " << certificate << '\n';
        if (!config.public_site) std::cout << "not cached   " << cache_ignore_paths.size() << " files\n";
    }
    std::cout << std::flush;
}

}  // namespace

Settings read_as_the_daemon(const std::string& path) {
    UI_set_default_method(UI_null());  // nobody will be there to type a pass phrase for the daemon
    const Settings settings = read_config_file(path);
    if (chdir("/") != 0) throw std::runtime_error("Chdir failed");
    return settings;
}

void check_config(const std::string& path) {
    const Settings settings = read_as_the_daemon(path);
    check_keys(settings);
    read_log_settings(settings);
    require_log(server_config.http_log_enabled, server_config.http_log_file);
    require_log(server_config.https_log_enabled, server_config.https_log_file);
    read_server_settings(settings, "");

    const ServerConfig& config = server_config;
    std::string certificate;
    if (config.start_http) check_port("port_http", config.port_http);
    if (config.start_http && config.start_https && config.port_http == config.port_https) {
        warn("[port_http] and [port_https] are the same: only one of the servers can bind it, and the daemon will end");
    }
    if (config.start_https) {
        check_port("port_https", config.port_https);
        if (!is_permitted(capability_net_raw)) {
            warn("no permission here for the packet socket: without CAP_NET_RAW the HTTPS server will not start");
        }
        certificate = check_tls();
    }
    check_website();
    print_summary(certificate);
}
