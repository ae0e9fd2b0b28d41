// What the HTTPS server makes of the text of a request, up to the name of the file and the query.
#include <filesystem>

#include "config/server_config.h"
#include "http/request.h"
#include "http/site_path.h"
#include "input.h"

namespace {

void require_parts_of(const std::string& query) {
    for (const auto& [key, value] : parse_query(query)) {
        require(key.find_first_of("&=") == std::string::npos && value.find('&') == std::string::npos);
        require(('&' + query + '&').find('&' + key + '=' + value + '&') != std::string::npos);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const std::string site = std::filesystem::canonical(SITE);
    server_config.website_path = site;
    std::string request(text_of(data, size).substr(0, 4095));  // what one read takes
    request.resize(request.find('\0') == std::string::npos ? request.size() : request.find('\0'));
    if (!request.starts_with("GET /")) return 0;

    const TargetParts target = split_target(request);
    require(target.path.starts_with('/') && target.path.find_first_of(" ?") == std::string::npos);
    try {
        std::string name;
        const bool is_allowed = is_path_allowed(site, target.path.substr(1), &name);
        require(is_allowed == name.starts_with(site));
        require(std::filesystem::path(name).lexically_normal() == name);  // nothing is left that could lead elsewhere
        if (is_allowed && target.query) require_parts_of(*target.query);
    } catch (const std::filesystem::filesystem_error&) {
        // Intended: a name that is too long ends the connection.
    }
    return 0;
}
