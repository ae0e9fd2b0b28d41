#pragma once

#include <ctime>
#include <optional>
#include <string>

// Returns time as HTTP writes dates, such as "Sun, 06 Nov 1994 08:49:37 GMT". Callable from any thread.
std::string http_date(std::time_t time);

// Returns the time that text means in one of the three forms that HTTP knows, or nothing. Callable from any thread.
std::optional<std::time_t> parse_http_date(const std::string& text);
