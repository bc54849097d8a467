// JSONNode.hpp: what lies behind a long string, an array or an object. Only JSONValue and the reader that
// builds one know of it.
#pragma once

#include "JSONValue.hpp"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>

namespace tidewell {

/// Memory for the nodes of one tree, cut from a few large blocks: for a tree of a hundred thousand nodes that
/// is a third of the time that malloc() and free() take. A block goes when the arena and every node in it
/// have gone. One thread allocates; nodes may be freed on any.
class NodeArena {
public:
    /// A place in memory and its distance from the start of its block, in steps; 0 when it has no block.
    struct Place {
        void* memory;
        std::uint32_t steps;
    };

    /// For the tree of a text of so many bytes.
    explicit NodeArena(std::size_t textBytes) noexcept;
    NodeArena(const NodeArena&) = delete;
    NodeArena& operator=(const NodeArena&) = delete;
    ~NodeArena() { leaveBlock(); }

    /// Throws std::bad_alloc. `arena` may be null: then the node gets memory of its own.
    static Place allocate(NodeArena* arena, std::size_t bytes);
    static void giveBack(Place place) noexcept;

private:
    static constexpr std::size_t step = 16;
    static constexpr std::size_t largePage = std::size_t{2} << 20;
    struct Block;

    void enterBlock();
    void leaveBlock() noexcept;

    std::size_t blockSize_;
    Block* block_ = nullptr;
    std::size_t used_ = 0;   // bytes of the block, its head included
    std::size_t nodes_ = 0;  // made in the block
};

/// A header and the elements right behind it. Freed by whichever of its owners goes last.
template <typename Element>
struct alignas(16) JSONValue::Node {
    std::atomic<std::uint32_t> owners{1};
    const std::uint32_t steps;
    std::size_t count = 0;

    explicit Node(std::uint32_t stepsFromBlock) noexcept : steps(stepsFromBlock) {}

    Element* elements() noexcept { return reinterpret_cast<Element*>(this + 1); }

    /// A node with room for `capacity` elements, none of them constructed yet.
    static Node* make(std::size_t capacity, NodeArena* arena = nullptr) {
        static_assert(alignof(Element) <= alignof(Node) && alignof(Node) <= __STDCPP_DEFAULT_NEW_ALIGNMENT__);
        constexpr std::size_t most = (PTRDIFF_MAX - sizeof(Node)) / sizeof(Element);
        if (capacity > most) throw std::bad_alloc();
        const auto place = NodeArena::allocate(arena, sizeof(Node) + capacity * sizeof(Element));
        return new (place.memory) Node(place.steps);
    }

    void retain() noexcept { owners.fetch_add(1, std::memory_order_relaxed); }

    /// Who sees a count of one is the only owner and needs no atomic step; that is nearly every release.
    void release() noexcept {
        const bool last = owners.load(std::memory_order_acquire) == 1 ||
                          owners.fetch_sub(1, std::memory_order_acq_rel) == 1;
        if (!last) return;
        std::destroy_n(elements(), count);
        NodeArena::giveBack({this, steps});
    }
};

}  // namespace tidewell
