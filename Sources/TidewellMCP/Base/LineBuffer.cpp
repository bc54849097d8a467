#include "Base/LineBuffer.hpp"

#include <cstring>
#include <new>

namespace tidewell {

bool LineBuffer::append(std::string_view bytes) {
    forgetLines();
    if (dropping_) {
        const std::size_t end = bytes.find('\n');
        if (end == std::string_view::npos) return true;
        bytes.remove_prefix(end + 1);
        dropping_ = false;
    }
    try {
        bytes_.append(bytes);
        return true;
    } catch (const std::bad_alloc&) {
        bytes_ = {};
        scanned_ = 0;
        dropping_ = true;
    }
    append(bytes);  // the line may end in this very piece
    return false;
}

std::optional<std::string_view> LineBuffer::nextLine() noexcept {
    if (scanned_ == bytes_.size()) {
        forgetLines();  // at once: the next input may be days away
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

void LineBuffer::forgetLines() noexcept {
    if (lineStart_ == 0) return;
    bytes_.dropFront(lineStart_);
    scanned_ -= lineStart_;
    lineStart_ = 0;
    if (bytes_.capacity() > keptCapacity && bytes_.size() < keptCapacity) bytes_.shrink();
}

}  // namespace tidewell
