#include "http/body_memory.h"

#include <array>
#include <mutex>
#include <utility>

namespace {

constexpr std::size_t smallest_kept = 1 << 20;  // the C library keeps smaller ones itself
constexpr std::size_t largest_kept = 16 << 20;
constexpr int highest_age = 4;

struct Kept {
    std::mutex kept_mutex;  // guards both
    std::array<BodyMemory, 4> pieces;
    int age = 0;  // pauses since a large body was sent
};

Kept& kept() {
    // Never destroyed: a worker may use it while the process exits.
    static Kept& instance = *new Kept;
    return instance;
}

}  // namespace

BodyMemory take_body_memory(std::size_t size) {
    if (size >= smallest_kept) {
        const std::lock_guard lock(kept().kept_mutex);
        kept().age = 0;
        for (BodyMemory& piece : kept().pieces) {
            if (piece.size >= size) return std::exchange(piece, {});
        }
    }
    return {std::make_unique_for_overwrite<char[]>(size), size};
}

void keep_body_memory(BodyMemory memory) {
    if (memory.size < smallest_kept || memory.size > largest_kept) return;
    const std::lock_guard lock(kept().kept_mutex);
    kept().age = 0;
    for (BodyMemory& piece : kept().pieces) {
        if (piece.size < memory.size) std::swap(piece, memory);  // in the end the smallest is left over
    }
}

void age_body_memory() {
    const std::lock_guard lock(kept().kept_mutex);
    if (kept().age < highest_age) ++kept().age;
    if (kept().age == highest_age) kept().pieces = {};
}
