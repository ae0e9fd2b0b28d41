// What needs a clock, or cache slots, of its own.
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <system_error>
#include <vector>

#include "http/file_cache.h"
#include "net/rate_limiter.h"

namespace {

std::int64_t stopped_clock = 0;  // what the steady clock shows, in nanoseconds; 0 lets the real one through

int refused_of(int tries) {
    int count = 0;
    for (; tries > 0; --tries) count += is_rate_limited("10.0.0.1");
    return count;
}

}  // namespace

// Takes the place of the library's own.
extern "C" int clock_gettime(clockid_t clock, timespec* time) noexcept {
    if (clock != CLOCK_MONOTONIC || stopped_clock == 0) return int(syscall(SYS_clock_gettime, clock, time));
    *time = {stopped_clock / 1'000'000'000, stopped_clock % 1'000'000'000};
    return 0;
}

TEST(rate_limiter, admits_a_thousand_in_a_period) {
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

TEST(cache, drops_the_least_recently_used_and_never_gets_room_back) {
    std::string directory = "/tmp/marlu-test-XXXXXX";
    directory = std::filesystem::canonical(mkdtemp(directory.data()));
    int number = 0;
    const auto file_in = [&](std::size_t slot, std::uintmax_t size) {
        std::string name;
        do name = directory + "/" + std::to_string(++number);
        while (cache_slot(name) != slot);
        std::ofstream(name) << slot;
        std::filesystem::resize_file(name, size);
        return name;
    };
    // What the cache handed out stays mapped. Kept until the end, where leaks are looked for.
    static FileCache cache;
    static std::vector<MappedFile*>& handed_out = *new std::vector<MappedFile*>;
    const auto get = [&](const std::string& name) { return handed_out.emplace_back(cache.get(name)); };

    constexpr std::uint64_t half = FileCache::capacity / 2;
    const std::string a = file_in(1, half), b = file_in(2, half), beside_a = file_in(1, 1), c = file_in(3, 1);
    MappedFile* const first = get(a);
    EXPECT_EQ(get(beside_a), first) << "the slot is another file's";
    MappedFile* const second = get(b);
    EXPECT_THROW(get(beside_a), std::system_error) << "room is to be made in the slot that is filled";
    EXPECT_TRUE(get(b) == second && get(a) == first) << "exactly full, and the least recently used was met first";
    EXPECT_THROW(get(beside_a), std::system_error);
    EXPECT_EQ(get(a), first) << "no lock was left behind";
    EXPECT_NE(get(b), second) << "dropped on the way";
    MappedFile* const third = get(c);
    EXPECT_EQ(std::string(first->data, 1) + second->data[0], "12") << "dropped, but still mapped";
    EXPECT_EQ(get(c), third);
    EXPECT_NE(get(a), first);
    EXPECT_NE(get(c), third) << "everything goes for the next file";
    std::filesystem::remove_all(directory);
    EXPECT_EQ(cache_hash("/srv/\xc3\xa9.html"), 0xcfac980adb07b28bU) << "bytes count with their sign";
}
