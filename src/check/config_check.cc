#include "check/config_check.h"

#include <fcntl.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/ui.h>
#include <openssl/x509.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <vector>

#include "check/site_files.h"
#include "config/config_file.h"
#include "config/load_configuration.h"
#include "config/server_config.h"
#include "log/log.h"
#include "net/tls_context.h"

namespace {

namespace fs = std::filesystem;

const std::vector<std::string> yes_no_keys = {"use_log", "use_log_http", "use_log_https", "start_http", "start_https"};
const std::vector<std::string> other_keys = {
    "log_file",   "log_file_http", "log_file_https", "website_path", "pem_file",   "crt_file",     "key_file",
    "chain_file", "cipher_list",   "port",           "port_http",    "port_https", "cache_ignore",
};

constexpr unsigned capability_net_bind_service = 10;
constexpr unsigned capability_net_raw = 13;

void warn(const std::string& text) {
    std::cerr << "warning: " << text << std::endl;
}

bool contains(const std::vector<std::string>& keys, const std::string& key) {
    return std::find(keys.begin(), keys.end(), key) != keys.end();
}

// How many characters are to be put in, taken out or changed to make b of a.
std::size_t edit_distance(const std::string& a, const std::string& b) {
    std::vector<std::size_t> row(b.size() + 1);
    for (std::size_t j = 0; j <= b.size(); ++j) row[j] = j;
    for (std::size_t i = 1; i <= a.size(); ++i) {
        std::size_t diagonal = row[0];
        row[0] = i;
        for (std::size_t j = 1; j <= b.size(); ++j) {
            const std::size_t change = diagonal + (a[i - 1] == b[j - 1] ? 0 : 1);
            diagonal = row[j];
            row[j] = std::min({row[j] + 1, row[j - 1] + 1, change});
        }
    }
    return row[b.size()];
}

void check_keys(const Settings& settings) {
    std::vector<std::string> known = yes_no_keys;
    known.insert(known.end(), other_keys.begin(), other_keys.end());
    for (const auto& [key, value] : settings) {
        if (!contains(known, key)) {
            const auto nearer = [&name = key](const std::string& a, const std::string& b) {
                return edit_distance(name, a) < edit_distance(name, b);
            };
            warn("unknown key [" + key + "], did you mean [" + *std::min_element(known.begin(), known.end(), nearer) +
                 "]?");
        } else if (contains(yes_no_keys, key) && value != "yes" && value != "y" && value != "no" && value != "n") {
            warn("[" + key + "] is neither yes, y, no nor n: it counts as no");
        }
    }
}

// The daemon refuses to start when it cannot open a log; this finds it out without making the file.
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

// Everything is answered with 403 unless the path is written as the system itself would write it.
bool check_website_path() {
    const std::string& path = server_config.website_path;
    if (path.empty()) {
        warn("[website_path] is the root directory: every file of this machine is served");
        return false;
    }
    std::error_code error;
    const std::string canonical = fs::canonical(path, error).string();
    if (error || !fs::is_directory(canonical)) {
        warn("[website_path] is no directory: " + path);
        return false;
    }
    if (canonical != path) {
        warn("[website_path] is not canonical, every request will be answered 403: write " + canonical);
        return false;
    }
    return true;
}

void check_neighbours() {
    const fs::path website(server_config.website_path);
    std::error_code error;
    for (const fs::directory_entry& entry : fs::directory_iterator(website.parent_path(), error)) {
        if (entry.path() != website && entry.path().string().starts_with(website.string())) {
            warn("[website_path] " + entry.path().string() + " begins with it and is served, too (as /../" +
                 entry.path().filename().string() + "); over HTTPS its files take cache slots of the website's");
        }
    }
}

void check_cache_slots() {
    std::vector<SiteFile> cached = find_site_files(server_config.website_path).files;
    std::erase_if(cached,
                  [](const SiteFile& file) { return server_config.cache_ignore_paths.contains(file.canonical_name); });
    const std::vector<SiteFile> missing = files_to_ignore(cached);
    if (missing.empty()) return;
    warn("[cache_ignore] " + std::to_string(missing.size()) +
         " files share a cache slot with another and can be answered with its bytes over HTTPS, for instance " +
         missing.front().entry + ": make the list with marlu-check list " + server_config.website_path);
}

struct Certificate {
    std::unique_ptr<X509, decltype(&X509_free)> certificate{nullptr, X509_free};
    std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> key{nullptr, EVP_PKEY_free};
};

Certificate read_certificate() {
    const auto open_file = [](const std::string& path) {
        return std::unique_ptr<BIO, decltype(&BIO_free)>(BIO_new_file(path.c_str(), "r"), BIO_free);
    };
    const auto certificate_file =
        open_file(server_config.use_pem_file ? server_config.pem_file : server_config.crt_file);
    const auto key_file = open_file(server_config.use_pem_file ? server_config.pem_file : server_config.key_file);
    Certificate result;
    if (certificate_file) {
        result.certificate.reset(PEM_read_bio_X509(certificate_file.get(), nullptr, nullptr, nullptr));
    }
    if (key_file) result.key.reset(PEM_read_bio_PrivateKey(key_file.get(), nullptr, nullptr, nullptr));
    return result;
}

std::string subject_and_days(const X509* certificate) {
    std::unique_ptr<BIO, decltype(&BIO_free)> text(BIO_new(BIO_s_mem()), BIO_free);
    X509_NAME_print_ex(text.get(), X509_get_subject_name(certificate), 0, XN_FLAG_ONELINE & ~ASN1_STRFLGS_ESC_MSB);
    char* begin = nullptr;
    const long length = BIO_get_mem_data(text.get(), &begin);
    int days = 0;
    int seconds = 0;
    ASN1_TIME_diff(&days, &seconds, nullptr, X509_get0_notAfter(certificate));
    if (days < 0 || seconds < 0) warn("the certificate has expired");
    if (X509_cmp_current_time(X509_get0_notBefore(certificate)) > 0) warn("the certificate is not valid yet");
    return std::string(begin, static_cast<std::size_t>(length)) + ", " + std::to_string(days) + " days left";
}

// Returns what the summary says of the certificate. Throws what would keep the HTTPS server from starting.
std::string check_tls() {
    const Certificate pair = read_certificate();
    if (pair.certificate && pair.key && X509_check_private_key(pair.certificate.get(), pair.key.get()) != 1) {
        warn("the private key does not match the certificate: the HTTPS server will not start");
    } else {
        const std::string failure = create_ssl_context();
        free_ssl_context();
        if (!failure.empty()) throw std::runtime_error(failure);
    }
    if (!is_permitted(capability_net_raw)) {
        warn("no permission here for the packet socket: without CAP_NET_RAW the HTTPS server will not start");
    }
    return pair.certificate ? subject_and_days(pair.certificate.get()) : "";
}

std::string server_summary(std::int32_t port, bool log_enabled, const std::string& log_file) {
    return "port " + std::to_string(port) + ", log " + (log_enabled ? log_file : "off");
}

void check(const std::string& path) {
    UI_set_default_method(UI_null());  // nobody will be there to type a pass phrase for the daemon
    const Settings settings = read_config_file(path);
    if (chdir("/") != 0) throw std::runtime_error("Chdir failed");
    check_keys(settings);
    read_log_settings(settings);
    require_log(server_config.http_log_enabled, server_config.http_log_file);
    require_log(server_config.https_log_enabled, server_config.https_log_file);
    read_server_settings(settings, "");

    const ServerConfig& config = server_config;
    std::string certificate;
    if (config.start_http) check_port("port_http", config.port_http);
    if (config.start_http && config.start_https && config.port_http == config.port_https) {
        warn("[port_http] and [port_https] are the same: only one of the servers will get it, and the daemon will end");
    }
    if (config.start_https) {
        check_port("port_https", config.port_https);
        certificate = check_tls();
    }
    if (check_website_path()) {
        check_neighbours();
        if (config.start_https) check_cache_slots();
    }
    std::cout << "OK\nwebsite      " << config.website_path << '\n';
    if (config.start_http) {
        std::cout << "HTTP         " << server_summary(config.port_http, config.http_log_enabled, config.http_log_file)
                  << '\n';
    }
    if (config.start_https) {
        std::cout << "HTTPS        "
                  << server_summary(config.port_https, config.https_log_enabled, config.https_log_file) << '\n'
                  << "certificate  " << certificate << '\n'
                  << "not cached   " << config.cache_ignore_paths.size() << " files\n";
    }
    std::cout << std::flush;
}

}  // namespace

bool check_config(const std::string& path) {
    try {
        check(path);
        return true;
    } catch (const std::exception& error) {
        std::cerr << error.what() << std::endl;
        return false;
    }
}
