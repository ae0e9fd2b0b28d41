#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <system_error>
#include <vector>

#include "http/file_cache.h"

namespace {

struct Directory {
    std::string path = "/tmp/marlu-test-XXXXXX";
    Directory() { path = std::filesystem::canonical(mkdtemp(path.data())); }
    ~Directory() { std::filesystem::remove_all(path); }
} const directory;
// Whatever was handed out stays mapped: here it can still be reached when leaks are looked for, at the very end.
std::vector<MappedFile*>& handed_out = *new std::vector<MappedFile*>;

// Makes a file in the slot and returns its name. Its text is tag and the slot; with a size, it is a sparse one.
std::string file_in(std::size_t slot, const std::string& tag, std::uintmax_t size = 0) {
    int number = 0;
    std::string name = directory.path + "/" + tag;
    while (cache_slot(name) != slot) name = directory.path + "/" + tag + std::to_string(++number);
    std::ofstream(name) << tag << slot;
    if (size != 0) std::filesystem::resize_file(name, size);
    return name;
}

MappedFile* get(FileCache& cache, const std::string& name) {
    return handed_out.emplace_back(cache.get(name));
}

std::string text(FileCache& cache, const std::string& name) {
    try {
        return {get(cache, name)->data, get(cache, name)->size};
    } catch (const std::exception& error) {
        return error.what();
    }
}

}  // namespace

TEST(cache, hands_out_what_is_in_the_slot) {
    EXPECT_EQ(cache_hash("/srv/\xc3\xa9.html"), 0xcfac980adb07b28bU) << "bytes from 0x80 count with their sign";
    static FileCache cache;
    const std::string first = file_in(1, "first"), second = file_in(1, "second"), empty = file_in(3, "empty");
    MappedFile* const file = get(cache, first);
    EXPECT_EQ(get(cache, second), file);
    EXPECT_EQ(get(cache, first), file);
    EXPECT_EQ(file->use_count, 3);
    std::filesystem::resize_file(empty, 0);
    EXPECT_EQ(text(cache, empty), "Mapping failed");
    EXPECT_EQ(text(cache, directory.path), "Mapping failed");
    EXPECT_EQ(text(cache, directory.path + "/none"), "Cannot open file");
    EXPECT_EQ(text(cache, file_in(3, "empty")), "empty3") << "what cannot be mapped takes no slot";
}

TEST(cache, drops_everything_to_make_room_and_never_gets_room_back) {
    constexpr std::uint64_t half = 128 << 20;
    static FileCache cache;
    const std::string names[] = {file_in(1, "a", half), file_in(2, "b", half), file_in(3, "c"), file_in(4, "d")};
    MappedFile *const a = get(cache, names[0]), *const b = get(cache, names[1]);
    EXPECT_TRUE(get(cache, names[0]) == a && get(cache, names[1]) == b) << "exactly full is not over the limit";
    MappedFile* const c = get(cache, names[2]);
    EXPECT_EQ(std::string(a->data, 2) + std::string(b->data, 2), "a1b2") << "dropped, but still mapped";
    EXPECT_EQ(get(cache, names[2]), c);
    get(cache, names[3]);
    EXPECT_NE(get(cache, names[2]), c) << "dropped by the next file, small as it is";
    EXPECT_NE(get(cache, names[0]), a);
}

TEST(cache, fails_when_room_is_to_be_made_in_the_slot_that_is_filled) {
    constexpr std::uint64_t half = 128 << 20;
    static FileCache cache;
    const std::string a = file_in(5, "a", half), b = file_in(6, "b", half), other = file_in(5, "other");
    MappedFile *const first = get(cache, a), *const second = get(cache, b);
    const std::string lock_error = std::system_error(EDEADLK, std::generic_category()).what();
    EXPECT_EQ(text(cache, other), lock_error);
    EXPECT_TRUE(get(cache, b) == second && get(cache, a) == first) << "the least recently used one is met first";
    EXPECT_EQ(text(cache, other), lock_error);
    EXPECT_EQ(get(cache, a), first);
    EXPECT_NE(get(cache, b), second) << "now it was dropped on the way, and no lock was left behind";
}
