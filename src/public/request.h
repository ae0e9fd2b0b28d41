#pragma once

#include <array>
#include <cstddef>
#include <string>
#include <string_view>

inline constexpr std::size_t target_limit = 8 << 10;  // bytes; a longer target is refused with 414
inline constexpr std::size_t head_limit = 16 << 10;   // bytes; a longer head is refused with 431

// The header fields that a public site looks at.
enum class Field {
    accept_encoding,
    connection,
    content_length,
    host,
    if_match,
    if_modified_since,
    if_none_match,
    if_range,
    if_unmodified_since,
    range,
    referer,
    transfer_encoding,
    user_agent,
    x_forwarded_for,
    count
};

enum class Method { get, head, other };

// The head of one request. Made to be used again: its texts keep their memory.
struct Request {
    std::string line;  // the request line as sent, as far as it was found
    Method method = Method::other;
    bool is_http_1_0 = false;
    std::string host;       // the authority of the target, or else the field Host; valid or empty
    std::string target;     // path and query as sent; begins with "/"
    std::string path;       // the path, decoded; begins with "/"
    bool is_kept = false;   // the client wants to go on with this connection
    bool has_body = false;  // there is a body, or something that could mean one
    std::array<std::string, static_cast<std::size_t>(Field::count)> fields;

    // The value of a field, "" when it is absent. Values of repeated fields are joined by ", ".
    const std::string& field(Field name) const { return fields[static_cast<std::size_t>(name)]; }
};

// What became of the first bytes of a connection, or of those behind the last request.
struct ParsedHead {
    int status = 0;  // 0 while the head is not whole, 200 for a request to answer, else the status that refuses it
    std::size_t size = 0;  // bytes of the head, of empty lines before it and of the one behind it; 0 while not known
    bool is_end_certain = false;  // the next request begins behind the head
};

// Takes the head at the beginning of bytes apart. seen is the number of bytes that an earlier call for the same head
// has looked at. Fills request as far as it comes. Callable from any thread. Throws std::bad_alloc.
ParsedHead parse_head(std::string_view bytes, std::size_t seen, Request& request);

// True when a and b are equal but for the case of ASCII letters.
bool equals_ignoring_case(std::string_view a, std::string_view b);

// Removes the first element, without the blanks around it, from a list whose elements are separated by commas, and
// returns it. The elements of an empty list, and of one that ends in a comma, are empty.
std::string_view take_element(std::string_view& list);
