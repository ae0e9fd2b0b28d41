#pragma once

#include "base/openssl.h"

// Returns a new server context with the configured certificate, key and ciphers, for TLS 1.2 and 1.3. Throws SetUpError
// when something fails. Callable from any thread.
SslContext make_ssl_context();

// Frees what is in ssl_context and leaves it null. Callable from any thread and from the signal handler.
void free_ssl_context();
