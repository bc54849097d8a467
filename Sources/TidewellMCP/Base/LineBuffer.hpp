// LineBuffer.hpp: bytes in as they arrive, lines out once they are complete.
//
// Cost       linear in the bytes: each is searched for the line feed once and moved a bounded number of times,
//            however the bytes were cut when they arrived.
// Memory     as much as the longest line needs (no limit), given back after an unusually long one.
#pragma once

#include "Base/ByteBuffer.hpp"

#include <cstddef>
#include <optional>
#include <string_view>

namespace tidewell {

class LineBuffer {
public:
    /// Adds bytes after those that are held; this invalidates views from nextLine(). False if memory cannot
    /// hold the incomplete line: that line is dropped to its end, and the next one counts.
    bool append(std::string_view bytes);

    /// The next complete line without its line feed (byte 10), or nothing until more bytes arrive. The view
    /// lives until the next call of this or of append().
    std::optional<std::string_view> nextLine() noexcept;

    /// How much memory is held, in bytes.
    std::size_t capacity() const noexcept { return bytes_.capacity(); }

private:
    static constexpr std::size_t keptCapacity = 1 << 20;

    void forgetLines() noexcept;

    ByteBuffer bytes_;
    std::size_t lineStart_ = 0;  // lines before it were handed out
    std::size_t scanned_ = 0;    // no line feed in [lineStart_, scanned_)
    bool dropping_ = false;      // until the next line feed
};

}  // namespace tidewell
