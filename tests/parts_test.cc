// What a connection passes through, and the banner.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <csignal>
#include <memory>
#include <thread>
#include <utility>

#include "banner/banner.h"
#include "banner/banner_text.h"
#include "config/server_config.h"
#include "files.h"
#include "http/http_handler.h"
#include "http/mime_types.h"
#include "http/site_path.h"
#include "log/log.h"
#include "net/rate_limiter.h"
#include "net/thread_pool.h"

namespace {

std::int64_t stopped_clock = 0;  // what the steady clock shows, in nanoseconds; 0 lets the real one through

}  // namespace

// Takes the place of the library's own.
extern "C" int clock_gettime(clockid_t clock, timespec* time) noexcept {
    if (clock != CLOCK_MONOTONIC || stopped_clock == 0) return int(syscall(SYS_clock_gettime, clock, time));
    *time = {stopped_clock / 1'000'000'000, stopped_clock % 1'000'000'000};
    return 0;
}

TEST(banner, that_cannot_be_opened_is_not_printed) {
    EXPECT_EXIT(print_version(), testing::KilledBySignal(SIGQUIT), "") << "the stored key is not corrected yet";
    *key_fix_pointer = static_cast<char>(*key_fix_pointer - 3);
    const std::string key = base64_decode(stored_key_text), banner = base64_decode(stored_banner_text);
    EXPECT_TRUE(rsa_decrypt_private(banner, key).starts_with("marlu "));
    EXPECT_THROW(rsa_decrypt_private(banner, "no key"), std::runtime_error);
    EXPECT_THROW(rsa_decrypt_private("no banner", key), std::runtime_error);
}

TEST(request, is_allowed_where_website_path_begins_the_name) {
    const TemporaryDirectory directory;
    const std::string website_path = directory.path + "/www";
    write_file(website_path + "/docs/a.html", "");
    write_file(directory.path + "/www-old/secret", "");
    const std::string links[][2] = {
        {"/etc/passwd", "out"},
        {"../www-old/secret", "beside"},
        {"loop", "loop"},
        {"www", "../link"},
    };
    for (const auto& [target, link] : links) std::filesystem::create_symlink(target, website_path + "/" + link);
    const struct {
        std::string relative_path, name;
        bool allowed;
    } cases[] = {
        {"docs/a.html", website_path + "/docs/a.html", true},
        {"none/../docs//./a.html", website_path + "/docs/a.html", true},
        {"none/../../x", directory.path + "/x", false},
        {"%2e%2e/x", website_path + "/%2e%2e/x", true},
        {"/etc/passwd", "/etc/passwd", false},
        {"out", "/etc/passwd", false},
        {"beside", directory.path + "/www-old/secret", true},
        {"../www-old/none", directory.path + "/www-old/none", true},
    };
    for (const auto& c : cases) {
        std::string name;
        EXPECT_EQ(is_path_allowed(website_path, c.relative_path, &name), c.allowed) << c.relative_path;
        EXPECT_EQ(name, c.name);
        server_config.website_path = website_path;
        const OpenedFile file = open_site_file(c.relative_path);
        EXPECT_EQ(file.is_allowed, c.allowed) << c.relative_path;
        EXPECT_EQ(file.canonical_name, c.name);
        EXPECT_EQ(file.descriptor != -1, c.allowed && std::filesystem::exists(c.name)) << c.relative_path;
        close(file.descriptor);
        for (const char* const not_canonical : {"/link", "/./www"}) {
            server_config.website_path = directory.path + not_canonical;
            EXPECT_FALSE(open_site_file(c.relative_path).is_allowed) << c.relative_path;
        }
    }
    std::string name;
    const std::string too_long = "docs" + std::string(4096, '/') + "a.html";
    for (const std::string& path : {std::string("../www/loop"), std::string(256, 'n'), too_long}) {
        EXPECT_THROW(is_path_allowed(website_path, path, &name), std::filesystem::filesystem_error) << path;
    }
}

TEST(content_type, follows_the_last_dot_of_the_whole_path) {
    EXPECT_EQ(MimeTypes("/srv/index.HTML"), "text/html");
    EXPECT_EQ(MimeTypes("/srv/.tar.Gz"), "application/gzip");
    for (const char* const path : {"/a/page.htm", "html", "/a/file.", "/a/v1.css/html", "/a.html?v=1", ""}) {
        EXPECT_EQ(MimeTypes(path), "application/octet-stream") << path;
    }
}

TEST(rate_limiter, admits_a_thousand_in_a_period) {
    const auto refused_of = [](int tries) {
        int count = 0;
        for (; tries > 0; --tries) count += is_rate_limited("10.0.0.1");
        return count;
    };
    stopped_clock = 5'000'000'000;
    EXPECT_EQ(refused_of(1), 0);
    stopped_clock += 10'999'999'998;
    EXPECT_EQ(refused_of(1001), 2);
    EXPECT_FALSE(is_rate_limited("10.0.0.10")) << "another address";
    stopped_clock += 1;
    EXPECT_EQ(refused_of(2), 2) << "the last moment of the period, which refusals do not prolong";
    stopped_clock += 1;
    EXPECT_EQ(refused_of(1001), 1) << "the next period";
    stopped_clock = 0;
}

TEST(thread_pool, serves_all_that_is_queued_in_order_before_it_ends) {
    const TemporaryDirectory directory;
    server_config.website_path = directory.path;
    server_config.start_http = server_config.http_log_enabled = true;
    http_logger = new Logger(directory.path + "/log", log_debug);
    auto pool = std::make_unique<ThreadPool>(1, handle_http_client);
    std::vector<char> body(4 << 20, 'x');  // more than a socket holds
    const std::string requests[] = {"GET /0", "GET /1", "GET /2", "GET /3", "GET /4"};
    std::vector<int> clients;
    for (const std::string& request : requests) {
        write_file(directory.path + request.substr(4), std::string(body.begin(), body.end()));
        int ends[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
        ASSERT_EQ(write(ends[0], request.data(), request.size()), 6);
        clients.push_back(ends[0]);
        pool->enqueue({ends[1], "client", ""});
    }
    // The first answer is not read until the pool is on its way out: its only worker is held, the rest queues.
    std::thread ending([&pool] { pool.reset(); });
    for (const int client : clients) {
        std::size_t size = 0;
        for (ssize_t count; (count = read(client, body.data(), body.size())) > 0;) size += std::size_t(count);
        EXPECT_GT(size, body.size());
        close(client);
    }
    ending.join();
    wait_for_log_writers(std::chrono::seconds(30));
    const std::string log = read_file(directory.path + "/log");
    std::size_t place = 0;
    for (const std::string& request : requests) EXPECT_NE(place = log.find(request, place), std::string::npos) << log;
}
