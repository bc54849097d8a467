// JSONKeys.hpp: of members with the same key the last wins.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <numeric>
#include <string_view>
#include <vector>

namespace tidewell {

/// Up to this many keys are compared pair by pair; more are sorted, which avoids quadratic time.
inline constexpr std::size_t fewKeys = 16;

/// Which of an object's `count` keys occur again later, by position; empty when all differ, as they nearly
/// always do. `keyAt(position)` returns a key.
template <typename KeyAt>
std::vector<bool> supersededKeys(std::size_t count, const KeyAt& keyAt) {
    std::vector<bool> superseded;
    const auto mark = [&](std::size_t at) {
        superseded.resize(count);
        superseded[at] = true;
    };
    if (count <= fewKeys) {
        for (std::size_t late = 0; late < count; ++late) {
            for (std::size_t early = 0; early < late; ++early) {
                if (keyAt(early) == keyAt(late)) mark(early);
            }
        }
        return superseded;
    }
    std::vector<std::size_t> order(count);
    std::iota(order.begin(), order.end(), std::size_t{0});
    std::ranges::sort(order, [&](std::size_t left, std::size_t right) {
        const int difference = keyAt(left).compare(keyAt(right));
        return difference != 0 ? difference < 0 : left < right;
    });
    for (std::size_t at = 1; at < count; ++at) {
        if (keyAt(order[at - 1]) == keyAt(order[at])) mark(order[at - 1]);
    }
    return superseded;
}

/// A number that nearly always differs between different keys: comparing it first saves comparing the keys.
inline std::uint64_t sketchOf(std::string_view key) noexcept {
    const auto wordAt = [&](std::size_t at) {
        std::uint32_t word = 0;
        std::memcpy(&word, key.data() + at, sizeof word);
        return std::uint64_t{word};
    };
    std::uint64_t sketch = key.size();
    if (key.size() < sizeof(std::uint32_t)) {
        for (const char byte : key) sketch = sketch << 8 | static_cast<unsigned char>(byte);
        return sketch;
    }
    const std::size_t last = key.size() - sizeof(std::uint32_t);
    return sketch + (wordAt(0) << 32) + (wordAt(last) << 16) + (wordAt(last / 2) << 24);
}

}  // namespace tidewell
