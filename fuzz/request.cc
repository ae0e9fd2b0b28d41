// The text of a request, from either parser to the file that it names.
#include "http/request.h"
#include "config/server_config.h"
#include "http/site_path.h"
#include "input.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    server_config.website_path = site;
    const std::string text(reinterpret_cast<const char*>(data), size);
    const std::string over_http = split_request_line(text).target;
    const std::string over_https = text.starts_with("GET /") ? split_target(text).path : "";
    for (const std::string& target : {over_http, over_https}) {
        if (target.empty()) continue;
        try {
            const OpenedFile file = open_site_file(target.substr(1));
            if (!file.descriptor) continue;
            // Whichever way it was opened, what is open lies in the site. Intended: not so the directory above, which a
            // NUL behind ".." opens; nothing can be read from a directory.
            const std::string link = "/proc/self/fd/" + std::to_string(file.descriptor.get());
            require(std::filesystem::read_symlink(link).string().starts_with(site) ||
                    std::filesystem::is_directory(link));
        } catch (const std::filesystem::filesystem_error&) {
            // Intended: a name that is too long.
        }
    }
    return 0;
}
