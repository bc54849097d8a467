// Scanner.hpp: what the readers of the two written forms share: a place in the text and the answer so far.
// Every take... takes its part off the front of the text; one that fails takes nothing.

#pragma once

#include <charconv>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace tidewell::propertylist {

class Scanner {
public:
    Scanner(std::string_view text, std::string_view key) : rest_(text), key_(key) {}

protected:
    bool take(std::string_view token) {
        if (!rest_.starts_with(token)) return false;
        rest_.remove_prefix(token.size());
        return true;
    }

    /// The next `length` bytes, or all if there are fewer.
    std::string_view takeBytes(std::size_t length) {
        const std::string_view taken = rest_.substr(0, length);
        rest_.remove_prefix(taken.size());
        return taken;
    }

    std::string_view takeWhile(std::string_view set) { return takeBytes(rest_.find_first_not_of(set)); }
    std::string_view takeUntil(std::string_view set) { return takeBytes(rest_.find_first_of(set)); }

    /// What stands between `open` and the first `close` after it; takes all three.
    std::optional<std::string_view> takeBetween(std::string_view open, std::string_view close) {
        const std::size_t end =
            rest_.starts_with(open) ? rest_.find(close, open.size()) : std::string_view::npos;
        if (end == std::string_view::npos) return std::nullopt;
        return takeBytes(end + close.size()).substr(open.size(), end - open.size());
    }

    /// The number made of the digits that come next, `longest` of them at most; 0 when there are none or it
    /// does not fit.
    unsigned takeNumber(int base, std::size_t longest = std::string_view::npos) {
        const std::string_view digits = rest_.substr(0, longest);
        unsigned value = 0;
        const char* const end =
            std::from_chars(digits.data(), digits.data() + digits.size(), value, base).ptr;
        takeBytes(static_cast<std::size_t>(end - digits.data()));
        return value;
    }

    std::string_view rest_;
    std::string_view key_;
    std::optional<std::string> string_;  ///< The key or value read last; nothing if it was not a string.
    std::optional<std::string> found_;   ///< The value asked for, once it has been read.
};

}  // namespace tidewell::propertylist
