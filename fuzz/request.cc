// The text of a request, as either server takes it.
#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>

#include "config/server_config.h"
#include "http/http_handler.h"
#include "http/request.h"
#include "http/site_path.h"
#include "input.h"

namespace {

// A connection on which the client has sent its request and will send no more. The site's files fit into its buffers.
struct Sockets {
    explicit Sockets(std::string_view request) {
        int pair[2];
        require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, pair) == 0);
        client = pair[0];
        server = pair[1];
        require(write(client, request.data(), request.size()) == static_cast<ssize_t>(request.size()));
        shutdown(client, SHUT_WR);
    }
    ~Sockets() { close(client); }

    int client;
    int server;  // the handler's
};

void take_over_http(std::string_view request) {
    const Sockets sockets(request);
    try {
        handle_http_client({sockets.server, "127.0.0.1", "1"});
    } catch (const std::out_of_range&) {
        // Intended: "GET" and no more ends the daemon.
        const RequestLine line = split_request_line(request);
        require(line.method == "GET" && line.target.empty());
        close(sockets.server);
    } catch (const std::filesystem::filesystem_error&) {
        close(sockets.server);  // Intended: a name that is too long ends the daemon.
    }
}

// What the HTTPS server makes of the text, up to the name of the file and the query.
void take_over_https(std::string_view text) {
    const std::string request(text.substr(0, text.find('\0')));
    if (!request.starts_with("GET /")) return;
    const TargetParts target = split_target(request);
    require(target.path.starts_with('/') && target.path.find_first_of(" ?") == std::string::npos);
    for (const auto& [key, value] : parse_query(target.query.value_or(""))) {
        require(('&' + *target.query + '&').find('&' + key + '=' + value + '&') != std::string::npos);
    }
    try {
        const std::string name = canonical_name(target.path.substr(1));
        const bool is_allowed = is_path_allowed(target.path.substr(1));
        require(is_allowed == name.starts_with(site));
        require(std::filesystem::path(name).lexically_normal() == name);  // nothing is left that could lead elsewhere
        // The short way to a file leads where the long one does.
        const OpenedFile file = open_site_file(target.path.substr(1));
        require(file.is_allowed == is_allowed && file.canonical_name == name);
    } catch (const std::filesystem::filesystem_error&) {
        // Intended: a name that is too long ends the connection.
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    server_config.website_path = site;
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    take_over_http(text.substr(0, request_limit));  // what one read takes
    take_over_https(text.substr(0, request_limit - 1));
    return 0;
}
