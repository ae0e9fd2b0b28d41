// What becomes of a log's entries.
#include <gtest/gtest.h>

#include "http/responses.h"
#include "weblog/log_reader.h"

namespace {

using namespace std::string_literals;

std::string entry(int thread, const std::string& message, const std::string& context = "7") {
    return "[22.11.2026 22:27:31.895] (" + context + ") [" + std::to_string(thread) + "] " + message + "\n";
}

std::string request(int thread, const std::string& text, const std::string& context = "7") {
    return entry(thread, "10.0.0.1 " + text + "\n", context);
}

std::string sent(int thread, const std::string& target) {
    return request(thread, "GET " + target + " HTTP/1.1\r\n\r\n") + request(thread, "PATH = " + target + "\n");
}

std::string line(const std::string& request_line, const std::string& answer = "200 -",
                 const std::string& headers = "\"-\" \"-\"") {
    return "10.0.0.1 - - [22/Nov/2026:22:27:31 +0530] \"" + request_line + "\" " + answer + " " + headers + "\n";
}

std::string line_of(const std::string& target) {
    return line("GET " + target + " HTTP/1.1");
}

// Reads the log in two pieces, the first of which has size bytes.
std::string lines_of(const std::string& log, std::size_t size = 0) {
    setenv("TZ", "TST-5:30", 1);
    LogReader reader;
    std::string lines;
    reader.read(log.substr(0, size), lines);
    reader.read(log.substr(size), lines);
    reader.finish(lines);
    return lines;
}

const std::string forbidden = "ERROR: "s + forbidden_response;
const std::string not_allowed = "ERROR: "s + method_not_allowed_response;
const std::string not_found = "ERROR: "s + not_found_response;

}  // namespace

TEST(log_reader, has_one_line_for_each_request_in_the_order_of_the_log) {
    const std::string cut(1000, 'a'), long_text = cut + "b";
    const std::pair<std::string, std::string> cases[] = {
        {"rest of an entry\n" + entry(1, "Server started on port 80") + entry(2, "SSL_accept <= 0") + entry(2, "") +
             entry(2, "SSL error: 1\n ") + entry(1, "0.0.0.0 Failed to accept HTTPS connection\n") +
             request(2, "GET /half").substr(0, 50),
         ""},
        {request(2, "GET /b HTTP/1.1") + request(3, "HEAD / HTTP/1.1") + request(3, not_allowed) +
             request(2, "PATH = /b\n") + sent(2, "/c") + request(2, forbidden) + sent(3, "/d") + request(3, not_found),
         line_of("/b") + line("HEAD / HTTP/1.1", "405 0") + line("GET /c HTTP/1.1", "403 0") +
             line("GET /d HTTP/1.1", "404 88")},
        {entry(1, "10.0.0.1 HTTP/1.1 429 Too Many Requests\n") + entry(1, "10.0.0.1 HTTP/1.1 429 Too Many Requests\n"),
         line("-", "429 0") + line("-", "429 0")},
        {sent(2, "/n") + entry(2, "Error handling client: too long") + sent(2, "/s") +
             entry(2, "Error handling client send: no memory"),
         line("GET /n HTTP/1.1", "500 0") + line_of("/s")},
        // The number of a thread that has ended is given to the next one.
        {sent(2, "/a") + request(2, forbidden, "8") + request(2, not_allowed, "8"),
         line_of("/a") + line("ERROR: HTTP/1.1 403 Forbidden", "405 0")},
        // Requests that look like what follows one.
        {request(2, "PATH = /x\n") + request(2, not_allowed) + sent(2, "/a") + request(2, not_allowed) +
             request(2, not_allowed) + sent(2, "/b") + request(2, forbidden + "more") + request(2, not_allowed),
         line("PATH = /x", "405 0") + line_of("/a") + line("ERROR: HTTP/1.1 405 Method Not Allowed", "405 0") +
             line_of("/b") + line("ERROR: HTTP/1.1 403 Forbidden", "405 0")},
        {sent(2, "/a") + entry(2, "10.0.0.2 " + forbidden + "\n") + entry(2, "10.0.0.2 " + not_allowed + "\n"),
         line_of("/a") + "10.0.0.2" + line("ERROR: HTTP/1.1 403 Forbidden", "405 0").substr(8)},
        {request(2, "") + request(2, not_allowed) + request(2, "GET") + request(2, "PATH = \n"),
         line("-", "405 0") + line("GET")},
        {request(2, "\r\n\nGET /\0\x1b[2J\"\\\x7f\xff x\ty\r\nReferer:  \"\x80\r\nuser-AGENT:a "s +
                        entry(3, "b\r\n\r\nReferer: c")) +
             request(2, "PATH = /\n"),
         line(R"(GET /\x00\x1B[2J\x22\x5C\x7F\xFF x\x09y)", "200 -",
              R"("\x22\x80" "a [22.11.2026 22:27:31.895] (7) [3] b")")},
        {request(2, cut + cut + "b\nReferer:" + long_text + "\nUser-Agent:" + long_text) + request(2, not_allowed),
         line(cut + cut, "405 0", '"' + cut + "\" \"" + cut + '"')},
    };
    for (const auto& [log, lines] : cases) {
        for (std::size_t size = 0; size <= log.size(); ++size) EXPECT_EQ(lines_of(log, size), lines) << size << log;
    }
}

TEST(log_reader, does_not_count_entries_that_a_client_made_up) {
    const std::string forged = request(666, "GET /forged HTTP/1.1") + request(666, "PATH = /forged\n");
    const std::string attack = request(2, "GET /a HTTP/1.1\r\nX: \n" + forged);
    const std::string answered = request(2, "PATH = /a\n");
    const std::string garbage = entry(2, std::string(100000, '\n'));
    EXPECT_EQ(lines_of(attack + answered + garbage + sent(2, "/b")), line_of("/a") + line_of("/b"));
    EXPECT_EQ(lines_of(request(2, "HTTP/1.1 429 Too Many Requests\n\n" + forged) + request(2, not_allowed)),
              line("-", "405 0"));
    EXPECT_EQ(lines_of(attack + request(3, "GET /c HTTP/1.1") + answered + sent(3, "/d")),
              line_of("/a") + line_of("/c") + line_of("/d"))
        << "a new thread is one of the daemon's once it logs outside of a request";
    // Many numbers, and their unfinished requests, do not push the daemon's own out.
    std::string many = request(2, "GET /a HTTP/1.1\r\n\n" + request(666, ""));
    for (int thread = 1000; thread < 1150; ++thread) many += entry(thread, "");
    many += answered;
    std::string log, lines;
    for (int round = 0; round < 10; ++round) {
        log += many + sent(3, "/b");
        lines += line_of("/a") + line_of("/b");
    }
    EXPECT_EQ(lines_of(log), lines);
}
