// The binary form; every number is big-endian.
//
//   file    = "bplist0" digit, objects, offset table, trailer
//   objects = marker byte (kind in its upper half, `low` in its lower half), body:
//             0  low 0, 8, 9: null, false, true         1  integer of 2^low bytes, at most 16
//             2  real of 4 or 8 bytes (low 2, 3)        3  date of 8 bytes (low 3)
//             4  data of n bytes                        5  ASCII string of n bytes
//             6  UTF-16 string of n units               8  archive reference of low+1 bytes, at most 2^32-1
//             A  array, C  set: n references            D  dictionary: n references to keys, n to values
//             n is `low`; when that is 15, n is an integer object that stands before the body.
//   offsets = for each object where it begins, in `offsetSize` bytes; a reference is an index into this table
//   trailer = 6 bytes, offsetSize, referenceSize, then in 8 bytes each: the number of objects, the index of
//             the top object, where the offset table begins

#include "PropertyList/Binary.hpp"

#include "PropertyList/UTF16.hpp"

#include <algorithm>
#include <cstdint>
#include <vector>

namespace tidewell::propertylist {

namespace {

constexpr std::uint64_t headerSize = 8;
constexpr std::uint64_t trailerSize = 32;

enum Kind : std::uint8_t {
    constant = 0x0,
    integer = 0x1,
    real = 0x2,
    date = 0x3,
    data = 0x4,
    ascii = 0x5,
    utf16 = 0x6,
    archiveReference = 0x8,
    array = 0xA,
    set = 0xC,
    dictionary = 0xD,
};

struct Object {
    std::uint64_t start;
    std::uint64_t kind;
    std::uint64_t count;  ///< Elements, pairs, units or bytes, whatever the kind counts.
    std::string_view body;

    bool isString() const { return kind == ascii || kind == utf16; }
    bool isContainer() const { return kind == array || kind == set || kind == dictionary; }
    std::uint64_t references() const { return kind == dictionary ? 2 * count : isContainer() ? count : 0; }
};

std::uint64_t number(std::string_view bytes) {
    std::uint64_t value = 0;
    for (const char byte : bytes) value = value << 8 | static_cast<unsigned char>(byte);
    return value;
}

bool isZero(std::string_view bytes) { return bytes.find_first_not_of('\0') == std::string_view::npos; }

bool isASCII(std::string_view text) {
    return std::none_of(text.begin(), text.end(), [](char byte) { return (byte & 0x80) != 0; });
}

/// One file, which is longer than header and trailer. Positions count bytes from its start.
class BinaryReader {
public:
    BinaryReader(std::string_view file, std::string_view key)
        : file_(file),
          key_(key),
          trailer_(file.substr(file.size() - trailerSize)),
          offsetSize_(number(trailer_.substr(6, 1))),
          referenceSize_(number(trailer_.substr(7, 1))),
          objectCount_(number(trailer_.substr(8, 8))),
          table_(number(trailer_.substr(24))),
          unwalkedBytes_(table_) {}

    std::optional<std::string> run() {
        if (!isTrailerSound()) return std::nullopt;
        const std::optional<Object> top = objectWithIndex(number(trailer_.substr(16, 8)));
        if (!top || top->kind != dictionary) return std::nullopt;
        heights_.assign(table_, unknown);
        if (heightOf(*top, propertyListNestingLimit) == unknown) return std::nullopt;
        for (std::uint64_t index = top->count; index-- > 0;) {  // backward: the last of equal keys wins
            if (!isKey(*child(*top, index))) continue;
            const std::optional<Object> value = child(*top, top->count + index);
            return value->isString() ? std::optional(textOf(*value)) : std::nullopt;
        }
        return std::nullopt;
    }

private:
    /// The table fills the space up to the trailer exactly, and a reference can name every object.
    bool isTrailerSound() const {
        if (offsetSize_ < 1 || offsetSize_ > 8 || referenceSize_ < 1 || referenceSize_ > 8) return false;
        const std::uint64_t trailer = file_.size() - trailerSize;
        if (table_ > trailer) return false;
        const std::uint64_t tableSize = trailer - table_;
        if (tableSize % offsetSize_ != 0 || objectCount_ != tableSize / offsetSize_) return false;
        return referenceSize_ == 8 || objectCount_ >> (8 * referenceSize_) == 0;
    }

    std::optional<Object> child(const Object& container, std::uint64_t index) const {
        return objectWithIndex(number(container.body.substr(index * referenceSize_, referenceSize_)));
    }

