// FuzzJSON.cpp: a text, read, converted and written. An independent JSON library is the judge.
#include "Support/Judge.hpp"
#include "Support/JudgedValue.hpp"
#include "Target.hpp"
#include "JSON/JSONReader.hpp"
#include "JSON/JSONValue.hpp"
#include "JSON/JSONWriter.hpp"

#include <string>

namespace {

using namespace tidewell;
using namespace tidewell::fuzzing;
using nlohmann::json;
using test::agrees;
using test::judge;

std::optional<JSONValue> read(std::string_view text) {
    try {
        return JSONValue::decode(text);
    } catch (const JSONError& error) {
        require(error.offset() <= text.size(), "an error lies inside the text", error.what());
        return std::nullopt;
    }
}

void checkWriting(const JSONValue& value) {
    const std::string written = value.jsonString();
    require(written.find('\n') == std::string::npos, "what is written is one line", written);
    const auto reread = read(written);
    require(reread && reread->jsonString() == written, "what is written is read and written the same",
            written);
    // The double -2^63 is written with the same digits as the integer, so it reads back as an integer: the same
    // number, but another kind of value.
    if (written.find("-9223372036854775808") != std::string::npos) return;
    require(*reread == value, "what is written reads back equal", written);
    const auto rereadByJudge = judge(written, test::Text::written);
    require(rereadByJudge && agrees(value, *rereadByJudge),
            "the judge reads what is written as what was read", written);
}

std::string converted(std::string_view text) {
    ByteBuffer out;
    rewriteJSON(text, NumberRule::oneAndZeroAreBooleans, out);
    return std::string(out.view());
}

void checkConversion(std::string_view text, const json& judged) {
    const std::string once = converted(text);
    require(agrees(JSONValue::decode(once), test::withBooleans(judged)),
            "only numbers equal to 1 and 0 become booleans", once);
    require(converted(once) == once, "to convert twice is to convert once", once);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text = textOf(data, size);
    const std::optional<json> judged = judge(text);
    const std::optional<JSONValue> ours = read(text);
    require(!ours || judged, "what the judge refuses is refused", text);
    require(ours || !judged, "what the judge accepts is accepted", text);
    if (!ours) return 0;

    require(agrees(*ours, *judged), "what is read is what the judge read", text);
    checkWriting(*ours);
    checkConversion(text, *judged);
    return 0;
}
