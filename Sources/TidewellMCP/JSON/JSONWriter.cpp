#include "JSON/JSONWriter.hpp"

#include <charconv>
#include <cstring>
#include <variant>

namespace tidewell {

namespace {

void write(auto number, ByteBuffer& out) {
    constexpr std::size_t longest = sizeof "-2.2250738585072014e-308";
    char* const place = out.room(longest);
    out.endAt(std::to_chars(place, place + longest, number).ptr);
}

/// The letter after the backslash for the characters that have one, in JSON as in C; 'u' for others.
constexpr char escapeLetter(std::uint32_t scalar) noexcept {
    constexpr std::string_view characters = "\"\\\b\f\n\r\t";
    constexpr std::string_view letters = "\"\\bfnrt";
    const std::size_t at = characters.find(static_cast<char>(scalar));
    return at == characters.npos ? 'u' : letters[at];
}

/// The token's canonical form, if that is a part of the token itself; empty if it takes arithmetic. Up to
/// fifteen digits survive conversion to a double and back, so a decimal fraction of no more, without trailing
/// zeros, is already the shortest form. (One that begins with 0 may be shorter with an exponent.)
std::string_view canonicalPart(const NumberToken& token) noexcept {
    constexpr std::size_t integerSize = 18;
    constexpr std::size_t fractionSize = 16;  // with the point
    if (token.hasExponent) return {};
    if (!token.hasPoint) {
        return token.text.size() <= integerSize && token.text != "-0" ? token.text : std::string_view();
    }
    const std::size_t sign = token.text.front() == '-' ? 1 : 0;
    if (token.text[sign] == '0' || token.text.size() - sign > fractionSize) return {};
    std::string_view part = token.text.substr(0, token.text.find_last_not_of('0') + 1);
    if (part.back() == '.') part.remove_suffix(1);
    return part;
}

}  // namespace

template <JSONForm form>
void JSONWriter<form>::number(const NumberToken& token) {
    const std::string_view part = canonicalPart(token);
    const bool mayBeBoolean = rule_ == NumberRule::oneAndZeroAreBooleans;
    if (!part.empty()) {
        if (mayBeBoolean && (part == "1" || part == "0")) return boolean(part == "1");
        return out_.append(part);
    }
    const JSONNumber value = valueOf(token);
    if (const auto* const whole = std::get_if<std::int64_t>(&value)) {
        if (mayBeBoolean && (*whole == 1 || *whole == 0)) return boolean(*whole == 1);
        return integer(*whole);
    }
    real(std::get<double>(value));
}

template <JSONForm form>
void JSONWriter<form>::integer(std::int64_t value) {
    write(value, out_);
}

template <JSONForm form>
void JSONWriter<form>::real(double value) {
    write(value, out_);
}

template <JSONForm form>
void JSONWriter<form>::scalar(std::uint32_t scalar) {
    if (scalar >= 0x80 || isPlain(static_cast<char>(scalar))) {
        return out_.endAt(writeScalar(out_.room(longestScalar), scalar));
    }
    const char letter = escapeLetter(scalar);
    const bool isQuoteOrBackslash = letter == '"' || letter == '\\';
    if (form == JSONForm::insideString) {
        out_.append('\\');
        if (isQuoteOrBackslash) out_.append('\\');
    }
    out_.append('\\');
    out_.append(letter);
    if (letter != 'u') return;
    constexpr std::string_view hexDigits = "0123456789abcdef";
    out_.append("00");
    out_.append(hexDigits[scalar >> 4]);
    out_.append(hexDigits[scalar & 0xF]);
}

/// Whether a key may occur twice. No branch for each pair: too many of them would be guessed wrong.
template <JSONForm form>
bool JSONWriter<form>::mayRepeat(std::span<const Member> members) noexcept {
    if (members.size() > fewKeys) return true;
    bool mayRepeat = false;
    for (std::size_t late = 1; late < members.size(); ++late) {
        for (std::size_t early = 0; early < late; ++early) {
            mayRepeat |= members[early].mark == members[late].mark;
        }
    }
    return mayRepeat;
}

/// At the end of an object: cuts out the members whose key occurs again after them. Keys are compared as they
/// were written, and written keys are equal exactly when the keys are, however each was escaped.
template <JSONForm form>
void JSONWriter<form>::dropSuperseded() {
    const std::size_t first = objects_.back();
    objects_.pop_back();
    const std::span<const Member> members = std::span(members_).subspan(first);
    const auto keyAt = [&](std::size_t at) { return keyOf(members[at]); };
    if (mayRepeat(members)) cut(supersededKeys(members.size(), keyAt), members);
    members_.resize(first);
}

/// Each member is cut with the comma after it; the last one always stays.
template <JSONForm form>
void JSONWriter<form>::cut(const std::vector<bool>& superseded, std::span<const Member> members) {
    if (superseded.empty()) return;
    std::size_t end = members.front().start;
    for (std::size_t at = 0; at < members.size(); ++at) {
        if (superseded[at]) continue;
        const std::size_t start = members[at].start;
        const std::size_t next = at + 1 < members.size() ? members[at + 1].start : out_.size();
        std::memmove(out_.data() + end, out_.data() + start, next - start);
        end += next - start;
    }
    out_.truncate(end);
}

template class JSONWriter<JSONForm::plain>;
template class JSONWriter<JSONForm::insideString>;

void rewriteJSON(std::string_view text, NumberRule rule, ByteBuffer& out) {
    JSONReader reader(text);
    JSONWriter<JSONForm::plain> writer(out, rule);
    reader.readValue(writer);
    reader.readEnd();
}

}  // namespace tidewell
