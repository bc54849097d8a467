// JSONKeys.hpp: of members with the same key the last wins.
#pragma once

#include <algorithm>
#include <cstddef>
#include <numeric>
#include <utility>
#include <vector>

namespace tidewell {

/// Which of an object's `count` keys occur again later, by position; empty when all differ, as they nearly
/// always do. `keyAt(position)` returns a key.
template <typename KeyAt>
std::vector<bool> supersededKeys(std::size_t count, const KeyAt& keyAt) {
    std::vector<std::size_t> order(count);
    std::iota(order.begin(), order.end(), std::size_t{0});
    std::ranges::sort(order, {}, [&](std::size_t at) { return std::pair(keyAt(at), at); });
    std::vector<bool> superseded;
    for (std::size_t at = 1; at < count; ++at) {
        if (keyAt(order[at - 1]) != keyAt(order[at])) continue;
        superseded.resize(count);
        superseded[order[at - 1]] = true;
    }
    return superseded;
}

}  // namespace tidewell
