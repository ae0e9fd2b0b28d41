// What clients get, and what the log says about it.
#include <regex>
#include <set>
#include <thread>

#include "daemon.h"

namespace {

std::string first_messages(const Daemon& daemon) {
    return "The configuration file located at the following path is used: " + daemon.config_file +
           "\nServer started on port " + std::to_string(daemon.port) + "\nServing files from: " + daemon.site + "\n";
}

}  // namespace

TEST(http, answers_and_logs_byte_for_byte) {
    Daemon daemon;
    write_file(daemon.site + "/docs/empty.css", "");
    write_file(daemon.site + "/page.html?x=1", large);
    const struct {
        std::string request, target, answer;
    } cases[] = {
        {"GET / HTTP/1.1\r\nHost: a\r\n\r\n", "/index.html", ok("text/html", "hello")},
        {"\r\nGET \t /docs/empty.css\v HTTP/1.1", "/docs/empty.css", ok("text/css", "")},
        {"GET /page.html?x=1\n", "/page.html?x=1", ok("application/octet-stream", large)},
        {"GET /docs/", "/docs/", ok("application/octet-stream", "")},
        {"GET /../http.log", "/../http.log", forbidden},
        {"GET //etc/passwd", "//etc/passwd", forbidden},
        {"POST / HTTP/1.1", "", not_allowed},
        {"get / HTTP/1.1", "", not_allowed},
        {"\t", "", not_allowed},
    };
    std::string expected = first_messages(daemon);
    for (const auto& c : cases) {
        expected += "127.0.0.1 " + c.request + "\n\n";
        if (!c.target.empty()) expected += "127.0.0.1 PATH = " + c.target + "\n\n\n";
        if (c.answer == forbidden || c.answer == not_allowed) expected += "127.0.0.1 ERROR: " + c.answer + "\n\n";
        EXPECT_TRUE(daemon.answer(c.request) == c.answer) << c.request;
    }
    // That a request for a missing file, which gets no answer, was there in time, only the log can tell.
    const std::string none = "127.0.0.1 GET /none\n\n127.0.0.1 PATH = /none\n\n\n";
    EXPECT_TRUE(wait_until([&] {
        EXPECT_EQ(daemon.exchange("GET /none"), "");
        return daemon.messages().starts_with(expected + none);
    })) << daemon.messages();
    EXPECT_EQ(daemon.end_with(SIGTERM), 0);
    EXPECT_TRUE(daemon.messages().ends_with(none + "Shutting down server...\n")) << daemon.messages();
}

TEST(http, looks_at_4096_bytes_of_a_request) {
    Daemon daemon;
    const std::string seen = "GET / " + std::string(4090, 'a');
    EXPECT_EQ(daemon.answer(seen + "bcd"), ok("text/html", "hello"));
    EXPECT_EQ(daemon.end_with(SIGTERM), 0);
    EXPECT_NE(daemon.log().find(seen + "\n"), std::string::npos);
}

TEST(http, serves_or_closes_many_connections_at_once) {
    Daemon daemon;
    const std::ptrdiff_t descriptors = daemon.descriptor_count();
    std::string answers[64];
    std::vector<std::thread> clients;
    for (std::string& answer : answers) {
        const std::string number = std::to_string(&answer - answers);
        write_file(daemon.site + "/" + number, number);
        clients.emplace_back([&, number] { answer = daemon.exchange("GET /" + number, "127.0.1." + number); });
    }
    for (std::thread& client : clients) client.join();
    EXPECT_TRUE(wait_until([&] { return daemon.descriptor_count() == descriptors; }));
    EXPECT_EQ(daemon.end_with(SIGTERM), 0);

    std::string messages = daemon.messages();
    const std::regex pair(R"(127\.0\.1\.(\d+) (GET /\1\n\n|PATH = /\1\n\n\n))");
    EXPECT_EQ(std::regex_replace(messages, pair, ""), first_messages(daemon) + "Shutting down server...\n");
    for (int client = 0; client < 64; ++client) {
        const std::string number = std::to_string(client), line = "\n127.0.1." + number + " PATH";
        const bool logged = messages.find(line) != std::string::npos;
        EXPECT_EQ(answers[client], logged ? ok("application/octet-stream", number) : "") << number;
    }

    std::set<std::string> contexts;
    const std::string log = daemon.log();
    const std::regex form(R"(\] \((\d*)\) \[)");
    for (std::sregex_iterator match(log.begin(), log.end(), form), end; match != end; ++match)
        contexts.insert((*match)[1]);
    EXPECT_EQ(contexts.size(), 3U) << "of the loader, of the listener and all its connections, and none at the end";
    EXPECT_EQ(contexts.count("") + contexts.count(std::to_string(daemon.pid)), 2U);
}

TEST(http, closes_unanswered_what_is_over_the_allowance) {
    Daemon daemon;
    for (int count = 0; count < 1000; ++count) close(daemon.send_request("", "127.0.0.9"));
    EXPECT_EQ(daemon.exchange("GET /", "127.0.0.9"), "");
    EXPECT_EQ(daemon.answer("GET /", "127.0.0.10"), ok("text/html", "hello"));
    EXPECT_EQ(daemon.end_with(SIGTERM), 0);
    EXPECT_TRUE(daemon.messages().starts_with(first_messages(daemon) +
                                              "127.0.0.9 HTTP/1.1 429 Too Many Requests\n\n127.0.0.10 "))
        << daemon.messages();
}

TEST(http, has_four_workers_and_waits_for_slow_clients) {
    Daemon daemon;
    write_file(daemon.site + "/large", large);
    int clients[3];
    for (int& client : clients) client = daemon.hold_worker("GET /large");
    EXPECT_EQ(daemon.answer("GET /"), ok("text/html", "hello"));
    for (const int client : clients) EXPECT_TRUE(receive_all(client) == ok("application/octet-stream", large));
    if (ENDING_SECONDS > 2) return;  // a sanitizer keeps memory of its own
    EXPECT_TRUE(wait_until([&] { return daemon.resident_memory() < large.size(); })) << "nothing is kept when idle";
}

TEST(http, serves_the_bundled_site) {
    Daemon daemon("website_path=" SITE "\n");
    std::string manifest = read_file(SITE "/manifest.json") + R"("manifest.json", "type": "application/json")";
    for (const auto& entry : std::filesystem::recursive_directory_iterator(SITE)) {
        if (!entry.is_regular_file()) continue;
        const std::string name = std::filesystem::relative(entry.path(), SITE);
        std::smatch parts;
        EXPECT_TRUE(std::regex_search(manifest, parts, std::regex("\"" + name + "\".*\"type\": \"(.*)\""))) << name;
        EXPECT_TRUE(daemon.answer("GET /" + name) == ok(parts[1], read_file(entry.path()))) << name;
    }
}
