// The configuration file, up to where the logs and the servers would open something.
#include <exception>

#include "config/config_file.h"
#include "config/load_configuration.h"
#include "config/server_config.h"
#include "input.h"

namespace {

// Written anew and read again the settings are the same. The first blank keeps a key that begins with "#" from starting
// a comment.
void require_same_again(const Settings& settings) {
    std::string text;
    for (const auto& [key, value] : settings) text += ' ' + key + "\t= " + value + " \r\n";
    require(read_config_file(MemoryFile(text).path) == settings);
}

// A file that an input names is looked for in the working directory and nowhere else.
bool stays_here(const Settings& settings) {
    for (const char* const key : {"pem_file", "crt_file", "key_file", "chain_file", "cache_ignore"}) {
        const std::string* const name = find_value(settings, key);
        if (name != nullptr && name->find('/') != std::string::npos) return false;
    }
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    server_config = ServerConfig();
    const ServerConfig& config = server_config;
    try {
        const Settings settings = read_config_file(MemoryFile(text_of(data, size)).path);
        require_same_again(settings);
        read_log_settings(settings);
        require(!config.http_log_enabled || !config.http_log_file.empty());
        require(!config.https_log_enabled || !config.https_log_file.empty());
        server_config.http_log_enabled = server_config.https_log_enabled = false;
        if (!stays_here(settings)) return 0;
        read_server_settings(settings, "");
        require(config.start_http || config.start_https);
        require(!config.start_https || !config.cipher_list.empty());
        require(!config.start_https || config.use_pem_file == config.crt_file.empty());
    } catch (const std::exception& error) {
        require(*error.what() != '\0');  // a refused configuration, whatever was thrown
    }
    return 0;
}
