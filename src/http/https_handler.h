#pragma once

#include <openssl/types.h>

#include <string>

// Answers the one request of a TLS connection, then frees session and closes client_socket, also when it throws.
// session is bound to client_socket and not yet handshaken; the handler owns both. Counts in active_servers while it
// runs. Callable from several threads at once. Logs what goes wrong; throws std::bad_alloc when there is no memory for
// that.
void handle_https_client(SSL* session, int client_socket, const std::string& client_address);

// The body of a connection's thread: calls handle_https_client and logs what it throws.
void run_https_client(SSL* session, int client_socket, const std::string& client_address);
