#include "check/port_wait.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <iostream>
#include <stdexcept>
#include <string>
#include <thread>

#include "config/server_config.h"

namespace {

constexpr std::chrono::seconds longest_wait{65};
constexpr std::chrono::milliseconds pause{200};

// Calls bind or connect on a new socket with port of host. Returns 0 or the call's errno.
int try_port(int (*call)(int, const sockaddr*, socklen_t), in_addr_t host, std::int32_t port, int reuse) {
    const int descriptor = socket(AF_INET, SOCK_STREAM, 0);
    if (descriptor == -1) return errno;
    setsockopt(descriptor, SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof reuse);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(host);
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    const int error = call(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 ? 0 : errno;
    close(descriptor);
    return error;
}

void wait_for_port(std::int32_t port, bool reuse, std::chrono::steady_clock::time_point deadline) {
    const auto bind_error = [&] { return try_port(bind, INADDR_ANY, port, reuse); };
    int error = bind_error();
    if (error == EADDRINUSE && try_port(connect, INADDR_LOOPBACK, port, 0) == 0) {
        throw std::runtime_error("Another program listens on port " + std::to_string(port));
    }
    if (error == EADDRINUSE) {
        std::cerr << "Waiting until the last connections on port " << port << " are gone, a minute at most"
                  << std::endl;
    }
    while (error == EADDRINUSE && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(pause);
        error = bind_error();
    }
    if (error != 0) throw std::runtime_error("Port " + std::to_string(port) + ": " + std::strerror(error));
}

}  // namespace

void wait_for_ports() {
    const auto deadline = std::chrono::steady_clock::now() + longest_wait;
    if (server_config.start_http) wait_for_port(server_config.port_http, true, deadline);
    if (server_config.start_https) wait_for_port(server_config.port_https, server_config.public_site, deadline);
}
