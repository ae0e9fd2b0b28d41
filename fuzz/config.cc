// The configuration file, up to where the logs and the servers would open something, and after a line "---" the list of
// files that are never cached.
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <exception>

#include "config/cache_ignore.h"
#include "config/config_file.h"
#include "config/load_configuration.h"
#include "config/server_config.h"
#include "input.h"

namespace {

// A file that lies in memory, for as long as the object lives.
class MemoryFile {
  public:
    explicit MemoryFile(std::string_view content) {
        require(write(descriptor, content.data(), content.size()) == static_cast<ssize_t>(content.size()));
    }
    ~MemoryFile() { close(descriptor); }
    MemoryFile(const MemoryFile&) = delete;
    MemoryFile& operator=(const MemoryFile&) = delete;

  private:
    const int descriptor = memfd_create("input", 0);

  public:
    const std::string path = "/proc/self/fd/" + std::to_string(descriptor);
};

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

void take_settings(std::string_view text) {
    const ServerConfig& config = server_config = ServerConfig();
    const Settings settings = read_config_file(MemoryFile(text).path);
    require_same_again(settings);
    read_log_settings(settings);
    require(!config.http_log_enabled || !config.http_log_file.empty());
    require(!config.https_log_enabled || !config.https_log_file.empty());
    server_config.http_log_enabled = server_config.https_log_enabled = false;
    if (!stays_here(settings)) return;
    read_server_settings(settings, "");
    require(config.start_http || config.start_https);
    require(!config.start_https || !config.cipher_list.empty());
    require(!config.start_https || config.use_pem_file == config.crt_file.empty());
}

void take_list(std::string_view text) {
    server_config.website_path = site;
    server_config.cache_ignore_paths.clear();
    load_cache_ignore(MemoryFile(text).path, "");
    const auto& paths = server_config.cache_ignore_paths;
    require(paths.size() <= static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n')) + 1);
    for (const std::string& path : paths) {
        require(path.starts_with(site) && std::filesystem::path(path).lexically_normal() == path);
    }
}

// A configuration may be refused, whatever was thrown, but not without a reason.
void attempt(void (*take)(std::string_view), std::string_view text) {
    try {
        take(text);
    } catch (const std::exception& error) {
        require(*error.what() != '\0');
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    constexpr std::string_view divider = "---\n";
    const std::string_view text = text_of(data, size), settings = text.substr(0, text.find(divider));
    attempt(take_settings, settings);
    attempt(take_list, text.substr(std::min(settings.size() + divider.size(), size)));
    return 0;
}
