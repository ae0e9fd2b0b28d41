// A plain-HTTP connection, from the bytes that a client sends to those that it gets.
#include <sys/socket.h>

#include <filesystem>
#include <stdexcept>

#include "config/server_config.h"
#include "http/http_handler.h"
#include "http/request.h"
#include "http/site_path.h"
#include "input.h"

namespace {

// The short way to a file leads where the long one does.
void require_same_file(const std::string& relative_path) {
    try {
        std::string name;
        const bool is_allowed = is_path_allowed(server_config.website_path, relative_path, &name);
        const OpenedFile file = open_site_file(relative_path);
        if (file.descriptor != -1) close(file.descriptor);
        require(file.is_allowed == is_allowed && file.canonical_name == name);
    } catch (const std::filesystem::filesystem_error&) {
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const std::string site = std::filesystem::canonical(SITE);  // its files fit into the buffer of a socket
    server_config.website_path = site;
    const std::string_view request = text_of(data, size).substr(0, 4096);  // what one read takes
    int sockets[2];
    require(socketpair(AF_UNIX, SOCK_STREAM, 0, sockets) == 0);
    require(write(sockets[0], request.data(), request.size()) == static_cast<ssize_t>(request.size()));
    shutdown(sockets[0], SHUT_WR);
    try {
        handle_http_client({sockets[1], "127.0.0.1", "1"});
    } catch (const std::out_of_range&) {
        // Intended: "GET" and no more ends the daemon.
        const RequestLine line = split_request_line(request);
        require(line.method == "GET" && line.target.empty());
        close(sockets[1]);
    } catch (const std::filesystem::filesystem_error&) {
        close(sockets[1]);  // Intended: a name that is too long ends the daemon.
    }
    const std::string target = with_index_file(split_request_line(request).target);
    if (!target.empty()) require_same_file(target.substr(1));
    close(sockets[0]);
    return 0;
}
