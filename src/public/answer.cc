#include "public/answer.h"

#include <fnmatch.h>
#include <sys/stat.h>

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <optional>
#include <string_view>

#include "config/server_config.h"
#include "public/content_type.h"
#include "public/http_date.h"
#include "public/site_file.h"

namespace {

constexpr std::size_t most_parts = 255;  // of a path
constexpr std::string_view index_file = "index.html";
constexpr std::string_view not_found_page = "404.html";
constexpr std::string_view challenge_directory = "/.well-known/acme-challenge/";  // where authorities look over HTTP
constexpr struct {
    std::string_view coding;
    const char* suffix;
} compressed_forms[] = {{"br", ".br"}, {"gzip", ".gz"}};  // the preferred one first

const char* reason_of(int status) {
    switch (status) {
        case 200:
            return "200 OK";
        case 206:
            return "206 Partial Content";
        case 301:
            return "301 Moved Permanently";
        case 304:
            return "304 Not Modified";
        case 400:
            return "400 Bad Request";
        case 404:
            return "404 Not Found";
        case 405:
            return "405 Method Not Allowed";
        case 412:
            return "412 Precondition Failed";
        case 414:
            return "414 URI Too Long";
        case 416:
            return "416 Range Not Satisfiable";
        case 431:
            return "431 Request Header Fields Too Large";
        default:
            return "505 HTTP Version Not Supported";
    }
}

// A file as it is sent: as it lies there, or compressed.
struct Representation {
    Descriptor file;
    struct stat status;
    std::string_view coding;  // empty when not compressed
};

std::uint64_t size_of(const Representation& representation) {
    return static_cast<std::uint64_t>(representation.status.st_size);
}

// Strong, and the same on every machine to which the file was copied with its time.
std::string etag_of(const Representation& representation) {
    const timespec& time = representation.status.st_mtim;
    char text[64];
    char* end = text;
    *end++ = '"';
    const std::uint64_t nanoseconds = static_cast<std::uint64_t>(time.tv_sec) * 1'000'000'000;  // may wrap around
    end = std::to_chars(end, std::end(text), nanoseconds + static_cast<std::uint64_t>(time.tv_nsec), 16).ptr;
    *end++ = '-';
    end = std::to_chars(end, std::end(text), size_of(representation), 16).ptr;
    std::string etag(text, end);
    if (!representation.coding.empty()) etag.append("-").append(representation.coding);
    return etag += '"';
}

// Puts the parts of a decoded path together, without the empty ones. Returns nothing when the path names what is never
// served: something hidden, which includes "." and "..", or too deep.
std::optional<std::string> relative_path_of(std::string_view path) {
    std::string relative;
    std::size_t parts = 0;
    while (!path.empty()) {
        const std::string_view part = path.substr(0, path.find('/'));
        path.remove_prefix(std::min(part.size() + 1, path.size()));
        if (part.empty()) continue;
        if (++parts > most_parts || (part.starts_with('.') && part != ".well-known")) return std::nullopt;
        if (!relative.empty()) relative += '/';
        relative += part;
    }
    return relative;
}

// True when the client takes coding, which the field Accept-Encoding names or "*" stands for.
bool is_accepted(std::string_view list, std::string_view coding) {
    bool is_any_accepted = false;
    while (!list.empty()) {
        std::string_view element = take_element(list);
        const std::string_view name = element.substr(0, element.find_first_of("; \t"));
        const std::size_t weight = element.find('=');
        // Nothing but zeros behind ";q=" means no.
        const bool is_wanted = weight == element.npos || element.find_first_of("123456789", weight) != element.npos;
        if (equals_ignoring_case(name, coding)) return is_wanted;
        if (name == "*") is_any_accepted = is_wanted;
    }
    return is_any_accepted;
}

// True when the list of entity tags holds etag. Weak tags count only in a weak comparison.
bool contains_etag(std::string_view list, std::string_view etag, bool is_weak_comparison) {
    if (list == "*") return true;
    while (!list.empty()) {
        std::string_view element = take_element(list);
        if (is_weak_comparison && element.starts_with("W/")) element.remove_prefix(2);
        if (element == etag) return true;
    }
    return false;
}

// Returns 304 or 412 when the request's conditions ask for it, otherwise 200.
int judge_conditions(const Request& request, const std::string& etag, std::time_t modified) {
    const std::string& match = request.field(Field::if_match);
    if (!match.empty()) {
        if (!contains_etag(match, etag, false)) return 412;
    } else if (const auto time = parse_http_date(request.field(Field::if_unmodified_since)); time && modified > *time) {
        return 412;
    }
    const std::string& none_match = request.field(Field::if_none_match);
    if (!none_match.empty()) return contains_etag(none_match, etag, true) ? 304 : 200;
    const auto time = parse_http_date(request.field(Field::if_modified_since));
    return time && modified <= *time ? 304 : 200;
}

// The client's copy of which it wants the rest is the file as it is now. A date says so only when the file cannot have
// changed twice in that second.
bool is_range_wanted(const Request& request, const std::string& etag, std::time_t modified, std::time_t now) {
    const std::string& condition = request.field(Field::if_range);
    if (condition.empty() || condition == etag) return true;
    return parse_http_date(condition) == modified && modified < now;
}

// A number that is too large counts as the largest.
std::optional<std::uint64_t> parse_number(std::string_view text) {
    std::uint64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error == std::errc::invalid_argument || end != text.data() + text.size()) return std::nullopt;
    return error == std::errc::result_out_of_range ? UINT64_MAX : number;
}

