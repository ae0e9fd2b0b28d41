#include <exception>
#include <filesystem>
#include <iostream>
#include <string>

#include "check/config_check.h"
#include "check/port_wait.h"
#include "check/site_files.h"
#include "config/load_configuration.h"

namespace {

constexpr char help_text[] =
    R"(marlu-check looks at what marluserver would be given. It starts nothing and changes nothing.

  marlu-check config FILE
      Reads the configuration FILE as the daemon does. Prints "OK" and a summary, or the daemon's own error text.
      Warns about what the daemon accepts and a user would not want: a website_path that is not canonical (every
      request is answered 403) or that other directories begin with, files that share a cache slot and are not on the
      cache-ignore list (wrong bytes over HTTPS), a port outside 1 to 65535, an unknown key, a value other than yes, y,
      no or n, a certificate that has expired or does not match its key, a missing permission for a port or the packet
      socket. Run it as the user the daemon runs as.
      Exit status: 0, warnings or not, or 1 when the daemon would refuse it.

  marlu-check list WEBSITE_PATH
      Prints a cache-ignore list with which every file below WEBSITE_PATH is served over HTTPS with its own bytes: of
      the files in each of the cache's 64 slots the largest stays cached, as long as those fit into its 256 MiB; the
      others are listed. The list belongs to this path: make it anew when the site is moved or its files change. What
      HTTPS cannot serve is named on standard error.
      Exit status: 0, or 1 when WEBSITE_PATH is no directory or the list cannot be written.

  marlu-check wait FILE
      Waits until the servers of the configuration FILE can bind their ports, for 65 seconds at most: connections of the
      last run keep the HTTPS port for up to a minute.
      Exit status: 0, or 1 when a port stays unavailable or the daemon would refuse the configuration.

  marlu-check --help
)";

int refuse(const std::string& message) {
    std::cerr << message << std::endl;
    return 1;
}

int print_list(const std::string& path) {
    std::error_code error;
    const std::string website_path = std::filesystem::canonical(path, error).string();
    if (error || !std::filesystem::is_directory(website_path)) return refuse("Not a directory: " + path);
    const Site site = find_site_files(website_path);
    for (const SiteFile& file : files_to_ignore(site.files)) {
        if (file.is_listable) {
            std::cout << file.entry << '\n';
        } else {
            std::cerr << file.entry << ": a list cannot hold this name, and its slot is another file's" << std::endl;
        }
    }
    for (const std::string& text : site.unserved) std::cerr << text << std::endl;
    return std::cout.flush() ? 0 : refuse("The list could not be written");
}

int run(const std::string& command, const std::string& argument) {
    if (command == "list") return print_list(argument);
    try {
        if (command == "config") {
            check_config(argument);
        } else {
            read_server_settings(read_as_the_daemon(argument), "");
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
