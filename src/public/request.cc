#include "public/request.h"

#include <algorithm>
#include <optional>

namespace {

constexpr std::string_view field_names[] = {
    "accept-encoding", "connection",      "content-length",      "host",  "if-match", "if-modified-since",
    "if-none-match",   "if-range",        "if-unmodified-since", "range", "referer",  "transfer-encoding",
    "user-agent",      "x-forwarded-for",
};

constexpr bool is_digit(char character) {
    return character >= '0' && character <= '9';
}

constexpr char lower(char character) {
    return character >= 'A' && character <= 'Z' ? static_cast<char>(character + ('a' - 'A')) : character;
}

constexpr bool is_alphanumeric(char character) {
    return is_digit(character) || (lower(character) >= 'a' && lower(character) <= 'z');
}

// Letters, digits and others.
constexpr std::array<bool, 256> character_set(std::string_view others) {
    std::array<bool, 256> set{};
    for (int code = 0; code < 128; ++code)
        set[static_cast<std::size_t>(code)] = is_alphanumeric(static_cast<char>(code));
    for (const char character : others) set[static_cast<unsigned char>(character)] = true;
    return set;
}

bool contains(const std::array<bool, 256>& set, char character) {
    return set[static_cast<unsigned char>(character)];
}

// A character of which method names and field names are made.
bool is_token_character(char character) {
    static constexpr auto set = character_set("!#$%&'*+-.^_`|~");
    return contains(set, character);
}

// A character of a host's name.
bool is_host_character(char character) {
    static constexpr auto set = character_set("-._~!$&'()*+,;=%");
    return contains(set, character);
}

bool is_token(std::string_view text) {
    return !text.empty() && std::all_of(text.begin(), text.end(), is_token_character);
}

bool is_number(std::string_view text) {
    return !text.empty() && std::all_of(text.begin(), text.end(), is_digit);
}

std::string_view trim_blanks(std::string_view text) {
    const auto is_blank = [](char character) { return character == ' ' || character == '\t'; };
    while (!text.empty() && is_blank(text.front())) text.remove_prefix(1);
    while (!text.empty() && is_blank(text.back())) text.remove_suffix(1);
    return text;
}

// The line at the beginning of bytes without its end, which is a line feed or both, and removes it.
std::string_view take_line(std::string_view& bytes) {
    std::string_view line = bytes.substr(0, bytes.find('\n'));
    bytes.remove_prefix(std::min(line.size() + 1, bytes.size()));
    if (line.ends_with('\r')) line.remove_suffix(1);
    return line;
}

// Returns how many bytes belong to empty lines at the beginning.
std::size_t count_empty_lines(std::string_view bytes) {
    std::size_t count = 0;
    for (;;) {
        if (bytes.substr(count).starts_with('\n')) {
            count += 1;
        } else if (bytes.substr(count).starts_with("\r\n")) {
            count += 2;
        } else {
            return count;
        }
    }
}

// Returns the size of the head at the beginning of bytes with the empty line behind it, or 0 when that is not there.
std::size_t find_head_end(std::string_view bytes, std::size_t seen) {
    std::size_t at = seen > 2 ? seen - 2 : 0;
    while ((at = bytes.find('\n', at)) != bytes.npos) {
        ++at;
        if (bytes.substr(at).starts_with('\n')) return at + 1;
        if (bytes.substr(at).starts_with("\r\n")) return at + 2;
    }
    return 0;
}

// A name or an address, perhaps with a port.
bool is_host(std::string_view text) {
    const std::size_t port = text.find(':', text.starts_with('[') ? std::min(text.find(']'), text.size()) : 0);
    const std::string_view name = text.substr(0, port);
    if (port != text.npos && port + 1 < text.size() && !is_number(text.substr(port + 1))) return false;
    if (name.starts_with('[')) {
        return name.size() > 2 && name.ends_with(']') &&
               name.substr(1, name.size() - 2).find_first_not_of("0123456789abcdefABCDEF:.") == name.npos;
    }
    return !name.empty() && std::all_of(name.begin(), name.end(), is_host_character);
}

std::optional<int> hexadecimal_digit(char character) {
    if (is_digit(character)) return character - '0';
    if (lower(character) >= 'a' && lower(character) <= 'f') return lower(character) - 'a' + 10;
    return std::nullopt;
}

// Decodes the percent signs of text. Returns false when one is wrong or means NUL.
bool decode(std::string_view text, std::string& decoded) {
    decoded.clear();
    for (std::size_t at = 0; at < text.size(); ++at) {
        if (text[at] != '%') {
            decoded += text[at];
            continue;
        }
        if (text.size() - at < 3) return false;
        const std::optional<int> high = hexadecimal_digit(text[at + 1]);
        const std::optional<int> low = hexadecimal_digit(text[at + 2]);
        if (!high || !low || *high + *low == 0) return false;
        decoded += static_cast<char>(*high * 16 + *low);
        at += 2;
    }
    return true;
}

// Takes "http://HOST/PATH" apart, of which the path may be missing. Returns false when target is something else.
bool read_absolute_target(std::string_view target, Request& request) {
    for (const std::string_view scheme : {"http://", "https://"}) {
        if (!equals_ignoring_case(target.substr(0, scheme.size()), scheme)) continue;
        const std::string_view rest = target.substr(scheme.size());
        const std::size_t end = std::min(rest.find_first_of("/?"), rest.size());
        request.host = rest.substr(0, end);
        request.target.clear();
        if (!rest.substr(end).starts_with('/')) request.target += '/';
        request.target += rest.substr(end);
        return is_host(request.host);
    }
    return false;
}

int read_version(std::string_view version, Request& request) {
    const bool is_version = version.size() == 8 && version.starts_with("HTTP/") && is_digit(version[5]) &&
                            version[6] == '.' && is_digit(version[7]);
    if (!is_version || version[5] == '0') return 400;
    if (version[5] != '1') return 505;
    request.is_http_1_0 = version[7] == '0';
    return 200;
}

int read_request_line(std::string_view line, Request& request) {
    const std::size_t first = line.find(' ');
    const std::size_t second = first == line.npos ? line.npos : line.find(' ', first + 1);
    if (second == line.npos) return 400;
    const std::string_view method = line.substr(0, first);
    const std::string_view target = line.substr(first + 1, second - first - 1);
    request.method = method == "GET" ? Method::get : method == "HEAD" ? Method::head : Method::other;
    const auto is_visible = [](char character) {
        return static_cast<unsigned char>(character) > ' ' && character != '\x7f';
    };
    if (target.size() > target_limit) return 414;
    if (!is_token(method) || !std::all_of(target.begin(), target.end(), is_visible)) return 400;
    if (const int status = read_version(line.substr(second + 1), request); status != 200) return status;
    if (target.starts_with('/')) {
        request.target = target;
    } else if (!read_absolute_target(target, request)) {
        return 400;
    }
    return 200;
}

// Returns false when the line is no field.
bool read_field(std::string_view line, Request& request) {
    const std::size_t colon = line.find(':');
    if (colon == line.npos || !is_token(line.substr(0, colon))) return false;
    const std::string_view name = line.substr(0, colon);
    const std::string_view value = trim_blanks(line.substr(colon + 1));
    if (value.find('\0') != value.npos || value.find('\r') != value.npos) return false;
    for (std::size_t index = 0; index < std::size(field_names); ++index) {
        if (!equals_ignoring_case(name, field_names[index])) continue;
        std::string& known = request.fields[index];
        // Of these three an empty one is malformed, and must not hide another one.
        const Field field{static_cast<int>(index)};
        const bool is_needed =
            field == Field::content_length || field == Field::host || field == Field::transfer_encoding;
        if (value.empty() && is_needed) return false;
        if (!known.empty()) known += ", ";
        known += value;
        break;
    }
    return true;
}

// Finds out whether a body follows. Returns false when what the fields say of its length is malformed or contradictory.
bool read_body_length(Request& request) {
    const std::string& length = request.field(Field::content_length);
    const std::string& coding = request.field(Field::transfer_encoding);
    request.has_body = !coding.empty() || !(length.empty() || length == "0");
    if (!coding.empty()) {
        std::string_view rest = coding;
        std::string_view last;
        int chunked = 0;
        while (!rest.empty()) {
            last = take_element(rest);
            chunked += equals_ignoring_case(last, "chunked");
        }
        return length.empty() && !request.is_http_1_0 && chunked == 1 && equals_ignoring_case(last, "chunked");
    }
    std::string_view rest = length;
    const std::string_view first = rest.substr(0, rest.find(','));
    while (!rest.empty()) {
        const std::string_view element = take_element(rest);
        if (!is_number(element) || element != first) return false;
    }
    return true;
}

void read_connection(Request& request) {
    std::string_view rest = request.field(Field::connection);
    request.is_kept = !request.is_http_1_0;
    while (!rest.empty()) {
        const std::string_view option = take_element(rest);
        if (equals_ignoring_case(option, "close")) {
            request.is_kept = false;
            return;
        }
        if (equals_ignoring_case(option, "keep-alive")) request.is_kept = true;
    }
}

// What is wrong with a request whose head is well-formed, so that the next one can be found.
int read_meaning(Request& request) {
    const std::string& host = request.field(Field::host);
    if (host.empty() ? !request.is_http_1_0 : !is_host(host)) return 400;
    if (request.host.empty()) request.host = host;
    return decode(std::string_view(request.target).substr(0, request.target.find('?')), request.path) ? 200 : 400;
}

int read_head(std::string_view head, Request& request) {
    request.line = take_line(head);
    if (const int status = read_request_line(request.line, request); status != 200) return status;
    for (;;) {
        const std::string_view line = take_line(head);
        if (line.empty()) break;
        if (!read_field(line, request)) return 400;
    }
    return read_body_length(request) ? 200 : 400;
}

// Refuses what can never become a request: too long, or no beginning of one.
int judge_incomplete_head(std::string_view bytes, Request& request) {
    std::string_view rest = bytes;
    request.line = take_line(rest);
    if (bytes.starts_with("HEAD ")) request.method = Method::head;  // whose answer has no page
    const std::size_t blank = std::min(bytes.find(' '), bytes.size());
    if (!std::all_of(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(std::min<std::size_t>(blank, 16)),
                     is_token_character) &&
        bytes != "\r")
        return 400;
    const std::size_t target_end = std::min(bytes.find_first_of(" \r\n", blank + 1), bytes.size());
    if (target_end > blank + 1 + target_limit) return 414;
    return bytes.size() > head_limit ? 431 : 0;
}

}  // namespace

