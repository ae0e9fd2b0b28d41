#pragma once

#include <cstdint>
#include <string>
#include <unordered_set>
#include <vector>

// A header that is added to answers whose decoded path matches pattern, as fnmatch(3) has it.
struct HeaderRule {
    std::string pattern;
    std::string name;
    std::string value;
};

// The settings of the process. The configuration loader writes them on the main thread before any server thread
// exists; afterwards every thread reads them without a lock.
struct ServerConfig {
    std::string starting_directory;  // where the program lies
    std::string config_path;         // empty until the loader fills in the default
    bool http_log_enabled = false;
    std::string http_log_file;
    bool https_log_enabled = false;
    std::string https_log_file;
    std::string website_path;  // as written in the file, less one trailing "/" or backslash
    bool public_site = false;  // how the site is served: see public/public_server.h
    bool start_http = false;
    bool start_https = false;
    bool use_pem_file = false;  // pem_file is used, not crt_file and key_file
    bool has_chain = false;
    std::string pem_file;
    std::string chain_file;
    std::string crt_file;
    std::string key_file;
    std::string cipher_list;
    std::int32_t port_http = 80;  // any number: only its low 16 bits reach the socket
    std::int32_t port_https = 443;
    // For a public site alone.
    std::string access_log;                    // empty: none
    std::vector<HeaderRule> header_rules;      // from headers_file, in its order
    std::vector<std::string> trusted_proxies;  // addresses as logs write them
    bool https_only = false;                   // HTTP redirects to HTTPS
};

// Never destroyed, like every object that a thread may still use while the process exits: the daemon ends while its
// threads go on.
inline ServerConfig& server_config = *new ServerConfig;

// The canonical names of the files that are never cached. Written and read like server_config, and never destroyed.
inline std::unordered_set<std::string>& cache_ignore_paths = *new std::unordered_set<std::string>;
