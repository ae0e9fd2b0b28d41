#pragma once

#include "base/descriptor.h"

// Opens the packet socket of the HTTPS server. Throws SetUpError when this process may not.
Descriptor open_packet_socket();

// The HTTPS server: accepts connections on port_https until server_running is cleared and serves them one at a time,
// each on a thread of its own, or as a public site. When it ends, for whatever reason, it clears server_running, which
// ends the other server too. Reports to the HTTPS log alone; throws nothing. To be run on a thread of its own, once.
void start_server_https();
