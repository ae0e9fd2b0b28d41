#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <stdexcept>
#include <string>

#include "log/log.h"

// What the two servers have in common.

// Something that a server needs could not be opened.
struct SetUpError : std::runtime_error {
    explicit SetUpError(const std::string& reason) : std::runtime_error(reason), text(reason) {}

    const std::string text;  // to be logged; what() would end at a NUL, which a cipher list can hold
};

// The address of all interfaces with the low 16 bits of port.
sockaddr_in any_address(std::int32_t port);

// Runs a server, which is serve, on the calling thread, with the thread's log context. Counts it in active_servers,
// logs what it throws to target, and in the end clears server_running, which ends the other server too. Throws
// std::bad_alloc when there is no memory for a log line.
void run_server(LogTarget target, void (*serve)(const std::string& context));
