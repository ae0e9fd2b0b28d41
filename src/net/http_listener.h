#pragma once

// The plain-HTTP server: accepts connections on port_http until server_running is cleared and has them served by four
// workers, or as a public site. When it ends, for whatever reason, it clears server_running, which ends the other
// server too. Reports to the HTTP log alone; throws nothing. To be run on a thread of its own, once.
void start_server_http();
