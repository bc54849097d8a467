// SocketClient.hpp: one request line out, one reply line back, over the agent socket.
//
//   exchange  = connect, envelope LF, reply LF, close            one fresh connection per request
//   envelope  = {"tool": string, "args": any, "requestId": UUID in 36 upper-case characters}
//   reply     = one JSON value (HostReply.hpp); what follows its line feed is ignored
//
// Units      sizes in bytes, time limits in seconds, all text UTF-8.
// Errors     forward() throws MCPError (appNotRunning, internalError); a reply that is not JSON throws the
//            reader's own JSONError, so that callers can tell "absent" from "garbled".
// Threads    immutable after construction. forward() blocks its caller.
// Owns       no descriptor between calls: each exchange opens and closes its own.
#pragma once

#include "Base/ByteBuffer.hpp"
#include "Base/Descriptor.hpp"
#include "Host/HostReply.hpp"

#include <string>
#include <string_view>

namespace tidewell {

/// How long one read from the host app, or one write to it, may make no progress.
inline constexpr int socketTimeoutSeconds = 120;

/// Where the agent socket lies: at TIDEWELL_SOCKET_PATH, as it is, if that is set and not empty; else at a
/// fixed place below the user's home directory.
std::string socketPathDefault();

class SocketClient {
public:
    /// Opens nothing yet.
    explicit SocketClient(std::string socketPath);

    /// Sends a tool call to the host app and returns its reply, whose result is appended to `result` as
    /// readHostReply() does. `args` is JSON text as the client sent it.
    HostReply forward(std::string_view tool, std::string_view args, ByteBuffer& result) const;

private:
    Descriptor connectOnce() const;

    std::string socketPath_;
};

}  // namespace tidewell