    /// The object with this index, with a body that ends before the offset table; nothing when there is none.
    std::optional<Object> objectWithIndex(std::uint64_t index) const {
        if (index >= objectCount_) return std::nullopt;
        const std::uint64_t start = number(file_.substr(table_ + index * offsetSize_, offsetSize_));
        if (start < headerSize || start >= table_) return std::nullopt;

        std::string_view rest = file_.substr(start + 1, table_ - start - 1);
        const std::uint64_t marker = number(file_.substr(start, 1));
        const std::uint64_t kind = marker >> 4;
        const std::uint64_t low = marker & 0x0F;
        const auto sized = [&](std::uint64_t count, std::uint64_t unit, bool isValid) {
            const bool fits = isValid && count <= rest.size() / unit;
            return fits ? std::optional(Object{start, kind, count, rest.substr(0, count * unit)})
                        : std::nullopt;
        };
        const auto counted = [&](std::uint64_t unit) {
            if (low != 0x0F) return sized(low, unit, true);
            const std::uint64_t countMarker = number(rest.substr(0, 1));
            const std::uint64_t size = std::uint64_t{1} << (countMarker & 0x0F);
            if (countMarker < 0x10 || countMarker > 0x13 || size >= rest.size())
                return std::optional<Object>();
            const std::uint64_t count = number(rest.substr(1, size));
            rest.remove_prefix(1 + size);
            return sized(count, unit, true);
        };
        switch (kind) {
        case constant: return sized(0, 1, low == 0 || low == 8 || low == 9);
        case integer: return sized(std::uint64_t{1} << low, 1, low <= 4);
        case real: return sized(std::uint64_t{1} << low, 1, low == 2 || low == 3);
        case date: return sized(8, 1, low == 3);
        case archiveReference: return sized(low + 1, 1, low < 4 || isZero(rest.substr(0, low - 3)));
        case data:
        case ascii: return counted(1);
        case utf16: return counted(2);
        case array:
        case set: return counted(referenceSize_);
        case dictionary: return counted(2 * referenceSize_);
        default: return std::nullopt;
        }
    }

    /// How many containers stand inside one another from `object` on; `unknown` when one of the objects is
    /// broken or there are more than `most`, as in a container that holds itself. A sound object is walked
    /// once, however often it is referred to.
    int heightOf(const Object& object, int most) {
        const std::int16_t known = heights_[object.start];
        if (known != unknown) return known <= most ? known : unknown;
        if (most == 0 && object.isContainer()) return unknown;
        // Sound objects lie side by side, so all of them together are no longer than the file; without this
        // rule overlapping ones could cost quadratic time.
        if (object.body.size() >= unwalkedBytes_) return unknown;
        unwalkedBytes_ -= object.body.size();
        if (object.kind == ascii && !isASCII(object.body)) return unknown;

        int height = object.isContainer() ? 1 : 0;
        for (std::uint64_t index = 0; index < object.references(); ++index) {
            const std::optional<Object> inner = child(object, index);
            const bool mustBeString = object.kind == dictionary && index < object.count;
            if (!inner || (mustBeString && !inner->isString())) return unknown;
            const int innerHeight = heightOf(*inner, most - 1);
            if (innerHeight == unknown) return unknown;
            height = std::max(height, innerHeight + 1);
        }
        heights_[object.start] = static_cast<std::int16_t>(height);
        return height;
    }

    /// A key that is too long is not read: a UTF-16 unit never takes less than a byte of UTF-8.
    bool isKey(const Object& string) const { return string.count <= key_.size() && textOf(string) == key_; }

    static std::string textOf(const Object& string) {
        return string.kind == ascii ? std::string(string.body) : fromUTF16(string.body, true);
    }

    static constexpr std::int16_t unknown = -1;

    const std::string_view file_;
    const std::string_view key_;
    const std::string_view trailer_;
    const std::uint64_t offsetSize_;
    const std::uint64_t referenceSize_;
    const std::uint64_t objectCount_;
    const std::uint64_t table_;  ///< Where the offset table begins.
    std::uint64_t unwalkedBytes_;
    std::vector<std::int16_t> heights_;  ///< By position.
};

}  // namespace

std::optional<std::string> stringInBinary(std::string_view file, std::string_view key) {
    if (file.size() < headerSize + trailerSize) return std::nullopt;
    return BinaryReader(file, key).run();
}

}  // namespace tidewell::propertylist
