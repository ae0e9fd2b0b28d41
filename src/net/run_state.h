#pragma once

#include <openssl/types.h>

#include <atomic>
#include <cstdint>

// State that the supervisor, both servers and the signal handler share. Any thread may read and write all of it.

// Cleared by a signal that ends the daemon and by either server when it ends; the accept loops run while it is set.
inline std::atomic<bool> server_running{true};

// Number of running server functions and HTTPS connections; the supervisor waits while it is 1 or more.
inline std::atomic<std::int32_t> active_servers{0};

// Raises active_servers for as long as it lives.
class ActiveServer {
  public:
    ActiveServer() { active_servers.fetch_add(1); }
    ~ActiveServer() { active_servers.fetch_sub(1); }
    ActiveServer(const ActiveServer&) = delete;
    ActiveServer& operator=(const ActiveServer&) = delete;
};

// Resources that the signal handler releases.
// Intended: the HTTP listener keeps its socket to itself, so the first slot stays 0 and the handler closes descriptor
// 0, which is /dev/null in the daemon.
inline std::atomic<int> http_server_socket{0};
inline std::atomic<int> https_server_socket{0};
inline std::atomic<int> raw_socket{-1};
// Whoever frees the context empties the slot first, so that it is freed once.
inline std::atomic<SSL_CTX*> ssl_context{nullptr};

// Threads of public servers that may still open descriptors. The signal handler closes descriptor 0, so it waits until
// none of them can be given that number.
inline std::atomic<int> descriptor_openers{0};