ParsedHead parse_head(std::string_view bytes, std::size_t seen, Request& request) {
    request.line.clear();
    request.host.clear();
    request.method = Method::other;
    request.is_kept = request.has_body = request.is_http_1_0 = false;
    for (std::string& value : request.fields) value.clear();

    const std::size_t skipped = count_empty_lines(bytes);
    bytes.remove_prefix(skipped);
    ParsedHead head;
    if (bytes.empty()) return head;
    const std::size_t size = find_head_end(bytes, seen > skipped ? seen - skipped : 0);
    if (size == 0) {
        head.status = judge_incomplete_head(bytes, request);
        return head;
    }
    head.size = skipped + size;
    head.status = read_head(bytes.substr(0, size), request);
    if (head.status == 200 && size > head_limit) head.status = 431;
    if (head.status != 200) return head;
    read_connection(request);
    head.is_end_certain = !request.has_body;
    head.status = read_meaning(request);
    return head;
}

bool equals_ignoring_case(std::string_view a, std::string_view b) {
    return a.size() == b.size() &&
           std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) { return lower(x) == lower(y); });
}

std::string_view take_element(std::string_view& list) {
    const std::string_view element = list.substr(0, list.find(','));
    list.remove_prefix(std::min(element.size() + 1, list.size()));
    return trim_blanks(element);
}
