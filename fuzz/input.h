#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

// What each target defines: takes one input through the code that reads such bytes in the daemon.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

inline std::string_view text_of(const std::uint8_t* data, std::size_t size) {
    return {reinterpret_cast<const char*>(data), size};
}

// Ends the run when what always holds does not. Unlike assert it is there in every build.
inline void require(bool holds) {
    if (!holds) std::abort();
}

// A file that lies in memory, for as long as the object lives.
class MemoryFile {
  public:
    explicit MemoryFile(std::string_view content) {
        require(write(descriptor, content.data(), content.size()) == static_cast<ssize_t>(content.size()));
    }
    ~MemoryFile() { close(descriptor); }
    MemoryFile(const MemoryFile&) = delete;
    MemoryFile& operator=(const MemoryFile&) = delete;

  private:
    const int descriptor = memfd_create("input", 0);

  public:
    const std::string path = "/proc/self/fd/" + std::to_string(descriptor);
};
