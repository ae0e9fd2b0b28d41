// What needs a clock of its own, and the banner.
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <csignal>

#include "banner/banner.h"
#include "banner/banner_text.h"
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
    const std::string key = base64_decode(stored_key_text), banner = base64_decode(VersionBanner);
    EXPECT_TRUE(rsa_decrypt_private(banner, key).starts_with("marlu "));
    EXPECT_THROW(rsa_decrypt_private(banner, "no key"), std::runtime_error);
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
