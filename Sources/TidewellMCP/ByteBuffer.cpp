#include "ByteBuffer.hpp"

#include "Platform.hpp"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <new>

namespace tidewell {

namespace {

constexpr std::size_t leastCapacity = 512;
constexpr std::size_t largeCapacity = 1 << 20;

}  // namespace

ByteBuffer::~ByteBuffer() { std::free(bytes_); }

void ByteBuffer::grow(std::size_t more) {
    if (more > PTRDIFF_MAX - size_) throw std::bad_alloc();
    // What is not written is not resident either, so that large content may grow in large steps.
    const std::size_t factor = capacity_ < largeCapacity ? 2 : 4;
    std::size_t wanted = std::max({leastCapacity, capacity_ * factor, size_ + more});
    void* grown = std::realloc(bytes_, wanted);
    if (grown == nullptr) {
        // Where memory is short, little more than there has to be: a share, or each byte would move all
        // others.
        wanted = size_ + more + capacity_ / 16;
        grown = std::realloc(bytes_, wanted);
    }
    if (grown == nullptr) throw std::bad_alloc();
    Platform::preferLargePages(grown, wanted);
    bytes_ = static_cast<char*>(grown);
    capacity_ = wanted;
}

void ByteBuffer::shrink() noexcept {
    const std::size_t wanted = std::max(leastCapacity, size_);
    if (wanted >= capacity_) return;
    void* const shrunk = std::realloc(bytes_, wanted);
    if (shrunk == nullptr) return;
    bytes_ = static_cast<char*>(shrunk);
    capacity_ = wanted;
}

}  // namespace tidewell
