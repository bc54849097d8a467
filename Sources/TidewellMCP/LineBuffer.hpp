// LineBuffer.hpp: bytes in as they arrive, lines out as they are complete.
//
// Cost       linear in the bytes: each is looked at once for the line feed and moved a bounded number of
//            times, however the bytes were cut when they arrived.
// Memory     as much as the longest line wants (no limit), given back after an unusually long one.
#pragma once

#include "ByteBuffer.hpp"

#include <cstddef>
#include <cstring>
#include <optional>
#include <string_view>

namespace tidewell {

class LineBuffer {
public:
    /// Adds bytes behind those that are held. Views from nextLine() end here.
    void append(std::string_view bytes) {
        forgetLines();
        if (dropping_) {
            const std::size_t end = bytes.find('\n');
            if (end == std::string_view::npos) return;
            bytes.remove_prefix(end + 1);
            dropping_ = false;
        }
        bytes_.append(bytes);
    }

    /// The next complete line without its line feed (byte 10), or nothing until more bytes arrive. The view
    /// lives until the next call of this or of append().
    std::optional<std::string_view> nextLine() noexcept {
        if (scanned_ == bytes_.size()) {
            forgetLines();  // at once: the next bytes may come in a week
            return std::nullopt;
        }
        const void* const found = std::memchr(bytes_.data() + scanned_, '\n', bytes_.size() - scanned_);
        if (found == nullptr) {
            scanned_ = bytes_.size();
            return std::nullopt;
        }
        const auto end = static_cast<std::size_t>(static_cast<const char*>(found) - bytes_.data());
        const auto line = bytes_.view().substr(lineStart_, end - lineStart_);
        lineStart_ = scanned_ = end + 1;
        return line;
    }

    /// Gives up the line that is held in part: its bytes go now, the rest of it as it arrives.
    void dropLine() noexcept {
        bytes_ = {};
        lineStart_ = scanned_ = 0;
        dropping_ = true;
    }

    /// How much memory is held, in bytes.
    std::size_t capacity() const noexcept { return bytes_.capacity(); }

private:
    static constexpr std::size_t keptCapacity = 1 << 20;

    void forgetLines() {
        if (lineStart_ == 0) return;
        bytes_.dropFront(lineStart_);
        scanned_ -= lineStart_;
        lineStart_ = 0;
        if (bytes_.capacity() > keptCapacity && bytes_.size() < keptCapacity) bytes_.shrink();
    }

    ByteBuffer bytes_;
    std::size_t lineStart_ = 0;  // lines before it were handed out
    std::size_t scanned_ = 0;    // no line feed in [lineStart_, scanned_)
    bool dropping_ = false;      // until the next line feed
};

}  // namespace tidewell
