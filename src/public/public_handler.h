#pragma once

#include <cstddef>

#include "http/client_task.h"

// Workers of each server, that is connections that are served at once.
inline constexpr std::size_t public_workers = 64;
// Connections that wait for a worker of one server; the kernel's backlog holds further ones. With both servers at their
// limits the daemon stays within 1024 descriptors.
inline constexpr std::size_t public_waiting_limit = 256;

// Answers the one request of a connection of the public site and closes its socket. Each wait for the client has a
// limit, and no request ends the process. Callable from several threads at once. Throws nothing.
void handle_public_http(const ClientTask& task);

// The same over TLS, the address check and the handshake included, with the context in public_ssl_context.
void handle_public_https(const ClientTask& task);
