#include "JSONValue.hpp"

#include "JSONNode.hpp"
#include "JSONReader.hpp"
#include "JSONText.hpp"

#include <algorithm>
#include <memory>
#include <new>
#include <utility>
#include <vector>

namespace tidewell {

JSONValue::JSONValue(std::string_view text)
    : JSONValue(text, skipPlain(text.data(), text.data() + text.size()) == text.data() + text.size(),
                nullptr) {}

void JSONValue::storeLongText(std::string_view text, NodeArena* arena) {
    auto* const node = Node<char>::make(text.size(), arena);
    std::copy(text.begin(), text.end(), node->elements());
    node->count = text.size();
    store(node);
    textForm_ |= isLong;
}

JSONValue::JSONValue(const JSONValue& other) noexcept
    : payload_(other.payload_), textForm_(other.textForm_), case_(other.case_) {
    if (!isShared()) return;
    if (isTextOfValue()) {
        node<JSONValue>().retain();
    } else if (case_ == Case::string) {
        node<char>().retain();
    }
    if (case_ == Case::array) node<JSONValue>().retain();
    if (case_ == Case::object) node<Member>().retain();
}

void JSONValue::release() noexcept {
    if (isTextOfValue()) return node<JSONValue>().release();
    if (case_ == Case::string) node<char>().release();
    if (case_ == Case::array) node<JSONValue>().release();
    if (case_ == Case::object) node<Member>().release();
}

JSONValue JSONValue::array(std::initializer_list<JSONValue> elements) {
    std::vector<JSONValue> copies(elements);
    return array(std::span<JSONValue>(copies));
}

JSONValue JSONValue::array(std::span<JSONValue> elements, NodeArena* arena) {
    JSONValue result;
    result.case_ = Case::array;
    if (elements.empty()) return result;
    auto* const node = Node<JSONValue>::make(elements.size(), arena);
    std::uninitialized_move(elements.begin(), elements.end(), node->elements());
    node->count = elements.size();
    result.store(node);
    return result;
}

JSONValue JSONValue::object(std::initializer_list<Member> members) {
    JSONValue result;
    result.case_ = Case::object;
    if (members.size() == 0) return result;
    auto* const node = Node<Member>::make(members.size());
    for (const Member* member = members.begin(); member != members.end(); ++member) {
        // These are a handful: looking through those behind costs less than anything cleverer.
        const bool isSuperseded = std::any_of(
            member + 1, members.end(), [&](const Member& later) { return sameText(later.key, member->key); });
        if (!isSuperseded) new (node->elements() + node->count++) Member(*member);
    }
    result.store(node);
    return result;
}

JSONValue JSONValue::object(std::span<JSONValue> keysAndValues, NodeArena* arena) {
    JSONValue result;
    result.case_ = Case::object;
    if (keysAndValues.empty()) return result;
    const std::size_t count = dropSuperseded(keysAndValues);
    auto* const node = Node<Member>::make(count, arena);
    for (std::size_t at = 0; at < count; ++at) {
        new (node->elements() + at)
            Member{std::move(keysAndValues[2 * at]), std::move(keysAndValues[2 * at + 1])};
    }
    node->count = count;
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
        // Nearly all keys differ in their first eight bytes, and these are compared at a glance.
        std::array<std::uint64_t, pairwiseLimit> firstWords;
        for (std::size_t at = 0; at < count; ++at) firstWords[at] = key(at).firstWord();
        for (std::size_t early = 0; early < count; ++early) {
            for (std::size_t late = early + 1; late < count; ++late) {
                if (firstWords[early] != firstWords[late] || !sameText(key(early), key(late))) continue;
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

/// The first eight bytes of a string, zeros behind a shorter one.
std::uint64_t JSONValue::firstWord() const {
    if (isShortText()) return load<std::uint64_t>();
    std::uint64_t word = 0;
    const std::string_view start = text().substr(0, sizeof word);
    std::memcpy(&word, start.data(), start.size());
    return word;
}

JSONValue JSONValue::textOf(JSONValue value) {
    JSONValue result = array(std::span(&value, 1));
    result.case_ = Case::string;
    result.textForm_ = isLong | ofValue;
    return result;
}

const JSONValue& JSONValue::valueOfText() const noexcept { return *node<JSONValue>().elements(); }

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
        for (JSONValue& element : own<JSONValue>()) element.convertNumbers();
        return;
    case Case::object:
        for (Member& member : own<Member>()) member.value.convertNumbers();
        return;
    case Case::bool_:
    case Case::string:
    case Case::null: return;
    }
}

/// What lies behind this value, of which it is the only owner from now on, so that it may be changed.
template <typename Element>
std::span<Element> JSONValue::own() {
    if (!isShared()) return {};
    if (auto& shared = node<Element>(); shared.owners.load(std::memory_order_acquire) != 1) {
        auto* const copy = Node<Element>::make(shared.count);
        std::uninitialized_copy_n(shared.elements(), shared.count, copy->elements());
        copy->count = shared.count;
        shared.release();
        store(copy);
    }
    return {node<Element>().elements(), node<Element>().count};
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

std::optional<std::string_view> JSONValue::string() const {
    if (case_ != Case::string) return std::nullopt;
    return text();
}

std::string_view JSONValue::longText() const {
    if (isTextOfValue()) {
        JSONValue made = valueOfText().jsonString();
        std::swap(payload_, made.payload_);  // the same string, in its other form
        std::swap(textForm_, made.textForm_);
        return text();
    }
    return {node<char>().elements(), node<char>().count};
}

std::span<const JSONValue> JSONValue::elements() const noexcept {
    if (case_ != Case::array || !isShared()) return {};
    return {node<JSONValue>().elements(), node<JSONValue>().count};
}

std::span<const JSONValue::Member> JSONValue::members() const noexcept {
    if (case_ != Case::object || !isShared()) return {};
    return {node<Member>().elements(), node<Member>().count};
}

const JSONValue* JSONValue::find(std::string_view key) const {
    for (const Member& member : members()) {
        if (member.key.text() == key) return &member.value;
    }
    return nullptr;
}

std::optional<JSONValue> JSONValue::take(std::string_view key) {
    if (find(key) == nullptr) return std::nullopt;
    own<Member>();
    return std::exchange(const_cast<JSONValue&>(*find(key)), nullptr);  // ours alone by now
}

bool operator==(const JSONValue& left, const JSONValue& right) {
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
