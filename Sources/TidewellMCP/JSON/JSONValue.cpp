#include "JSON/JSONValue.hpp"

#include "Base/ByteBuffer.hpp"
#include "JSON/JSONKeys.hpp"
#include "JSON/JSONTree.hpp"
#include "JSON/JSONWriter.hpp"

#include <algorithm>
#include <cmath>

namespace tidewell {

namespace {

using Writer = JSONWriter<JSONForm::plain>;

/// Writes a string. False if it is not UTF-8.
bool tellText(std::string_view text, Writer& writer) {
    const char* at = text.data();
    const char* const end = at + text.size();
    for (;;) {
        const char* const run = std::exchange(at, skipVerbatim(at, end));
        writer.text({run, static_cast<std::size_t>(at - run)});
        if (at == end) return true;
        const auto byte = static_cast<unsigned char>(*at++);
        if (byte >= 0x80) return false;
        writer.scalar(byte);
    }
}

bool tell(const JSONValue& value, Writer& writer);

bool tell(const JSONValue::Member& member, Writer& writer) {
    writer.key();
    writer.beginString();
    if (!tellText(member.key, writer)) return false;
    writer.endString();
    writer.colon();
    return tell(member.value, writer);
}

/// Writes one item after another, with commas between them. False if one has no JSON form.
bool tellAll(const auto& items, Writer& writer) {
    bool isFirst = true;
    return std::ranges::all_of(items, [&](const auto& item) {
        if (!std::exchange(isFirst, false)) writer.comma();
        return tell(item, writer);
    });
}

bool tell(const JSONValue& value, Writer& writer) {
    bool isTold = true;
    switch (value.kind()) {
    case JSONValue::Kind::boolean: writer.boolean(*value.boolean()); break;
    case JSONValue::Kind::integer: writer.integer(*value.integer()); break;
    case JSONValue::Kind::real:
        if (!std::isfinite(*value.real())) return false;
        writer.real(*value.real());
        break;
    case JSONValue::Kind::string:
        writer.beginString();
        isTold = tellText(*value.string(), writer);
        writer.endString();
        break;
    case JSONValue::Kind::array:
        writer.beginArray();
        isTold = tellAll(value.elements(), writer);
        writer.endArray();
        break;
    case JSONValue::Kind::object:
        writer.beginObject();
        isTold = tellAll(value.members(), writer);
        writer.endObject();
        break;
    case JSONValue::Kind::null: writer.null(); break;
    }
    return isTold;
}

}  // namespace

JSONValue JSONValue::array(std::vector<JSONValue> elements) {
    JSONValue value;
    value.content_ = std::make_shared<const std::vector<JSONValue>>(std::move(elements));
    return value;
}

JSONValue JSONValue::object(std::vector<Member> members) {
    const auto keyAt = [&](std::size_t at) { return std::string_view(members[at].key); };
    if (const std::vector<bool> superseded = supersededKeys(members.size(), keyAt); !superseded.empty()) {
        std::size_t at = 0;
        std::erase_if(members, [&](const Member&) { return superseded[at++]; });
    }
    JSONValue value;
    value.content_ = std::make_shared<const std::vector<Member>>(std::move(members));
    return value;
}

JSONValue JSONValue::decode(std::string_view text) {
    JSONReader reader(text);
    JSONTree tree;
    reader.readValue(tree);
    reader.readEnd();
    return tree.take();
}

std::optional<std::string_view> JSONValue::string() const noexcept {
    const String* const text = std::get_if<String>(&content_);
    return text == nullptr ? std::nullopt : std::optional<std::string_view>(**text);
}

std::span<const JSONValue> JSONValue::elements() const noexcept {
    const Array* const array = std::get_if<Array>(&content_);
    return array == nullptr ? std::span<const JSONValue>() : **array;
}

std::span<const JSONValue::Member> JSONValue::members() const noexcept {
    const Object* const object = std::get_if<Object>(&content_);
    return object == nullptr ? std::span<const Member>() : **object;
}

const JSONValue* JSONValue::find(std::string_view key) const noexcept {
    const auto found = std::ranges::find(members(), key, &Member::key);
    return found == members().end() ? nullptr : &found->value;
}

std::string JSONValue::jsonString() const {
    ByteBuffer text;
    writeJSON(text);
    return std::string(text.view());
}

void JSONValue::writeJSON(ByteBuffer& text) const {
    const std::size_t before = text.size();
    Writer writer(text);
    if (tell(*this, writer)) return;
    text.truncate(before);
    text.append("null");
}

bool operator==(const JSONValue& left, const JSONValue& right) {
    using Kind = JSONValue::Kind;
    if (left.kind() != right.kind()) return false;
    if (left.kind() == Kind::string) return left.string() == right.string();
    if (left.kind() == Kind::array) return std::ranges::equal(left.elements(), right.elements());
    if (left.kind() == Kind::object) {
        return left.members().size() == right.members().size() &&
               std::ranges::all_of(left.members(), [&](const JSONValue::Member& member) {
                   const JSONValue* const other = right.find(member.key);
                   return other != nullptr && member.value == *other;
               });
    }
    return left.content_ == right.content_;
}

}  // namespace tidewell
