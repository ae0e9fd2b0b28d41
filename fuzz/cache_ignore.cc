// The list of files that are never cached.
#include "config/cache_ignore.h"

#include <algorithm>
#include <filesystem>

#include "config/server_config.h"
#include "input.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const std::string site = std::filesystem::canonical(SITE);
    server_config.website_path = site;
    server_config.cache_ignore_paths.clear();
    const std::string_view list = text_of(data, size);
    try {
        load_cache_ignore(MemoryFile(list).path, "");
    } catch (const std::filesystem::filesystem_error&) {
        // Intended: a name that is too long refuses the configuration; what came before it stays.
    }
    const auto& paths = server_config.cache_ignore_paths;
    require(paths.size() <= static_cast<std::size_t>(std::count(list.begin(), list.end(), '\n')) + 1);
    for (const std::string& path : paths) {
        require(path.starts_with(site) && std::filesystem::path(path).lexically_normal() == path);
    }
    return 0;
}
