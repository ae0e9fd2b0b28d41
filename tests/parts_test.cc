// What a connection passes through, and the banner.
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <csignal>

#include "banner/banner.h"
#include "banner/banner_text.h"
#include "config/server_config.h"
#include "files.h"
#include "http/request.h"
#include "net/rate_limiter.h"

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
        server_config.website_path = website_path;
        EXPECT_EQ(is_path_allowed(c.relative_path, &name), c.allowed) << c.relative_path;
        EXPECT_EQ(name, c.name);
        const int file = open_plain_file(c.relative_path, &name);
        EXPECT_EQ(file != -1, c.relative_path == "docs/a.html") << c.relative_path;
        close(file);
        EXPECT_TRUE(file == -1 || name == c.name) << name;
        for (const char* const not_canonical : {"/link", "/./www"}) {
            server_config.website_path = directory.path + not_canonical;
            EXPECT_FALSE(is_path_allowed(c.relative_path)) << c.relative_path;
            EXPECT_EQ(open_plain_file(c.relative_path, &name), -1) << c.relative_path;
        }
    }
    const std::string too_long = "docs" + std::string(4096, '/') + "a.html";
    for (const std::string& name : {std::string("../www/loop"), std::string(256, 'n'), too_long}) {
        EXPECT_THROW(is_path_allowed(name), std::filesystem::filesystem_error) << name;
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
