#pragma once

#include <cstddef>
#include <string>

// The answers of both servers, byte for byte. There are no headers but these.

inline constexpr char forbidden_response[] = "HTTP/1.1 403 Forbidden\r\nContent-Length: 0\r\n\r\n";
inline constexpr char method_not_allowed_response[] = "HTTP/1.1 405 Method Not Allowed\r\n\r\n";
// Intended: without a Content-Length and over HTTPS only.
inline constexpr char not_found_response[] =
    "HTTP/1.1 404 Not Found\r\nContent-Type: text/html\r\n\r\n"
    "<html><body><h1>404 Not Found</h1><p>The requested file was not found.</p></body></html>";
// Intended: for the log only, no client ever receives it.
inline constexpr char too_many_requests_text[] = "HTTP/1.1 429 Too Many Requests";

// The head of an answer whose body has size bytes.
inline std::string ok_header(const std::string& content_type, std::size_t size) {
    return "HTTP/1.1 200 OK\r\nContent-Type: " + content_type + "\r\nContent-Length: " + std::to_string(size) +
           "\r\n\r\n";
}
