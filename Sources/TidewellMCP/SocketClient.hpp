// SocketClient.hpp: one request line out, one reply line back, over the agent socket.
//
//   exchange  = connect, envelope LF, reply LF, close            one fresh connection per request
//   envelope  = {"tool": string, "args": any, "requestId": UUID in 36 upper-case characters}
//   reply     = one JSON value; what follows its line feed is ignored
//
// Units      sizes in bytes, time limits in seconds, all text UTF-8.
// Errors     forward() throws MCPError (appNotRunning, internalError); a reply that is not JSON throws the
//            reader's own JSONError, so that callers can tell "absent" from "garbled".
// Threads    immutable after construction; one exchange at a time. forward() blocks its caller, so the bridge
//            calls it on its worker thread.
// Owns       no descriptor between calls: each exchange opens and closes its own.
#pragma once

#include "Descriptor.hpp"
#include "JSONValue.hpp"

#include <string>
#include <string_view>

namespace tidewell {

/// How long one read from, or one write to, the host app may stay without any progress.
inline constexpr int socketTimeoutSeconds = 120;

/// Where the agent socket lies: the variable TIDEWELL_SOCKET_PATH as it is when set and not empty, else a
/// fixed place below the user's home directory.
std::string socketPathDefault();

class LineBuffer;

class SocketClient {
public:
    /// Opens nothing yet.
    explicit SocketClient(std::string socketPath);

    /// Sends the tool call to the host app and returns its reply as decoded, whatever its shape.
    JSONValue forward(std::string_view tool, JSONValue args) const;

private:
    std::string_view exchange(std::string_view request, LineBuffer& received) const;
    Descriptor connectOnce() const;

    std::string socketPath_;
};

}  // namespace tidewell
