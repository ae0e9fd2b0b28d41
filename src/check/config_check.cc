#include "check/config_check.h"

#include <fcntl.h>
#include <openssl/ui.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <iostream>
#include <iterator>
#include <stdexcept>
#include <vector>

#include "base/descriptor.h"
#include "check/ports.h"
#include "check/site_files.h"
#include "check/tls_check.h"
#include "check/warning.h"
#include "config/config_file.h"
#include "config/load_configuration.h"
#include "config/server_config.h"
#include "log/access_log.h"
#include "log/logger.h"
#include "net/https_listener.h"
#include "public/public_server.h"

namespace {

namespace fs = std::filesystem;

Settings read_as_the_daemon(const std::string& path) {
    UI_set_default_method(UI_null());  // nobody will be there to type a pass phrase for the daemon
    const Settings settings = read_config_file(path);
    if (chdir("/") != 0) throw std::runtime_error("Chdir failed");
    return settings;
}

void check_keys(const Settings& settings) {
    std::string known;
    for (const ConfigKey& key : config_keys) known.append(" ").append(key.name);
    for (const auto& [name, value] : settings) {
        const auto key = std::ranges::find(config_keys, name, &ConfigKey::name);
        if (key == std::end(config_keys)) {
            warn("unknown key [" + name + "]; the keys are" + known);
        } else if (key->is_switch && value != "yes" && value != "y" && value != "no" && value != "n") {
            warn("[" + name + "] is neither yes, y, no nor n: it counts as no");
        } else if (key->is_public_alone && !is_yes(settings, "public_site")) {
            warn("[" + name + "] has no effect without public_site=yes");
        }
    }
}

// Finds out whether the daemon can open the log, without creating the file and without waiting.
void check_log(bool is_enabled, const std::string& path) {
    if (!is_enabled) return;
    const auto error_of_access = [](const fs::path& name, int mode) {
        return faccessat(AT_FDCWD, name.c_str(), mode, AT_EACCESS) == 0 ? 0 : errno;
    };
    struct stat status;
    int error = stat(path.c_str(), &status) == 0 ? 0 : errno;
    if (error == 0 && S_ISFIFO(status.st_mode)) {
        error = error_of_access(path, W_OK);  // opened and closed, the pipe would end for its reader
        if (error == 0) warn("the daemon waits at its start until a program reads the pipe " + path);
    } else if (error == 0) {
        // O_CREAT as in the daemon: of a file that is there it can be refused, in a directory that everybody may use.
        const Descriptor log(open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_NONBLOCK, 0600));
        if (!log) error = errno;
    } else if (error == ENOENT) {
        fs::path target = path;
        while (fs::is_symlink(target)) target = target.parent_path() / fs::read_symlink(target);
        error = error_of_access(target.parent_path() / ".", W_OK | X_OK);
    }
    if (error != 0) throw log_open_error(path, error);
}

void check_access_log(const std::string& path) {
    std::error_code error;
    if (fs::exists(path, error)) {
        const AccessLog log(path);  // opens the file as the daemon does, which changes nothing
    } else {
        check_log(true, path);
    }
}

void load(const Settings& settings) {
    read_log_settings(settings);
    check_log(server_config.http_log_enabled, server_config.http_log_file);
    check_log(server_config.https_log_enabled, server_config.https_log_file);
    read_server_settings(settings, "");
    if (!server_config.access_log.empty()) check_access_log(server_config.access_log);
}

void check_port_of(const std::string& key, std::int32_t port) {
    if (port < 1 || port > 65535) {
        warn("[" + key + "] " + std::to_string(port) + " is no port from 1 to 65535: the daemon uses " +
             std::to_string(static_cast<std::uint16_t>(port)));
    }
    check_port(port);
}

// Tries what the servers open. Returns what is to be said of the certificate.
std::string check_servers() {
    const ServerConfig& config = server_config;
    const auto port = static_cast<std::uint16_t>(config.port_http);
    const bool is_equal = port != 0 && port == static_cast<std::uint16_t>(config.port_https);
    if (config.start_http && config.start_https && is_equal) {
        throw std::runtime_error("[port_http] and [port_https] are equal: only one server can bind it");
    }
    std::string certificate;
    if (config.start_http) check_port_of("port_http", config.port_http);
    if (config.start_https) {
        certificate = check_tls();
        if (!config.public_site) open_packet_socket();
        check_port_of("port_https", config.port_https);
    }
    return certificate;
}

// Returns false after a warning that leaves no website to look at.
bool check_directory() {
    const std::string& path = server_config.website_path;
    if (server_config.public_site) open_website();
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

// website is canonical and ends with a "/": every file of the website begins with it.
bool warn_of_path(const std::string& website) {
    if (website.starts_with(server_config.website_path)) return false;
    warn("[website_path] is not canonical, every request will be answered 403: write " +
         website.substr(0, website.size() - 1));
    return true;
}

bool warn_of_neighbours(const std::string& website) {
    bool has_warned = false;
    const std::string& path = server_config.website_path;
    std::error_code error;
    for (const fs::directory_entry& entry : fs::directory_iterator(fs::path(path).parent_path(), error)) {
        const std::string name = entry.path().string();
        if (!name.starts_with(path) || (name + "/").starts_with(website) || entry.is_symlink()) continue;
        warn("[website_path] " + name + " begins with it and is served too (as /../" +
             entry.path().filename().string() + "); over HTTPS it shares the cache slots of the website");
        has_warned = true;
    }
    return has_warned;
}

bool warn_of_cache_slots() {
    std::vector<SiteFile> cached = find_site_files().files;
    std::erase_if(cached, [](const SiteFile& file) { return cache_ignore_paths.contains(file.canonical_name); });
    const std::vector<SiteFile> missing = files_to_ignore(cached);
    if (missing.empty()) return false;
    warn("[cache_ignore] " + std::to_string(missing.size()) +
         " files share a cache slot with another file and can be answered with its bytes over HTTPS, for instance " +
         missing.front().entry + ": make the list with marlu-check list " + server_config.website_path);
    return true;
}

void check_website() {
    if (!check_directory() || server_config.public_site) return;
    const std::string website = (fs::canonical(server_config.website_path) / "").string();
    bool has_cure = warn_of_path(website);
    if (!has_cure) {
        has_cure = warn_of_neighbours(website);
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
    if (config.public_site) {
        std::cout << "access log   " << (config.access_log.empty() ? "off" : config.access_log) << '\n';
    }
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

void load_as_the_daemon(const std::string& path) {
    load(read_as_the_daemon(path));
}

void check_config(const std::string& path) {
    const Settings settings = read_as_the_daemon(path);
    check_keys(settings);
    load(settings);
    if (server_config.public_site && server_config.access_log.empty()) {
        warn("[access_log] is missing: nothing tells who visits the site");
    }
    if (server_config.https_only && !server_config.start_https) {
        warn("[https_only] HTTP redirects to HTTPS, which is not to be started");
    }
    const std::string certificate = check_servers();
    check_website();
    print_summary(certificate);
}
