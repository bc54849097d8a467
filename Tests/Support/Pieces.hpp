// Pieces.hpp: a text that reaches a reader in pieces of one size.
#pragma once

#include "JSON/JSONReader.hpp"

#include <algorithm>
#include <cstddef>
#include <string>
#include <string_view>

namespace tidewell::test {

class Pieces : public JSONSource {
public:
    Pieces(std::string_view text, std::size_t size) : rest_(text), size_(size) {}

    std::string_view next(std::string_view kept) override {
        piece_ = std::string(kept) + std::string(rest_.substr(0, size_));
        rest_.remove_prefix(std::min(size_, rest_.size()));
        return piece_;
    }

private:
    std::string_view rest_;
    const std::size_t size_;
    std::string piece_;
};

}  // namespace tidewell::test
