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

#include "PropertyListForms.hpp"

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
    std::uint64_t start = 0;
    std::uint8_t kind = 0;
    std::uint64_t count = 0;  ///< Elements, pairs, units or bytes, whatever the kind counts.
    std::uint64_t body = 0;
    std::uint64_t end = 0;

    bool isString() const { return kind == ascii || kind == utf16; }
    bool isContainer() const { return kind == array || kind == set || kind == dictionary; }
    std::uint64_t references() const { return kind == dictionary ? 2 * count : isContainer() ? count : 0; }
};

/// One file. Positions count bytes from the start of the file.
class BinaryList {
public:
    BinaryList(std::string_view file, std::string_view key) : file_(file), key_(key) {}

    std::optional<std::string> run() {
        if (!readTrailer()) return std::nullopt;
        const std::optional<Object> top = objectWithIndex(topIndex_);
        if (!top || top->kind != dictionary || !checkFrom(*top)) return std::nullopt;
        for (std::uint64_t index = top->count; index-- > 0;) {  // from behind: the last of equal keys wins
            if (!isKey(child(*top, index))) continue;
            const std::optional<Object> value = child(*top, top->count + index);
            return value && value->isString() ? std::optional(textOf(*value)) : std::nullopt;
        }
        return std::nullopt;
    }

private:
    /// A container whose references are being followed.
    struct Open {
        Object object;
        std::uint64_t next = 0;
        std::int16_t height = 1;  ///< Containers inside one another from here on, as far as known.
    };

    /// The number in the `size` bytes at `position`, 8 at most.
    std::uint64_t number(std::uint64_t position, std::uint64_t size) const {
        std::uint64_t value = 0;
        for (const char byte : file_.substr(position, size))
            value = value << 8 | static_cast<std::uint8_t>(byte);
        return value;
    }

    bool readTrailer() {
        if (file_.size() < headerSize + trailerSize) return false;
        const std::uint64_t trailer = file_.size() - trailerSize;
        offsetSize_ = number(trailer + 6, 1);
        referenceSize_ = number(trailer + 7, 1);
        objectCount_ = number(trailer + 8, 8);
        topIndex_ = number(trailer + 16, 8);
        offsetTable_ = number(trailer + 24, 8);
        if (offsetSize_ < 1 || offsetSize_ > 8 || referenceSize_ < 1 || referenceSize_ > 8) return false;
        if (offsetTable_ <= headerSize || offsetTable_ >= trailer) return false;
        // The table fills the space up to the trailer exactly, and a reference can name every object.
        const std::uint64_t tableSize = trailer - offsetTable_;
        if (tableSize % offsetSize_ != 0 || objectCount_ != tableSize / offsetSize_) return false;
        return referenceSize_ == 8 || objectCount_ >> (8 * referenceSize_) == 0;
    }

    std::optional<Object> objectWithIndex(std::uint64_t index) const {
        if (index >= objectCount_) return std::nullopt;
        return objectAt(number(offsetTable_ + index * offsetSize_, offsetSize_));
    }

    std::optional<Object> child(const Object& container, std::uint64_t index) const {
        return objectWithIndex(number(container.body + index * referenceSize_, referenceSize_));
    }

    /// The object at `start`, with a body that ends before the offset table; nothing when there is none.
    std::optional<Object> objectAt(std::uint64_t start) const {
        if (start < headerSize || start >= offsetTable_) return std::nullopt;
        const std::uint64_t marker = number(start, 1);
        const std::uint64_t low = marker & 0x0F;
        Object object{start, static_cast<std::uint8_t>(marker >> 4), low, start + 1, 0};
        std::uint64_t unit = 1;
        switch (object.kind) {
        case constant: return fitted(object, 0, low == 0 || low == 8 || low == 9);
        case integer: return fitted(object, std::uint64_t{1} << low, low <= 4);
        case real: return fitted(object, std::uint64_t{1} << low, low == 2 || low == 3);
        case date: return fitted(object, 8, low == 3);
        case archiveReference: return fitted(object, low + 1, true);
        case data:
        case ascii: break;
        case utf16: unit = 2; break;
        case array:
        case set: unit = referenceSize_; break;
        case dictionary: unit = 2 * referenceSize_; break;
        default: return std::nullopt;
        }
        if (low == 0x0F && !readCount(object)) return std::nullopt;
        const bool isRoomy = object.count <= (offsetTable_ - object.body) / unit;
        return fitted(object, isRoomy ? object.count * unit : 0, isRoomy);
    }

