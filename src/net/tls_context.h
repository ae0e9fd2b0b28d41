#pragma once

#include <string>

// Puts a new server context with the configured certificate, key and ciphers for TLS 1.2 and 1.3 into ssl_context, for
// a public site also into public_ssl_context. Returns "", or the text to log when something fails; ssl_context is then
// null again. For the HTTPS listener's thread.
std::string create_ssl_context();

// Frees what is in ssl_context and leaves it null. Callable from any thread and from the signal handler.
void free_ssl_context();
