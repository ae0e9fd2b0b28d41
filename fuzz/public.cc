// Requests to a public site, one after the other, as a connection takes them.
#include <fcntl.h>
#include <sys/stat.h>

#include "config/server_config.h"
#include "input.h"
#include "public/access_line.h"
#include "public/answer.h"

namespace {

// Every line of the head is one, and the length that it tells is that of the body.
void require_sound(const Answer& answer, bool has_body) {
    require(answer.head_size >= 4 && answer.head_size <= answer.bytes.size());
    const std::string_view head(answer.bytes.data(), answer.head_size);
    require(head.starts_with("HTTP/1.1 ") && head.find("\r\n\r\n") == head.size() - 4);
    for (std::size_t at = 0; at < head.size(); ++at) {
        require(head[at] == '\r' || head[at] == '\n' || (head[at] >= ' ' && head[at] <= '~'));
        require((head[at] == '\r') == (at + 1 < head.size() && head[at + 1] == '\n'));
    }
    if (!has_body) return require(answer.bytes.size() == answer.head_size && !answer.file);
    const std::string length =
        "\r\nContent-Length: " + std::to_string(answer.bytes.size() - answer.head_size + answer.size) + "\r\n";
    require(head.find(length) != head.npos);
    if (!answer.file) return;
    struct stat status;
    require(fstat(answer.file.get(), &status) == 0 && S_ISREG(status.st_mode));
    require(answer.offset + answer.size <= static_cast<std::uint64_t>(status.st_size));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const Descriptor directory(open(SITE, O_PATH | O_DIRECTORY));
    static const Moment moment{1800000000, "Fri, 15 Jan 2027 08:00:00 GMT"};
    static Request request;
    static Answer answer;
    server_config.header_rules = {{"*.html", "Cache-Control", "no-cache"}};
    std::string_view input(reinterpret_cast<const char*>(data), size);
    server_config.https_only = input.starts_with('!');
    const Site website{directory.get(), input.ends_with('!')};
    for (;;) {
        const ParsedHead head = parse_head(input, 0, request);
        require(head.size <= input.size() && (head.status != 0 || head.size == 0));
        if (head.status == 0) return 0;
        // However the head is cut, it is the same head.
        for (const std::size_t cut : {head.size / 2, head.size - (head.size > 0)}) {
            const ParsedHead part = parse_head(input.substr(0, cut), 0, request);
            if (part.status == 0) require(parse_head(input, cut, request).size == head.size);
        }
        require(parse_head(input, 0, request).status == head.status);
        answer_request(head, request, website, moment, answer);
        require_sound(answer, request.method != Method::head && answer.status != 304);
        AccessLine line;
        write_access_line(line, "127.0.0.1", "15/Jan/2027:08:00:00 +0000", request, answer.status);
        require(line.begin.size() + line.end.size() + 20 <= 4095 && line.end.find('\n') == line.end.size() - 1);
        if (head.size == 0 || !answer.is_kept) return 0;
        input.remove_prefix(head.size);
    }
}
