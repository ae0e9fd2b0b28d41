#include "net/http_listener.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <malloc.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <string>
#include <thread>

#include "base/descriptor.h"
#include "config/server_config.h"
#include "http/client_task.h"
#include "http/responses.h"
#include "log/log.h"
#include "net/rate_limiter.h"
#include "net/run_state.h"
#include "net/server.h"
#include "net/thread_pool.h"
#include "public/public_server.h"

namespace {

constexpr int backlog = 4096;
constexpr std::size_t worker_count = 4;
constexpr std::chrono::milliseconds idle_pause{100};
constexpr int pauses_between_trims = 4;  // so that traffic with gaps finds the memory of the last bodies again

bool set_non_blocking(int descriptor) {
    const int flags = fcntl(descriptor, F_GETFL);
    return flags != -1 && fcntl(descriptor, F_SETFL, flags | O_NONBLOCK) != -1;
}

// Throws SetUpError.
int open_listening_socket() {
    Descriptor listening_socket(socket(AF_INET, SOCK_STREAM, 0));
    if (!listening_socket) throw SetUpError("Socket creation failed");
    if (!set_non_blocking(listening_socket.get())) {
        const int error = errno;
        throw SetUpError(std::string("Error setting non-blocking mode for server: ") + std::strerror(error));
    }
    const std::int32_t on = 1;
    if (setsockopt(listening_socket.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) < 0) {
        const int error = errno;
        throw SetUpError(std::string("Error setsockopt: ") + std::strerror(error));
    }
    const sockaddr_in address = any_address(server_config.port_http);
    if (bind(listening_socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) < 0) {
        throw SetUpError("Bind failed");
    }
    // Intended: unlike the failures before, a failed listen leaves the socket open.
    const int descriptor = listening_socket.release();
    if (listen(descriptor, backlog) < 0) throw SetUpError("Listen failed");
    return descriptor;
}

void admit_or_refuse(int client_socket, const sockaddr_in& peer, const std::string& context, ThreadPool& pool) {
    const std::string client_address = inet_ntoa(peer.sin_addr);
    if (is_rate_limited(client_address)) {
        // Intended: the client is told nothing.
        log_event(log_target_http, client_address, too_many_requests_text, context);
        close(client_socket);
        return;
    }
    set_non_blocking(client_socket);  // a connection for which this fails is served all the same
    pool.enqueue(ClientTask{client_socket, client_address, context});
}

void accept_connections(int listening_socket, const std::string& context, ThreadPool& pool) {
    int idle_pauses = 0;
    std::uint64_t served_at_trim = 0;
    while (server_running) {
        sockaddr_in peer{};
        socklen_t length = sizeof peer;
        const int client_socket = accept(listening_socket, reinterpret_cast<sockaddr*>(&peer), &length);
        if (client_socket != -1) {
            idle_pauses = 0;
            admit_or_refuse(client_socket, peer, context, pool);
        } else if (errno == EAGAIN) {
            std::this_thread::sleep_for(idle_pause);
            if (++idle_pauses % pauses_between_trims == 0 && pool.served() != served_at_trim) {
                served_at_trim = pool.served();
                malloc_trim(0);
            }
        } else {
            // Intended: no pause before the next attempt.
            log_to_targets(log_target_http, std::string("Error accept: ") + std::strerror(errno), context);
        }
    }
}

void serve(const std::string& context) {
    // Intended: after an exception the listening socket stays open, until the process ends.
    const int listening_socket = open_listening_socket();
    ThreadPool pool(worker_count);
    log_to_targets(log_target_http, "Server started on port " + std::to_string(server_config.port_http), context);
    log_to_targets(log_target_http, "Serving files from: " + server_config.website_path, context);
    accept_connections(listening_socket, context, pool);
    close(listening_socket);  // before the pool, which then serves what is still queued
}

}  // namespace

void start_server_http() {
    run_server(log_target_http, server_config.public_site ? serve_public_http : serve);
}
