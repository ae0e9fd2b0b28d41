#pragma once

#include <cstddef>
#include <memory>

// Memory for the body of one answer, not set to anything.
struct BodyMemory {
    std::unique_ptr<char[]> bytes;
    std::size_t size = 0;
};

// Memory for the bodies of large files takes the system long to get and to set to zero, so up to four pieces of 1 to
// 16 MiB are kept from one answer to the next. All three functions may be called from any thread.

// Returns memory of at least size bytes, which is the caller's. Throws std::bad_alloc.
BodyMemory take_body_memory(std::size_t size);

// Keeps memory for a later answer, or gives it back to the system.
void keep_body_memory(BodyMemory memory);

// Gives what is kept back to the system once this has been called four times in a row without one of the others being
// called for a large body. For a server that pauses.
void age_body_memory();
