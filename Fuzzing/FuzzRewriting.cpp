// FuzzRewriting.cpp: a text, rewritten in one pass. The outcome must equal that of decoding and writing it, including
// the verdict, the error's words and its offset, whether the text is there at once or arrives in pieces.
#include "Support/Pieces.hpp"
#include "Target.hpp"
#include "JSON/JSONTree.hpp"
#include "JSON/JSONWriter.hpp"

#include <functional>

namespace {

using namespace tidewell;
using namespace tidewell::fuzzing;

/// Passes what the reader reads to the consumer. Returns the reason if the text is not JSON, else nothing.
std::string tell(JSONReader& reader, auto& consumer) {
    try {
        reader.readValue(consumer);
        reader.readEnd();
        return "";
    } catch (const JSONError& error) {
        return error.what();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text = textOf(data, size);
    JSONReader reader(text);
    JSONTree tree;
    const std::string reason = tell(reader, tree);

    JSONReader skipping(text);
    JSONConsumer nobody;
    require(tell(skipping, nobody) == reason, "the verdict does not depend on who listens", text);

    ByteBuffer plain;
    JSONReader whole(text);
    JSONWriter<JSONForm::plain> writer(plain);
    require(tell(whole, writer) == reason, "rewriting has the verdict of decoding", text);

    ByteBuffer inside;
    test::Pieces pieces(text, 1 + std::hash<std::string_view>()(text) % 9);  // the text itself decides
    JSONReader pieced(pieces);
    JSONWriter<JSONForm::insideString> insideWriter(inside);
    require(tell(pieced, insideWriter) == reason, "pieces have the verdict of the whole", text);
    if (!reason.empty()) return 0;

    const std::string expected = tree.take().jsonString();
    require(plain.view() == expected, "rewriting writes what decoding and writing do", text);
    require("\"" + std::string(inside.view()) + "\"" == JSONValue(expected).jsonString(),
            "inside a string stands the same text", text);
    return 0;
}
