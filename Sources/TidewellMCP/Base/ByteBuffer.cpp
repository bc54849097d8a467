#include "Base/ByteBuffer.hpp"

#include "Base/Platform.hpp"

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstdlib>
#include <new>

namespace tidewell {

namespace {

/// A block and what malloc keeps beside it take a power of two together: a large block then is whole large pages.
constexpr std::size_t leastBlock = 512;
constexpr std::size_t besideContent = 32;
constexpr std::size_t largestContent = PTRDIFF_MAX / 2;

}  // namespace

ByteBuffer::~ByteBuffer() { std::free(begin_); }

void ByteBuffer::grow(std::size_t more) {
    const std::size_t content = size();
    if (more > largestContent - content) throw std::bad_alloc();
    const std::size_t least = std::max(content + more, capacity() + 1) + besideContent;
    std::size_t wanted = std::bit_ceil(std::max(leastBlock, least)) - besideContent;
    void* grown = std::realloc(begin_, wanted);
    if (grown == nullptr) {
        // Short of memory: grow by a sixteenth. Growing byte by byte would copy the buffer each time.
        wanted = content + more + capacity() / 16;
        grown = std::realloc(begin_, wanted);
    }
    if (grown == nullptr) throw std::bad_alloc();
    Platform::preferLargePages(grown, wanted);
    useBlock(grown, content, wanted);
}

void ByteBuffer::shrink() noexcept {
    const std::size_t wanted = std::max(leastBlock - besideContent, size());
    if (wanted >= capacity()) return;
    void* const shrunk = std::realloc(begin_, wanted);
    if (shrunk != nullptr) useBlock(shrunk, size(), wanted);
}

}  // namespace tidewell
