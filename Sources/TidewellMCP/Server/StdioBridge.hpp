// StdioBridge.hpp: the conversation with the MCP client: lines in, at most one reply line out for each.
//
// Protocol   JSON-RPC 2.0 as the Model Context Protocol uses it over standard input and output, one message
//            per line. A message without an id, or with id null, is a notification: it is never answered, not
//            even with an error.
// Order      each line is handled to its end, host app included, before the next is looked at: replies leave
//            in the order of the requests, and at most one request is in flight.
// Errors     only here and in tools/call do failures become replies.
// Threads    one thread runs a bridge; several bridges may run side by side. What goes to the host app is
//            carried out and answered on the bridge's own worker, while that thread waits.
#pragma once

#include "Base/ByteBuffer.hpp"
#include "Host/SocketClient.hpp"
#include "Host/Worker.hpp"
#include "Server/Methods.hpp"

#include <unistd.h>

#include <cstdint>
#include <string_view>

namespace tidewell {

/// Ends `line` with a line feed and writes all of it to `output`: a partial write, an interruption or a full
/// non-blocking pipe only means waiting, so that no line is ever cut. A real error drops the rest,
/// unreported. The only way for a protocol message to leave the process.
void emitLine(ByteBuffer& line, int output = STDOUT_FILENO);

class StdioBridge {
public:
    /// Talks over the two descriptors, which the caller keeps and closes.
    explicit StdioBridge(SocketClient socket, int input = STDIN_FILENO, int output = STDOUT_FILENO);

    /// Why a conversation is over.
    enum class Ending : std::uint8_t { inputEnded, exitRequested };

    /// Reads and answers until the input ends, a read fails, or the client says "exit". A last line without a
    /// line feed is dropped.
    Ending run();

private:
    /// The members of a message that count, as they stand in its text; empty when there are none.
    struct Message {
        std::string_view id;
        std::string_view method;
        std::string_view params;

        bool isNotification() const { return id.empty() || id == "null"; }
    };
    enum class Next : bool { goOn, exit };

    static Message readMessage(std::string_view line);
    Next handleLine(std::string_view line);
    Next carryOut(const Message& message);
    void answer(const MethodRow& row, const Message& message);
    void writeError(std::string_view id, std::int64_t code, std::string_view message);
    bool beginReply(std::string_view id, std::string_view member);
    void sendReply(bool hasEcho);

    const SocketClient socket_;
    const int input_;
    const int output_;
    Worker worker_;
    ByteBuffer reply_;  // the line under construction; its memory is kept for the next one
};

}  // namespace tidewell
