#include "Base/ByteBuffer.hpp"

#include "Base/Platform.hpp"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <new>

namespace tidewell {

namespace {

constexpr std::size_t leastCapacity = 512;

}  // namespace

ByteBuffer::~ByteBuffer() { std::free(bytes_); }

void ByteBuffer::grow(std::size_t more) {
    if (more > PTRDIFF_MAX - size_) throw std::bad_alloc();
    std::size_t wanted = std::max({leastCapacity, capacity_ * 2, size_ + more});
    void* grown = std::realloc(bytes_, wanted);
    if (grown == nullptr) {
        // Short of memory: grow by a sixteenth. Growing byte by byte would copy the buffer each time.
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
