#include <algorithm>
#include <cstdint>
#include <exception>
#include <filesystem>
#include <iostream>
#include <string>

#include "check/config_check.h"
#include "check/ports.h"
#include "check/site_files.h"
#include "config/server_config.h"
#include "public/content_type.h"

namespace {

constexpr char help_text[] = R"(marlu-check validates a configuration or a website for marluserver; see marlu-check(8).

  marlu-check config FILE         what the daemon would make of the configuration FILE
  marlu-check list WEBSITE_PATH   the cache-ignore list that HTTPS without public_site needs
  marlu-check wait FILE           waits until the ports of the configuration FILE are free
)";

int refuse(const std::string& message) {
    std::cerr << message << std::endl;
    return 1;
}

// Names a file that a public site could send compressed and does not.
void name_uncompressed(const SiteFile& file) {
    constexpr std::uint64_t one_packet = 1400;  // bytes: what fits is not faster when it is smaller
    const std::filesystem::path path = file.canonical_name;
    if (file.size <= one_packet || !content_type_of(path.filename().string()).is_compressible) return;
    for (const char* const suffix : {".br", ".gz"}) {
        std::error_code error;
        const auto time = std::filesystem::last_write_time(file.canonical_name + suffix, error);
        if (!error && time >= std::filesystem::last_write_time(path, error)) return;
    }
    std::cerr << file.entry << ": has no compressed form beside it (.br, .gz), or an older one" << std::endl;
}

int print_list(const std::string& path) {
    std::error_code error;
    server_config.website_path = std::filesystem::canonical(path, error).string();
    if (error || !std::filesystem::is_directory(path)) return refuse("Not a directory: " + path);
    const Site site = find_site_files();
    for (const SiteFile& file : files_to_ignore(site.files)) {
        if (file.is_listable) {
            std::cout << file.entry << '\n';
        } else {
            std::cerr << file.entry << ": a list cannot hold this name, and another file has its cache slot"
                      << std::endl;
        }
    }
    std::for_each(site.files.begin(), site.files.end(), name_uncompressed);
    for (const std::string& text : site.unserved) std::cerr << text << std::endl;
    return std::cout.flush() ? 0 : refuse("The list could not be written");
}

int run(const std::string& command, const std::string& argument) {
    if (command == "list") return print_list(argument);
    try {
        if (command == "config") {
            check_config(argument);
        } else {
            load_as_the_daemon(argument);
            wait_for_ports();
        }
        return 0;
    } catch (const std::exception& error) {
        return refuse(error.what());
    }
}

}  // namespace

int main(int argument_count, char** arguments) {
    const std::string command = argument_count > 1 ? arguments[1] : "";
    if (command == "--help" && argument_count == 2) {
        std::cout << help_text << std::flush;
        return 0;
    }
    if ((command == "config" || command == "list" || command == "wait") && argument_count == 3) {
        return run(command, arguments[2]);
    }
    return refuse("Usage: " + std::string(arguments[0]) + " config FILE | list WEBSITE_PATH | wait FILE | --help");
}
