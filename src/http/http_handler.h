#pragma once

#include "http/client_task.h"

// Answers the one request of a plain-HTTP connection and closes its socket. Callable from several threads at once, each
// with a task of its own. Throws std::out_of_range for a request that is "GET" and no more, std::bad_alloc for a file
// that does not fit into memory and std::filesystem::filesystem_error for a name that cannot be made canonical; the
// socket is then left open.
void handle_http_client(const ClientTask& task);
