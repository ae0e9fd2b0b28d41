#pragma once

#include <unistd.h>

#include <utility>

// Owns a file descriptor and closes it at the end.
class Descriptor {
  public:
    // Takes over number; -1, which the system's calls return when they fail, stands for none.
    explicit Descriptor(int number = -1) : descriptor(number) {}
    ~Descriptor() {
        if (descriptor != -1) close(descriptor);
    }
    Descriptor(Descriptor&& other) noexcept : descriptor(other.release()) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        std::swap(descriptor, other.descriptor);
        return *this;
    }

    explicit operator bool() const { return descriptor != -1; }
    int get() const { return descriptor; }
    // Hands the descriptor over to the caller.
    int release() { return std::exchange(descriptor, -1); }

  private:
    int descriptor;
};
