#include "check/ports.h"

#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <iostream>
#include <stdexcept>
#include <string>
#include <thread>

#include "base/descriptor.h"
#include "config/server_config.h"
#include "net/server.h"

namespace {

constexpr std::chrono::seconds longest_wait{65};
constexpr std::chrono::milliseconds pause{200};

// Calls bind or connect on a new socket with port, which connect looks for on this machine. Returns 0 or the call's
// errno.
int try_port(int (*call)(int, const sockaddr*, socklen_t), std::int32_t port, int reuse) {
    const Descriptor descriptor(socket(AF_INET, SOCK_STREAM, 0));
    if (!descriptor) return errno;
    setsockopt(descriptor.get(), SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof reuse);
    const sockaddr_in address = any_address(port);
    return call(descriptor.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 ? 0 : errno;
}

std::runtime_error port_error(std::int32_t port, int error) {
    return std::runtime_error("Port " + std::to_string(port) + ": " + std::strerror(error));
}

void wait_for_port(std::int32_t port, bool reuse, std::chrono::steady_clock::time_point deadline) {
    int error = try_port(bind, port, reuse);
    if (error == EADDRINUSE && try_port(connect, port, 0) == 0) {
        throw std::runtime_error("Another program listens on port " + std::to_string(port));
    }
    if (error == EADDRINUSE) {
        std::cerr << "Waiting until the last connections on port " << port << " are gone, a minute at most"
                  << std::endl;
    }
    while (error == EADDRINUSE && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(pause);
        error = try_port(bind, port, reuse);
    }
    if (error != 0) throw port_error(port, error);
}

}  // namespace

void check_port(std::int32_t port) {
    const int error = try_port(bind, port, 1);
    if (error != 0 && error != EADDRINUSE) throw port_error(port, error);
}

void wait_for_ports() {
    const auto deadline = std::chrono::steady_clock::now() + longest_wait;
    if (server_config.start_http) wait_for_port(server_config.port_http, true, deadline);
    if (server_config.start_https) wait_for_port(server_config.port_https, server_config.public_site, deadline);
}
