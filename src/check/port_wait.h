#pragma once

// Waits until the servers of server_config can bind their ports, for 65 seconds at most: unless the site is public,
// HTTPS binds without address reuse, so connections of the last run, which linger for a minute, keep its port. Throws
// std::runtime_error when a port stays unavailable, at once when another program listens on it or it is forbidden.
void wait_for_ports();
