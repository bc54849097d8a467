#include "JSONNode.hpp"

#include "Platform.hpp"

#include <algorithm>
#include <cstdlib>

namespace tidewell {

/// The head of a block. Nodes are not counted one by one while they are made: the arena's own share is larger
/// than their number can be, and shrinks to it when the arena leaves the block.
struct NodeArena::Block {
    static constexpr std::size_t arenasShare = SIZE_MAX / 2;
    alignas(step) std::atomic<std::size_t> owners{arenasShare};

    void release(std::size_t shares) noexcept {
        if (owners.fetch_sub(shares, std::memory_order_acq_rel) == shares) std::free(this);
    }
};

// Twice the text is about what trees take: a number of two characters is a value of sixteen bytes, a long
// string is its text. For a handful of nodes blocks are not worth their while.
NodeArena::NodeArena(std::size_t textBytes) noexcept
    : blockSize_(textBytes < 1024 ? 0 : std::min(textBytes * 2, std::size_t{32} << 20)) {
    if (blockSize_ > largePage) blockSize_ -= blockSize_ % largePage;  // whole pages, and no byte beyond them
}

NodeArena::Place NodeArena::allocate(NodeArena* arena, std::size_t bytes) {
    if (arena == nullptr || bytes > arena->blockSize_ / 4) return {::operator new(bytes), 0};
    bytes = (bytes + step - 1) / step * step;
    if (arena->block_ == nullptr || arena->blockSize_ - arena->used_ < bytes) arena->enterBlock();
    auto* const memory = reinterpret_cast<char*>(arena->block_) + arena->used_;
    const auto steps = static_cast<std::uint32_t>(arena->used_ / step);
    arena->used_ += bytes;
    ++arena->nodes_;
    return {memory, steps};
}

void NodeArena::giveBack(Place place) noexcept {
    if (place.steps == 0) return ::operator delete(place.memory);
    reinterpret_cast<Block*>(static_cast<char*>(place.memory) - place.steps * step)->release(1);
}

void NodeArena::enterBlock() {
    void* const memory =
        blockSize_ < largePage ? std::malloc(blockSize_) : std::aligned_alloc(largePage, blockSize_);
    if (memory == nullptr) throw std::bad_alloc();
    Platform::preferLargePages(memory, blockSize_);
    leaveBlock();
    block_ = new (memory) Block;
    used_ = sizeof(Block);
    nodes_ = 0;
}

void NodeArena::leaveBlock() noexcept {
    if (block_ != nullptr) block_->release(Block::arenasShare - nodes_);
}

}  // namespace tidewell
