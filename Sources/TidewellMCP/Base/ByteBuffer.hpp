// ByteBuffer.hpp: bytes that grow at their end.
//
// Unlike std::string, it does not zero memory that is about to be written, and it grows by realloc(), which
// moves large content by its pages instead of its bytes: for a reply of megabytes that saved half the time.
#pragma once

#include <cstddef>
#include <cstring>
#include <string_view>
#include <utility>

namespace tidewell {

/// Owns its memory. Whatever adds bytes throws std::bad_alloc when memory runs out, and then leaves the
/// content as it was.
class ByteBuffer {
public:
    ByteBuffer() noexcept = default;
    ByteBuffer(const ByteBuffer&) = delete;
    ByteBuffer(ByteBuffer&& other) noexcept { swap(other); }
    ByteBuffer& operator=(ByteBuffer other) noexcept {
        swap(other);
        return *this;
    }
    ~ByteBuffer();

    std::string_view view() const noexcept { return {bytes_, size_}; }
    char* data() const noexcept { return bytes_; }
    std::size_t size() const noexcept { return size_; }
    std::size_t capacity() const noexcept { return capacity_; }

    /// Returns where at least `more` bytes may be written after the content; endAt() makes them part of it.
    /// Invalidates earlier pointers and views.
    char* room(std::size_t more) {
        if (capacity_ - size_ < more) grow(more);
        return bytes_ + size_;
    }
    /// Ends the content at `end`, which room() returned or which lies after that.
    void endAt(const char* end) noexcept { size_ = static_cast<std::size_t>(end - bytes_); }

    void append(std::string_view bytes) {
        if (bytes.empty()) return;
        char* const place = room(bytes.size());
        std::memcpy(place, bytes.data(), bytes.size());
        endAt(place + bytes.size());
    }
    void append(char byte) {
        char* const place = room(1);
        *place = byte;
        endAt(place + 1);
    }

    /// Drops the content and keeps the memory.
    void clear() noexcept { size_ = 0; }
    /// Drops what follows the first `size` bytes, and keeps the memory.
    void truncate(std::size_t size) noexcept { size_ = size; }
    /// Drops `count` bytes at the start, not more than there are.
    void dropFront(std::size_t count) noexcept {
        size_ -= count;
        if (count > 0 && size_ > 0) std::memmove(bytes_, bytes_ + count, size_);
    }

    /// Gives back memory that the content does not need, if the system can.
    void shrink() noexcept;

private:
    void grow(std::size_t more);
    void swap(ByteBuffer& other) noexcept {
        std::swap(bytes_, other.bytes_);
        std::swap(size_, other.size_);
        std::swap(capacity_, other.capacity_);
    }

    char* bytes_ = nullptr;
    std::size_t size_ = 0;
    std::size_t capacity_ = 0;
};

}  // namespace tidewell
