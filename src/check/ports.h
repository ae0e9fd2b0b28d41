#pragma once

#include <cstdint>

// Throws std::runtime_error when this process may not bind port. That the port is in use now is no error.
void check_port(std::int32_t port);

// Waits until the servers of server_config can bind their ports, for 65 seconds at most: unless the site is public,
// HTTPS binds without address reuse, so connections of the last run, which linger for a minute, keep its port. Throws
// std::runtime_error when a port stays unavailable, at once when another program listens on it or it is forbidden.
void wait_for_ports();
