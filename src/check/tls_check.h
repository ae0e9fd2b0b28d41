#pragma once

#include <string>

// Checks the certificate, key, chain and ciphers in server_config, warning where HTTPS would not work or browsers would
// complain. Returns the certificate's subject and remaining days. Throws std::runtime_error with the daemon's own text
// when a file or the cipher list cannot be used.
std::string check_tls();
