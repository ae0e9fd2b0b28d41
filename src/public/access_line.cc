#include "public/access_line.h"

#include <cstddef>

namespace {

// The most bytes that a field of the line may take. With the other fields, which are short, a line has less than 4096.
constexpr std::size_t request_line_limit = 2000;
constexpr std::size_t field_limit = 950;

// Appends text, escaped and cut to limit bytes. Of a request line that is cut the version stays, so that analysers
// recognise it.
void append_escaped(std::string& line, std::string_view text, std::size_t limit) {
    constexpr std::string_view version_form = " HTTP/1.1";
    constexpr char digits[] = "0123456789ABCDEF";
    const std::size_t end = line.size() + limit - version_form.size();
    for (const char character : text) {
        const auto code = static_cast<unsigned char>(character);
        if (code < ' ' || code > '~' || character == '"' || character == '\\') {
            line += {'\\', 'x', digits[code >> 4], digits[code & 15]};
        } else {
            line += character;
        }
        if (line.size() <= end - 4) continue;
        const std::string_view version = text.substr(text.size() - std::min(text.size(), version_form.size()));
        const bool is_version = version.starts_with(" HTTP/1.") && (version.back() == '0' || version.back() == '1');
        if (is_version) line += version;
        return;
    }
}

void append_field(std::string& line, const std::string& value) {
    line += '"';
    append_escaped(line, value.empty() ? "-" : value, field_limit);
    line += '"';
}

}  // namespace

void write_access_line(AccessLine& line, std::string_view address, std::string_view time, const Request& request,
                       int status) {
    line.begin.assign(address).append(" - - [").append(time).append("] \"");
    append_escaped(line.begin, request.line, request_line_limit);
    line.begin.append("\" ").append(std::to_string(status)).append(" ");
    line.end.clear();
    line.end += ' ';
    append_field(line.end, request.field(Field::referer));
    line.end += ' ';
    append_field(line.end, request.field(Field::user_agent));
    line.end += '\n';
}
