#pragma once

// For the listening sockets of the public site.

// Lets the socket bind while connections of the last run linger, and holds a connection back until its first bytes are
// there, so that a silent client holds no worker. To be called before bind. An option that cannot be set is left as it
// was.
void prepare_public_socket(int listening_socket);

// Returns when a connection waits on listening_socket, or after a tenth of a second.
void wait_for_connection(int listening_socket);

// To be called after a failed accept. Sleeps a tenth of a second: the failure may last, as when there is no descriptor
// left, and must fill neither the processor nor the log.
void pause_after_failed_accept();
