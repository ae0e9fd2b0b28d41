#pragma once

#include <string>

// One accepted connection for a worker. The handler that receives it owns client_socket and closes it.
struct ClientTask {
    int client_socket;           // over plain HTTP non-blocking, unless the system refused to make it so
    std::string client_address;  // dotted decimal
    std::string log_context;     // Intended: the listener's thread id, whichever worker serves the connection.
};
