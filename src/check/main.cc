#include <exception>
#include <filesystem>
#include <iostream>
#include <string>

#include "check/config_check.h"
#include "check/port_wait.h"
#include "check/site_files.h"
#include "config/load_configuration.h"
#include "config/server_config.h"

namespace {

constexpr char help_text[] =
    R"(marlu-check validates a configuration or a website for marluserver. It starts nothing and changes nothing.

  marlu-check config FILE
      Reads the configuration FILE as the daemon does. Prints "OK" and a summary, or the daemon's own error text.
      Warns of anything that the daemon accepts and nobody wants: a port outside 1 to 65535, an unknown key, a switch
      other than yes, y, no or n, a certificate that has expired or does not match its key, a missing permission for a
      port or the packet socket; and without public_site=yes: a website_path that is not canonical (every request is
      answered 403) or with which the name of another file or directory begins (that is served too), files that share
      a cache slot and are not on the cache-ignore list (wrong bytes over HTTPS). Run it as the daemon's user and with
      its capabilities.
      Exit status: 0, with or without warnings, or 1 when the daemon would refuse the configuration or could not start
      HTTPS with it.

  marlu-check list WEBSITE_PATH
      Prints the cache-ignore list with which HTTPS serves every file below WEBSITE_PATH with its own bytes. In each
      of the 64 cache slots the largest file stays cached, as long as these files fit into 256 MiB; all others are
      listed. The list is valid for this path and these files: make it again when files come, go or move. Standard
      error names what HTTPS cannot serve. With public_site=yes no list is needed.
      Exit status: 0, or 1 when WEBSITE_PATH is not a directory or the list cannot be written.

  marlu-check wait FILE
      Waits until the servers of the configuration FILE can bind their ports, at most 65 seconds: without
      public_site=yes connections of the previous run hold the HTTPS port for up to a minute. Does not wait for a port
      that is forbidden or on which another program listens.
      Exit status: 0, or 1 when a port stays unavailable or the daemon would refuse the configuration.

  marlu-check --help
)";

int refuse(const std::string& message) {
    std::cerr << message << std::endl;
    return 1;
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
