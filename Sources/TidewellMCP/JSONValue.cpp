#include "JSONValue.hpp"

#include "JSONReader.hpp"

#include <algorithm>
#include <atomic>
#include <memory>
#include <new>
#include <utility>
#include <vector>

namespace tidewell {

/// What lies behind a long string, an array or an object: a header and the elements right behind it, in one
/// allocation of the exact size. Freed by whichever of its owners goes last.
template <typename Element>
struct alignas(16) JSONValue::Node {
    std::atomic<std::size_t> owners{1};
    std::size_t count = 0;

    Element* elements() noexcept { return reinterpret_cast<Element*>(this + 1); }

    /// A node with room for `capacity` elements, none of them constructed yet.
    static Node* make(std::size_t capacity) {
        static_assert(alignof(Element) <= alignof(Node) && alignof(Node) <= __STDCPP_DEFAULT_NEW_ALIGNMENT__);
        constexpr std::size_t most = (SIZE_MAX - sizeof(Node)) / sizeof(Element);
        if (capacity > most) throw std::bad_alloc();
        return new (::operator new(sizeof(Node) + capacity * sizeof(Element))) Node;
    }

    void retain() noexcept { owners.fetch_add(1, std::memory_order_relaxed); }

    /// Who sees a count of one is the only owner and needs no atomic step; that is nearly every release.
    void release() noexcept {
        const bool last = owners.load(std::memory_order_acquire) == 1 ||
                          owners.fetch_sub(1, std::memory_order_acq_rel) == 1;
        if (!last) return;
        std::destroy_n(elements(), count);
        this->~Node();
        ::operator delete(this);
    }
};

JSONValue::JSONValue(std::string_view text) : case_(Case::string) {
    if (text.size() <= shortTextSize) {
        std::copy(text.begin(), text.end(), payload_.begin());
        textLength_ = static_cast<std::uint8_t>(text.size());
        return;
    }
    auto* const node = Node<char>::make(text.size());
    std::copy(text.begin(), text.end(), node->elements());
    node->count = text.size();
    store(node);
    textLength_ = isLong;
}

JSONValue::JSONValue(const JSONValue& other) noexcept
    : payload_(other.payload_), textLength_(other.textLength_), case_(other.case_) {
    if (!isShared()) return;
    if (case_ == Case::string) node<char>().retain();
    if (case_ == Case::array) node<JSONValue>().retain();
    if (case_ == Case::object) node<Member>().retain();
}

void JSONValue::release() noexcept {
    if (case_ == Case::string) node<char>().release();
    if (case_ == Case::array) node<JSONValue>().release();
    if (case_ == Case::object) node<Member>().release();
}

JSONValue JSONValue::array(std::initializer_list<JSONValue> elements) {
    std::vector<JSONValue> copies(elements);
    return array(std::span<JSONValue>(copies));
}

JSONValue JSONValue::array(std::span<JSONValue> elements) {
    auto* const node = Node<JSONValue>::make(elements.size());
    std::uninitialized_move(elements.begin(), elements.end(), node->elements());
    node->count = elements.size();
    JSONValue result;
    result.case_ = Case::array;
    result.store(node);
    return result;
}

JSONValue JSONValue::object(std::initializer_list<Member> members) {
    std::vector<JSONValue> keysAndValues;
    keysAndValues.reserve(members.size() * 2);
    for (const Member& member : members) {
        keysAndValues.push_back(member.key);
        keysAndValues.push_back(member.value);
    }
    return object(std::span<JSONValue>(keysAndValues));
}

JSONValue JSONValue::object(std::span<JSONValue> keysAndValues) {
    const std::size_t count = dropSuperseded(keysAndValues);
    auto* const node = Node<Member>::make(count);
    for (std::size_t at = 0; at < count; ++at) {
        new (node->elements() + at)
            Member{std::move(keysAndValues[2 * at]), std::move(keysAndValues[2 * at + 1])};
    }
    node->count = count;
    JSONValue result;
    result.case_ = Case::object;
    result.store(node);
    return result;
}

/// Moves the members that stay to the front of the span and returns how many stay. Pairwise while that is
/// cheaper than sorting; above that by sorted positions, so that a hundred thousand keys cost no square.
std::size_t JSONValue::dropSuperseded(std::span<JSONValue> keysAndValues) {
    constexpr std::size_t pairwiseLimit = 16;
    const std::size_t count = keysAndValues.size() / 2;
    const auto key = [&](std::size_t at) -> const JSONValue& { return keysAndValues[2 * at]; };

    std::vector<bool> superseded;
    if (count <= pairwiseLimit) {
        for (std::size_t early = 0; early < count; ++early) {
            for (std::size_t late = early + 1; late < count; ++late) {
                if (!sameText(key(early), key(late))) continue;
                superseded.resize(count);
                superseded[early] = true;
                break;
            }
        }
    } else {
        std::vector<std::size_t> order(count);
        for (std::size_t at = 0; at < count; ++at) order[at] = at;
        std::sort(order.begin(), order.end(), [&](std::size_t left, std::size_t right) {
            const int difference = key(left).text().compare(key(right).text());
            return difference != 0 ? difference < 0 : left < right;
        });
        for (std::size_t at = 0; at + 1 < count; ++at) {
            if (!sameText(key(order[at]), key(order[at + 1]))) continue;
            superseded.resize(count);
            superseded[order[at]] = true;
        }
    }
    if (superseded.empty()) return count;

    std::size_t kept = 0;
    for (std::size_t at = 0; at < count; ++at) {
        if (superseded[at]) continue;
        if (kept != at) {
            keysAndValues[2 * kept] = std::move(keysAndValues[2 * at]);
            keysAndValues[2 * kept + 1] = std::move(keysAndValues[2 * at + 1]);
        }
        ++kept;
    }
    return kept;
}

JSONValue JSONValue::from(std::optional<JSONValue> any) {
    if (!any) return nullptr;
    JSONValue value = std::move(*any);
    value.convertNumbers();
    return value;
}

JSONValue JSONValue::decode(std::string_view text) { return readJSON(text); }

void JSONValue::convertNumbers() {
    switch (case_) {
    case Case::int_:
        if (const auto value = load<std::int64_t>(); value == 0 || value == 1) *this = JSONValue(value == 1);
        return;
    case Case::double_:
        if (const auto value = load<double>(); value == 0 || value == 1) {
            *this = JSONValue(value == 1);
        } else if (const auto whole = exactInteger(value)) {
            *this = JSONValue(*whole);
        }
        return;
    case Case::array:
        detach<JSONValue>();
        for (JSONValue& element : std::span(node<JSONValue>().elements(), node<JSONValue>().count)) {
            element.convertNumbers();
        }
        return;
    case Case::object:
        detach<Member>();
        for (Member& member : std::span(node<Member>().elements(), node<Member>().count)) {
            member.value.convertNumbers();
        }
        return;
    case Case::bool_:
    case Case::string:
    case Case::null: return;
    }
}

/// Makes this value the only owner of its node, so that it may be changed.
template <typename Element>
void JSONValue::detach() {
    auto& shared = node<Element>();
    if (shared.owners.load(std::memory_order_acquire) == 1) return;
    auto* const own = Node<Element>::make(shared.count);
    std::uninitialized_copy_n(shared.elements(), shared.count, own->elements());
    own->count = shared.count;
    shared.release();
    store(own);
}

std::optional<bool> JSONValue::boolean() const noexcept {
    if (case_ != Case::bool_) return std::nullopt;
    return load<bool>();
}

std::optional<std::int64_t> JSONValue::integer() const noexcept {
    if (case_ != Case::int_) return std::nullopt;
    return load<std::int64_t>();
}

std::optional<double> JSONValue::number() const noexcept {
    if (case_ != Case::double_) return std::nullopt;
    return load<double>();
}

std::optional<std::string_view> JSONValue::string() const noexcept {
    if (case_ != Case::string) return std::nullopt;
    return text();
}

std::string_view JSONValue::text() const noexcept {
    if (isShortText()) return {payload_.data(), textLength_};
    return {node<char>().elements(), node<char>().count};
}

std::span<const JSONValue> JSONValue::elements() const noexcept {
    if (case_ != Case::array) return {};
    return {node<JSONValue>().elements(), node<JSONValue>().count};
}

std::span<const JSONValue::Member> JSONValue::members() const noexcept {
    if (case_ != Case::object) return {};
    return {node<Member>().elements(), node<Member>().count};
}

const JSONValue* JSONValue::find(std::string_view key) const noexcept {
    for (const Member& member : members()) {
        if (member.key.text() == key) return &member.value;
    }
    return nullptr;
}

std::optional<JSONValue> JSONValue::take(std::string_view key) {
    if (find(key) == nullptr) return std::nullopt;
    detach<Member>();
    return std::exchange(const_cast<JSONValue&>(*find(key)), nullptr);  // ours alone by now
}

bool JSONValue::sameText(const JSONValue& left, const JSONValue& right) noexcept {
    if (left.isShortText() && right.isShortText()) {
        return left.textLength_ == right.textLength_ && left.payload_ == right.payload_;
    }
    return left.text() == right.text();
}

bool operator==(const JSONValue& left, const JSONValue& right) noexcept {
    using Case = JSONValue::Case;
    if (left.case_ != right.case_) return false;
    switch (left.case_) {
    case Case::bool_: return left.load<bool>() == right.load<bool>();
    case Case::int_: return left.load<std::int64_t>() == right.load<std::int64_t>();
    case Case::double_: return left.load<double>() == right.load<double>();
    case Case::string: return JSONValue::sameText(left, right);
    case Case::array: return std::ranges::equal(left.elements(), right.elements());
    case Case::object: {
        const auto ours = left.members();
        const auto theirs = right.members();
        if (ours.size() != theirs.size()) return false;
        for (std::size_t at = 0; at < ours.size(); ++at) {
            // Most equal objects were built in one order; only the others pay for the search.
            const bool inPlace = JSONValue::sameText(ours[at].key, theirs[at].key);
            const JSONValue* const other = inPlace ? &theirs[at].value : right.find(ours[at].key.text());
            if (other == nullptr || !(ours[at].value == *other)) return false;
        }
        return true;
    }
    case Case::null: return true;
    }
    return false;
}

}  // namespace tidewell
