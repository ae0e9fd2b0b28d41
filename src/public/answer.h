#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <string>

#include "base/descriptor.h"
#include "public/request.h"

// What the answers of a server depend on beside the request and the settings.
struct Site {
    int directory;   // the website, open
    bool is_secure;  // the server speaks TLS
};

// The present second, and how HTTP writes it.
struct Moment {
    std::time_t now = 0;
    std::string date;
};

// One answer: bytes, and behind them size bytes of file from offset on. Made to be used again: bytes keeps its memory.
struct Answer {
    int status = 0;
    std::string bytes;          // the head, and the page of an answer without a file
    std::size_t head_size = 0;  // of bytes
    Descriptor file;            // empty when bytes is the whole answer
    std::uint64_t offset = 0;
    std::uint64_t size = 0;
    bool is_kept = false;  // another request may follow
};

// Answers a request, or refuses it, as head says; head.status is not 0. Callable from any thread. Throws
// std::bad_alloc, and std::system_error when no descriptor is left.
void answer_request(const ParsedHead& head, const Request& request, const Site& site, const Moment& moment,
                    Answer& answer);
