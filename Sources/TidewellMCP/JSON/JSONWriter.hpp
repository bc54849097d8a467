// JSONWriter.hpp: canonical JSON text: compact, slashes not escaped, other characters as raw UTF-8, numbers
// in their shortest form that reads back equal, of members with the same key the last.
//
// The writer is a consumer of what a reader reports, so a text is rewritten in one pass, without a tree:
// reader.readValue(writer).
#pragma once

#include "Base/ByteBuffer.hpp"
#include "JSON/JSONKeys.hpp"
#include "JSON/JSONReader.hpp"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <string_view>
#include <vector>

namespace tidewell {

/// Whether the text stands for itself, or inside a string of another JSON text: there each of its quotes and
/// backslashes takes one more backslash.
enum class JSONForm : std::uint8_t { plain, insideString };

/// What becomes of numbers. On the way from a client to the host app a number equal to 1 or 0 becomes a boolean,
/// so a client's "limit": 1 arrives as true; hosts depend on it. On the way back numbers stay numbers.
enum class NumberRule : std::uint8_t { keep, oneAndZeroAreBooleans };

/// Appends to a buffer. If it throws (std::bad_alloc), discard what was appended.
template <JSONForm form>
class JSONWriter {
public:
    explicit JSONWriter(ByteBuffer& out, NumberRule rule = NumberRule::keep) : out_(out), rule_(rule) {}

    void null() { out_.append("null"); }
    void boolean(bool value) { out_.append(value ? "true" : "false"); }
    void number(const NumberToken& token);
    void integer(std::int64_t value);
    void real(double value);  ///< finite
    void string(std::string_view run) {
        const auto put = [](char* at, std::string_view text) {
            std::memcpy(at, text.data(), text.size());
            return at + text.size();
        };
        char* const at = out_.room(run.size() + 2 * quoteMark.size());
        out_.endAt(put(put(put(at, quoteMark), run), quoteMark));
    }
    void beginString() { out_.append(quoteMark); }
    void text(std::string_view run) { out_.append(run); }
    void scalar(std::uint32_t scalar);
    void endString() { out_.append(quoteMark); }
    void key() { members_.push_back({.start = out_.size()}); }
    void colon() {
        Member& member = members_.back();
        member.keySize = out_.size() - member.start;
        const auto firstByte = static_cast<unsigned char>(keyOf(member)[quoteMark.size()]);
        member.mark = member.keySize << 8 | firstByte;
        out_.append(':');
    }
    void beginArray() { out_.append('['); }
    void endArray() { out_.append(']'); }
    void beginObject() {
        out_.append('{');
        if (members_.capacity() == 0) members_.reserve(fewKeys);  // one allocation is enough for most
        objects_.push_back(members_.size());
    }
    void endObject() {
        dropSuperseded();
        out_.append('}');
    }
    void comma() { out_.append(','); }

private:
    static constexpr std::string_view quoteMark = form == JSONForm::plain ? "\"" : "\\\"";

    /// Where a member stands in the text.
    struct Member {
        std::size_t start;
        std::size_t keySize = 0;  // with its quote marks
        std::size_t mark = 0;     // the same for keys of the same size and first byte
    };

    std::string_view keyOf(const Member& member) const noexcept {
        return {out_.data() + member.start, member.keySize};
    }
    static bool mayRepeat(std::span<const Member> members) noexcept;
    void dropSuperseded();
    void cut(const std::vector<bool>& superseded, std::span<const Member> members);

    ByteBuffer& out_;
    const NumberRule rule_;
    std::vector<Member> members_;       // of all objects that are open
    std::vector<std::size_t> objects_;  // where in members_ each of them begins
};

extern template class JSONWriter<JSONForm::plain>;
extern template class JSONWriter<JSONForm::insideString>;

/// Appends the canonical text of `text`, one JSON value. Throws JSONError.
void rewriteJSON(std::string_view text, NumberRule rule, ByteBuffer& out);

}  // namespace tidewell