// Takes the field Range, "bytes=FIRST-LAST", apart. Returns the status, with offset and size of the part for 206. A
// range that is none, or several, ask for the whole file.
int read_range(std::string_view range, std::uint64_t file_size, std::uint64_t& offset, std::uint64_t& size) {
    constexpr std::string_view unit = "bytes=";
    if (!equals_ignoring_case(range.substr(0, unit.size()), unit)) return 200;
    range.remove_prefix(unit.size());
    const std::string_view only = take_element(range);
    const std::size_t dash = only.find('-');
    if (!range.empty() || dash == only.npos) return 200;
    const std::optional<std::uint64_t> first = parse_number(only.substr(0, dash));
    const std::optional<std::uint64_t> last = parse_number(only.substr(dash + 1));
    const bool is_last_missing = dash + 1 == only.size();
    if (dash == 0) {  // the last bytes
        if (!last) return 200;
        if (*last == 0 || file_size == 0) return 416;
        size = std::min(*last, file_size);
        offset = file_size - size;
        return 206;
    }
    if (!first || (!last && !is_last_missing) || (last && *last < *first)) return 200;
    if (*first >= file_size) return 416;
    offset = *first;
    size = std::min(last.value_or(UINT64_MAX), file_size - 1) - offset + 1;
    return 206;
}

bool is_status(const Descriptor& file, struct stat& status) {
    return file && fstat(file.get(), &status) == 0;
}

class Answering {
  public:
    Answering(const Request& asked, const Site& served_site, const Moment& at, Answer& result)
        : request(asked), site(served_site), moment(at), answer(result) {}

    void begin(int status) {
        answer.status = status;
        answer.bytes.append("HTTP/1.1 ").append(reason_of(status));
        add("Date", moment.date);
        if (!answer.is_kept) {
            add("Connection", "close");
        } else if (request.is_http_1_0) {
            add("Connection", "keep-alive");
        }
    }

    // An answer without a file; name and value are a further field.
    void send_page(int status, std::string_view name = "", std::string_view value = "") {
        begin(status);
        if (!name.empty()) add(name, value);
        const std::string reason = reason_of(status);
        const std::string page = "<!DOCTYPE html>\n<title>" + reason + "</title>\n<h1>" + reason + "</h1>\n";
        add("Content-Type", "text/html; charset=utf-8");
        add("Content-Length", std::to_string(page.size()));
        end_head();
        if (request.method != Method::head) answer.bytes += page;
    }

    void serve() {
        if (request.method == Method::other) return send_page(405, "Allow", "GET, HEAD");
        if (server_config.https_only && !site.is_secure && !request.path.starts_with(challenge_directory)) {
            return redirect_to_https();
        }
        std::optional<std::string> path = relative_path_of(request.path);
        if (!path) return send_not_found();
        const bool is_directory = request.path.ends_with('/');
        const std::string name = "/" + *path + (is_directory && !path->empty() ? "/" : "");
        if (is_directory) path->append(path->empty() ? "" : "/").append(index_file);
        Representation found{open_in_site(site.directory, *path), {}, ""};
        if (!is_status(found.file, found.status)) return send_not_found();
        if (S_ISDIR(found.status.st_mode) && !is_directory) return redirect_to_directory();
        if (!S_ISREG(found.status.st_mode)) return send_not_found();
        send_file(name, *path, std::move(found));
    }

  private:
    void add(std::string_view name, std::string_view value) {
        answer.bytes.append("\r\n").append(name).append(": ").append(value);
    }

    void end_head() {
        answer.bytes += "\r\n\r\n";
        answer.head_size = answer.bytes.size();
    }

    // Ends the head and lets a part of the file follow.
    void end_with_file(Descriptor file, std::uint64_t offset, std::uint64_t size) {
        add("Content-Length", std::to_string(size));
        end_head();
        if (request.method == Method::head || size == 0) return;
        answer.file = std::move(file);
        answer.offset = offset;
        answer.size = size;
    }