    /// The count that stands as an integer object before the body.
    bool readCount(Object& object) const {
        if (object.body >= offsetTable_) return false;
        const std::uint64_t marker = number(object.body, 1);
        if (marker < 0x10 || marker > 0x13) return false;
        const std::uint64_t size = std::uint64_t{1} << (marker & 0x0F);
        if (offsetTable_ - object.body - 1 < size) return false;
        object.count = number(object.body + 1, size);
        object.body += 1 + size;
        return true;
    }

    std::optional<Object> fitted(Object object, std::uint64_t size, bool isValid) const {
        if (!isValid || offsetTable_ - object.body < size) return std::nullopt;
        object.end = object.body + size;
        return object;
    }

    /// Checks everything that can be reached from `top`, each object once, however often it is referred to.
    bool checkFrom(const Object& top) {
        heights_.assign(offsetTable_, unseen);
        uncheckedBytes_ = offsetTable_ - headerSize;
        if (!enter(top)) return false;
        while (!open_.empty()) {
            if (open_.back().next == open_.back().object.references()) {
                const Open done = open_.back();
                heights_[done.object.start] = done.height;
                open_.pop_back();
                if (!open_.empty() && !raise(open_.back(), done.height)) return false;
            } else if (!followReference()) {
                return false;
            }
        }
        return true;
    }

    bool followReference() {
        Open& parent = open_.back();
        const bool mustBeString = parent.object.kind == dictionary && parent.next < parent.object.count;
        const std::optional<Object> object = child(parent.object, parent.next++);
        if (!object || (mustBeString && !object->isString())) return false;
        const std::int16_t height = heights_[object->start];
        if (height == unseen) return enter(*object);
        return height != underWay && raise(parent, height);  // a container inside itself is no tree
    }

    /// Checks the object itself and opens it when it is a container. Sound objects lie side by side, so all of
    /// them together are no longer than the file; without this rule overlapping ones could cost quadratic time.
    bool enter(const Object& object) {
        const std::uint64_t size = object.end - object.start;
        if (size > uncheckedBytes_ || !hasValidBody(object)) return false;
        uncheckedBytes_ -= size;
        heights_[object.start] = object.isContainer() ? underWay : std::int16_t{0};
        if (!object.isContainer()) return true;
        open_.push_back({object});
        return open_.size() <= nestingLimit;
    }

    /// Takes note that `parent` holds something of this height.
    static bool raise(Open& parent, std::int16_t height) {
        parent.height = std::max(parent.height, static_cast<std::int16_t>(height + 1));
        return parent.height <= static_cast<std::int16_t>(nestingLimit);
    }

    bool hasValidBody(const Object& object) const {
        const std::string_view body = file_.substr(object.body, object.end - object.body);
        if (object.kind == ascii)
            return std::none_of(body.begin(), body.end(), [](char byte) { return (byte & 0x80) != 0; });
        if (object.kind == archiveReference && body.size() > 4)
            return body.find_first_not_of('\0') >= body.size() - 4;
        return true;
    }

    /// Long keys are told apart unread: a UTF-16 unit never takes less than a byte of UTF-8.
    bool isKey(const std::optional<Object>& object) const {
        return object && object->count <= key_.size() && textOf(*object) == key_;
    }

    std::string textOf(const Object& string) const {
        if (string.kind == ascii) return std::string(file_.substr(string.body, string.count));
        std::string text;
        for (std::uint64_t position = string.body; position < string.end; position += 2)
            appendUnit(text, static_cast<char16_t>(number(position, 2)));
        return text;
    }

    static constexpr std::int16_t unseen = -2;
    static constexpr std::int16_t underWay = -1;

    std::string_view file_;
    std::string_view key_;
    std::uint64_t offsetSize_ = 0;
    std::uint64_t referenceSize_ = 0;
    std::uint64_t objectCount_ = 0;
    std::uint64_t topIndex_ = 0;
    std::uint64_t offsetTable_ = 0;
    std::uint64_t uncheckedBytes_ = 0;
    std::vector<std::int16_t> heights_;  ///< By position: unseen, underWay or the object's height.
    std::vector<Open> open_;             ///< The innermost last.
};

}  // namespace

std::optional<std::string> stringInBinaryForm(std::string_view file, std::string_view key) {
    return BinaryList(file, key).run();
}

}  // namespace tidewell::propertylist
