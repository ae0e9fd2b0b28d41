#pragma once

#include <string>

// True when a new connection from client_address (dotted decimal) is to be refused: the address has opened 1000 in the
// current period of 11 seconds, over HTTP and HTTPS together. The caller closes a refused connection and logs it.
// Callable from any thread. Throws std::bad_alloc when there is no room for a new address, std::system_error when the
// lock fails.
bool is_rate_limited(const std::string& client_address);
