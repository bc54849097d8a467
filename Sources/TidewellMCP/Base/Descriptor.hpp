// Descriptor.hpp: a file descriptor that closes itself.
#pragma once

#include <unistd.h>

#include <utility>

namespace tidewell {

/// Owns one descriptor, or none (-1). Closed exactly once on every path, exceptions included.
class Descriptor {
public:
    Descriptor() noexcept = default;
    explicit Descriptor(int descriptor) noexcept : descriptor_(descriptor) {}
    Descriptor(Descriptor&& other) noexcept : descriptor_(std::exchange(other.descriptor_, -1)) {}
    Descriptor& operator=(Descriptor&&) = delete;
    ~Descriptor() {
        // Not repeated when interrupted: the descriptor is closed by then, and its number may be reused.
        if (descriptor_ >= 0) ::close(descriptor_);
    }

    bool isOpen() const noexcept { return descriptor_ >= 0; }
    int get() const noexcept { return descriptor_; }

private:
    int descriptor_ = -1;
};

}  // namespace tidewell
