// ByteBuffer.hpp: bytes that grow at their end.
//
// Unlike std::string, it does not zero memory that is about to be written, and it grows by realloc(), which
// moves large content by its pages instead of its bytes: for a reply of megabytes that saved half the time.
#pragma once

#include <algorithm>
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

    std::string_view view() const noexcept { return {begin_, size()}; }
    char* data() const noexcept { return begin_; }
    std::size_t size() const noexcept { return static_cast<std::size_t>(end_ - begin_); }
    std::size_t capacity() const noexcept { return static_cast<std::size_t>(limit_ - begin_); }

    /// Returns where at least `more` bytes may be written after the content; endAt() makes them part of it.
    /// Invalidates earlier pointers and views.
    char* room(std::size_t more) {
        if (static_cast<std::size_t>(limit_ - end_) < more) grow(more);
        return end_;
    }
    /// Ends the content at `end`, which room() returned or which lies after that.
    void endAt(char* end) noexcept { end_ = end; }

    void append(std::string_view bytes) {
        if (bytes.empty()) return;
        std::memcpy(room(bytes.size()), bytes.data(), bytes.size());
        end_ += bytes.size();
    }
    void append(char byte) {
        *room(1) = byte;
        ++end_;
    }

    /// Drops the content and keeps the memory.
    void clear() noexcept { end_ = begin_; }
    /// Drops what follows the first `size` bytes, and keeps the memory.
    void truncate(std::size_t size) noexcept { end_ = begin_ + size; }
    /// Drops `count` bytes at the start, not more than there are.
    void dropFront(std::size_t count) noexcept {
        if (count > 0) end_ = std::copy(begin_ + count, end_, begin_);
    }

    /// Gives back memory that the content does not need, if the system can.
    void shrink() noexcept;

private:
    void grow(std::size_t more);
    void swap(ByteBuffer& other) noexcept {
        std::swap(begin_, other.begin_);
        std::swap(end_, other.end_);
        std::swap(limit_, other.limit_);
    }
    void useBlock(void* block, std::size_t content, std::size_t capacity) noexcept {
        begin_ = static_cast<char*>(block);
        end_ = begin_ + content;
        limit_ = begin_ + capacity;
    }

    char* begin_ = nullptr;
    char* end_ = nullptr;    // of the content
    char* limit_ = nullptr;  // of the memory
};

}  // namespace tidewell
