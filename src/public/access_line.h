#pragma once

#include <string>
#include <string_view>

#include "public/request.h"

// A line of the access log in the Combined Log Format, in two halves: what comes before and after the number of bytes
// that were sent.
struct AccessLine {
    std::string begin;
    std::string end;
};

// Puts the line of an answer together; address is the client's, time as the format wants it, without brackets. What is
// not printable ASCII, quotes and backslashes are escaped. The whole line, with the number, has at most 4095 bytes.
// Callable from any thread. Throws std::bad_alloc.
void write_access_line(AccessLine& line, std::string_view address, std::string_view time, const Request& request,
                       int status);
