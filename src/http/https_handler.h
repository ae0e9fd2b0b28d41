#pragma once

#include <openssl/types.h>

#include <string>

// Answers the one request of a TLS connection; then the session is freed and the socket closed.
// session is bound to client_socket and not yet handshaken; both belong to the handler from the call on. Counts in
// active_servers while it runs. Callable from several threads at once. What goes wrong is logged; throws
// std::bad_alloc when there is no memory even for that.
void handle_https_client(SSL* session, int client_socket, const std::string& client_address);

// The same as the body of a thread of its own: nothing is thrown.
void run_https_client(SSL* session, int client_socket, const std::string& client_address);
