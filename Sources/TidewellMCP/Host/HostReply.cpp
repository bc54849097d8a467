#include "Host/HostReply.hpp"

#include "JSON/JSONWriter.hpp"

namespace tidewell {

namespace {

void readError(JSONReader& reader, HostReply& reply) {
    reply.code = reply.message = reply.hint = std::nullopt;  // an earlier "error" no longer counts
    const auto readMember = [&](std::string_view key) {
        if (key == "code") {
            reply.code = reader.readString();
        } else if (key == "message") {
            reply.message = reader.readString();
        } else if (key == "hint") {
            reply.hint = reader.readString();
        } else {
            reader.skipValue();
        }
    };
    if (!reader.readObject(readMember)) reader.skipValue();
}

}  // namespace

HostReply readHostReply(JSONReader& reader, ByteBuffer& text) {
    HostReply reply;
    const std::size_t start = text.size();
    text.append("{}");
    const auto readMember = [&](std::string_view key) {
        if (key == "result") {
            text.truncate(start);
            JSONWriter<JSONForm::insideString> writer(text);
            reader.readValue(writer);
        } else if (key == "error") {
            readError(reader, reply);
        } else {
            if (key == "ok") reply.isSuccess = reader.next() == 't';
            reader.skipValue();
        }
    };
    if (!reader.readObject(readMember)) reader.skipValue();
    reader.readEnd();
    return reply;
}

}  // namespace tidewell
