// JSONKeys.hpp: of members with the same key the last wins.
#pragma once

#include <algorithm>
#include <cstddef>
#include <numeric>
#include <utility>
#include <vector>

namespace tidewell {

/// Up to so many keys, as nearly every object has, are compared in pairs the fastest.
inline constexpr std::size_t fewKeys = 16;

/// Which of an object's `count` keys occur again later, by position; empty when all differ, as they nearly
/// always do. `keyAt(position)` returns a key.
template <typename KeyAt>
std::vector<bool> supersededKeys(std::size_t count, const KeyAt& keyAt) {
    std::vector<bool> superseded;
    const auto compare = [&](std::size_t early, std::size_t late) {
        if (keyAt(early) != keyAt(late)) return;
        superseded.resize(count);
        superseded[early] = true;
    };
    if (count <= fewKeys) {
        for (std::size_t late = 1; late < count; ++late) {
            for (std::size_t early = 0; early < late; ++early) compare(early, late);
        }
        return superseded;
    }
    std::vector<std::size_t> order(count);
    std::iota(order.begin(), order.end(), std::size_t{0});
    std::ranges::sort(order, {}, [&](std::size_t at) { return std::pair(keyAt(at), at); });
    for (std::size_t at = 1; at < count; ++at) compare(order[at - 1], order[at]);
    return superseded;
}

}  // namespace tidewell
