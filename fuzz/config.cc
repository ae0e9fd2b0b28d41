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

// Returns the name of a file in memory; the next call changes it.
std::string file_of(std::string_view text) {
    static const int descriptor = memfd_create("input", 0);
    require(ftruncate(descriptor, 0) == 0);
    require(pwrite(descriptor, text.data(), text.size(), 0) == static_cast<ssize_t>(text.size()));
    return "/proc/self/fd/" + std::to_string(descriptor);
}

// A file that an input names is looked for in the working directory and nowhere else.
bool stays_here(const Settings& settings) {
    return std::ranges::none_of(settings, [](const auto& setting) {
        const auto& [key, value] = setting;
        return (key.ends_with("_file") || key == "cache_ignore") && value.find('/') != std::string::npos;
    });
}

void take_settings(std::string_view text) {
    const ServerConfig& config = server_config = ServerConfig();
    const Settings settings = read_config_file(file_of(text));
    read_log_settings(settings);
    require(!config.http_log_enabled || !config.http_log_file.empty());
    if (!stays_here(settings)) return;
    read_server_settings(settings, "");
    require(config.start_http || config.start_https);
    require(!config.start_https || config.use_pem_file == config.crt_file.empty());
}

void take_list(std::string_view text) {
    server_config = ServerConfig();
    server_config.website_path = site;
    cache_ignore_paths.clear();
    load_cache_ignore(file_of(text), "");
    for (const std::string& path : cache_ignore_paths) {
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
    const std::string_view text(reinterpret_cast<const char*>(data), size),
        settings = text.substr(0, text.find(divider));
    attempt(take_settings, settings);
    attempt(take_list, text.substr(std::min(settings.size() + divider.size(), size)));
    return 0;
}
