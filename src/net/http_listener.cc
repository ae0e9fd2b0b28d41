#include "net/http_listener.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <malloc.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <exception>
#include <string>
#include <thread>

#include "config/server_config.h"
#include "http/client_task.h"
#include "http/http_handler.h"
#include "http/responses.h"
#include "log/log.h"
#include "net/rate_limiter.h"
#include "net/run_state.h"
#include "net/thread_pool.h"
#include "public/listening.h"
#include "public/public_handler.h"

namespace {

constexpr int backlog = 4096;
constexpr std::size_t worker_count = 4;
constexpr std::chrono::milliseconds idle_pause{100};
constexpr int pauses_between_trims = 4;  // so that traffic with gaps finds the memory of the last bodies again

bool set_non_blocking(int descriptor) {
    const int flags = fcntl(descriptor, F_GETFL);
    return flags != -1 && fcntl(descriptor, F_SETFL, flags | O_NONBLOCK) != -1;
}

// Returns the listening socket, or -1 after logging what failed.
int open_listening_socket(const std::string& context) {
    const int listening_socket = socket(AF_INET, SOCK_STREAM, 0);
    if (listening_socket == -1) {
        log_to_targets(log_target_http, "Socket creation failed", context);
        return -1;
    }
    const auto give_up = [&](const std::string& message) {
        log_to_targets(log_target_http, message, context);
        close(listening_socket);
        return -1;
    };
    if (!set_non_blocking(listening_socket)) {
        return give_up(std::string("Error setting non-blocking mode for server: ") + std::strerror(errno));
    }
    const std::int32_t on = 1;
    if (setsockopt(listening_socket, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) < 0) {
        return give_up(std::string("Error setsockopt: ") + std::strerror(errno));
    }
    if (server_config.public_site) prepare_public_socket(listening_socket);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_ANY);
    address.sin_port = htons(static_cast<std::uint16_t>(server_config.port_http));  // the low 16 bits
    if (bind(listening_socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) < 0) {
        return give_up("Bind failed");
    }
    if (listen(listening_socket, backlog) < 0) {
        // Intended: unlike the failures before, this one leaves the socket open.
        log_to_targets(log_target_http, "Listen failed", context);
        return -1;
    }
    return listening_socket;
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
    while (server_running) {
        sockaddr_in peer{};
        socklen_t length = sizeof peer;
        const int client_socket = accept(listening_socket, reinterpret_cast<sockaddr*>(&peer), &length);
        if (client_socket != -1) {
            idle_pauses = 0;
            admit_or_refuse(client_socket, peer, context, pool);
        } else if (errno == EAGAIN) {
            if (server_config.public_site) {
                wait_for_connection(listening_socket);
            } else {
                std::this_thread::sleep_for(idle_pause);
            }
            if (++idle_pauses % pauses_between_trims == 0) malloc_trim(0);
        } else {
            // Intended: no pause before the next attempt, unless the site is public.
            log_to_targets(log_target_http, std::string("Error accept: ") + std::strerror(errno), context);
            if (server_config.public_site) pause_after_failed_accept();
        }
    }
}

void serve(const std::string& context) {
    std::signal(SIGPIPE, SIG_IGN);
    const int listening_socket = open_listening_socket(context);
    if (listening_socket == -1) return;

    const bool is_public = server_config.public_site;
    ThreadPool pool = is_public ? ThreadPool(public_workers, handle_public_http, public_waiting_limit)
                                : ThreadPool(worker_count, handle_http_client);
    log_to_targets(log_target_http, "Server started on port " + std::to_string(server_config.port_http), context);
    log_to_targets(log_target_http, "Serving files from: " + server_config.website_path, context);
    accept_connections(listening_socket, context, pool);
    close(listening_socket);  // before the pool, which then serves what is still queued
}

}  // namespace

void start_server_http() {
    const ActiveServer active;
    const std::string context = thread_context();
    try {
        serve(context);
    } catch (const std::exception& error) {
        // Intended: after an exception the listening socket stays open, until the process ends.
        log_to_targets(log_target_http, std::string("Failed marlu server: ") + error.what(), context);
    } catch (...) {
        log_to_targets(log_target_http, "Failed marlu server: Unknown error", context);
    }
    // Intended: the end of this server ends the other one too, and with it the daemon.
    server_running.exchange(false);
}
