// HostReply.hpp: what the host app answered to one request.
//
//   reply   = {"ok": true, "result": any} or {"ok": any, "error": {"code", "message", "hint"}}, or any JSON value
//
// The result is only passed on, so it goes from the received line to the outgoing line in one pass.
#pragma once

#include "Base/ByteBuffer.hpp"
#include "JSON/JSONReader.hpp"

#include <optional>
#include <string>

namespace tidewell {

struct HostReply {
    /// Only the boolean true counts: without "ok", or when it is 1 or "true", the reply reports a failure.
    bool isSuccess = false;
    /// The strings of the "error" of a failure; nothing where there is none, or it is not a string.
    std::optional<std::string> code;
    std::optional<std::string> message;
    std::optional<std::string> hint;
};

/// Reads one reply and appends its "result" to `text`, as the content of a JSON string: canonical JSON text
/// with the string's own escapes. A missing result counts as an empty object; of repeated members the last
/// counts. Throws JSONError. In that case, and after a failure, discard what was appended.
HostReply readHostReply(JSONReader& reader, ByteBuffer& text);

}  // namespace tidewell