    void send_not_found() {
        Representation page{open_in_site(site.directory, std::string(not_found_page)), {}, ""};
        if (!is_status(page.file, page.status) || !S_ISREG(page.status.st_mode)) return send_page(404);
        begin(404);
        add("Content-Type", content_type_of(not_found_page).text);
        end_with_file(std::move(page.file), 0, size_of(page));
    }

    // The path as sent, with one slash at its beginning, so that no browser takes a part of it for a host, and one at
    // its end.
    void redirect_to_directory() {
        const std::string_view target = request.target;
        const std::size_t query = std::min(target.find('?'), target.size());
        std::string location = "/";
        for (const char character :
             target.substr(target.find_first_not_of('/'), query - target.find_first_not_of('/'))) {
            append_encoded(location, character);
        }
        location += '/';
        for (const char character : target.substr(query)) append_encoded(location, character);
        send_page(301, "Location", location);
    }

    void redirect_to_https() {
        const std::string_view host = request.host;
        if (host.empty()) return send_page(400);
        const std::size_t bracket = host.find(']');
        std::string location = "https://";
        location += host.substr(0, host.find(':', bracket == host.npos ? 0 : bracket));
        const auto port = static_cast<std::uint16_t>(server_config.port_https);
        if (port != 443) location.append(":").append(std::to_string(port));
        for (const char character : request.target) append_encoded(location, character);
        send_page(301, "Location", location);
    }

    // Browsers take a backslash for a slash, and a field's value is ASCII.
    static void append_encoded(std::string& text, char character) {
        const auto code = static_cast<unsigned char>(character);
        if (code < 0x80 && character != '\\') {
            text += character;
            return;
        }
        constexpr char digits[] = "0123456789ABCDEF";
        text += {'%', digits[code >> 4], digits[code & 15]};
    }

    // Replaces plain by a compressed file beside it that the client takes, unless that is older.
    void choose_compressed(const std::string& path, Representation& plain) {
        const std::string& accepted = request.field(Field::accept_encoding);
        if (accepted.empty()) return;
        for (const auto& [coding, suffix] : compressed_forms) {
            if (!is_accepted(accepted, coding)) continue;
            Representation compressed{open_in_site(site.directory, path + suffix), {}, coding};
            if (!is_status(compressed.file, compressed.status) || !S_ISREG(compressed.status.st_mode)) continue;
            if (compressed.status.st_mtim.tv_sec < plain.status.st_mtim.tv_sec) continue;
            plain = std::move(compressed);
            return;
        }
    }

    // name is what was asked for, without empty parts, and path that of the file.
    void send_file(const std::string& name, const std::string& path, Representation chosen) {
        const ContentType type = content_type_of(std::string_view(path).substr(path.rfind('/') + 1));
        if (type.is_compressible) choose_compressed(path, chosen);
        const std::string etag = etag_of(chosen);
        const std::time_t modified = std::min(chosen.status.st_mtim.tv_sec, moment.now);
        const std::uint64_t file_size = size_of(chosen);
        std::uint64_t offset = 0;
        std::uint64_t size = file_size;
        int status = judge_conditions(request, etag, modified);
        if (status == 412) return send_page(412);
        const std::string& range = request.field(Field::range);
        if (status == 200 && !range.empty() && request.method == Method::get &&
            is_range_wanted(request, etag, modified, moment.now)) {
            status = read_range(range, file_size, offset, size);
            if (status == 416) return send_page(416, "Content-Range", "bytes */" + std::to_string(file_size));
        }
        begin(status);
        add("Last-Modified", http_date(modified));
        add("ETag", etag);
        if (type.is_compressible) add("Vary", "Accept-Encoding");
        for (const HeaderRule& rule : server_config.header_rules) {
            if (fnmatch(rule.pattern.c_str(), name.c_str(), 0) == 0) add(rule.name, rule.value);
        }
        if (status == 304) return end_head();
        add("Content-Type", type.text);
        if (!chosen.coding.empty()) add("Content-Encoding", chosen.coding);
        add("Accept-Ranges", "bytes");
        if (status == 206) {
            add("Content-Range", "bytes " + std::to_string(offset) + "-" + std::to_string(offset + size - 1) + "/" +
                                     std::to_string(file_size));
        }
        end_with_file(std::move(chosen.file), offset, size);
    }

    const Request& request;
    const Site& site;
    const Moment& moment;
    Answer& answer;
};

}  // namespace

void answer_request(const ParsedHead& head, const Request& request, const Site& site, const Moment& moment,
                    Answer& answer) {
    answer.bytes.clear();
    answer.file = Descriptor();
    answer.offset = answer.size = 0;
    answer.is_kept = head.is_end_certain && request.is_kept;
    Answering answering(request, site, moment, answer);
    if (head.status == 200) {
        answering.serve();
    } else {
        answering.send_page(head.status);
    }
}
