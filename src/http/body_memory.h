#pragma once

#include <cstddef>
#include <memory>

// Memory for the body of one answer, not set to anything.
struct BodyMemory {
    std::unique_ptr<char[]> bytes;
    std::size_t size = 0;
};

// Memory for the bodies of large files costs more to get from the system than to fill, so up to four pieces of 1 to
// 16 MiB are kept from one answer to the next. All three functions may be called from any thread.

// Returns memory of at least size bytes, which is the caller's. Throws std::bad_alloc.
BodyMemory take_body_memory(std::size_t size);

// Keeps memory for a later answer, or gives it back to the system.
void keep_body_memory(BodyMemory memory);

// Gives what is kept back to the system. For a server that has nothing to do.
void release_body_memory();
