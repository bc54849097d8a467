// StdioBridge.hpp: the conversation with the MCP client: lines in, at most one reply line out for each.
//
// Protocol   JSON-RPC 2.0 as the Model Context Protocol uses it over standard input and output, one message
//            per line. A message without an id, or with id null, is a notification: it is carried out and
//            never answered, not even with an error.
// Order      each line is handled to its end, host app included, before the next is looked at: replies leave
//            in the order of the requests, and at most one request is in flight.
// Errors     only here do failures become replies: JSON-RPC errors in handleLine(), tool results in
//            handleToolCall().
// Threads    one thread runs a bridge. What talks to the host app is carried out and answered on the worker,
//            while that thread waits.
#pragma once

#include "JSONValue.hpp"
#include "SocketClient.hpp"

#include <unistd.h>

#include <cstdint>
#include <exception>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>

namespace tidewell {

/// The protocol revision that this server is written for.
inline constexpr std::string_view protocolVersion = "2025-11-25";

/// Writes `value` as one line to `output`, all of it: a partial write, an interruption or a full non-blocking
/// pipe only means waiting, so that no line is ever cut. A real error drops the rest, unreported. The one way
/// in which a protocol message leaves the process.
void emitLine(const JSONValue& value, int output = STDOUT_FILENO);
/// The same for the object with these members, whose keys differ, without making it first.
void emitLine(std::initializer_list<JSONValue::Member> members, int output = STDOUT_FILENO);

class StdioBridge {
public:
    /// Talks over the two descriptors, which stay the caller's.
    explicit StdioBridge(SocketClient socket, int input = STDIN_FILENO, int output = STDOUT_FILENO);

    /// Reads and answers until the input ends or a read fails; a last line without a line feed is dropped.
    void run();

    /// The result of "initialize": the client's protocol version echoed when it names one, and constants.
    static JSONValue handleInitialize(const JSONValue& params);
    /// The tool result for what the host app replied.
    static JSONValue wrapSocketResponse(const JSONValue& reply);
    /// A tool result that reports a failure; `hint` is left out when absent.
    static JSONValue toolErrorResult(std::string_view code, std::string_view message,
                                     std::optional<std::string_view> hint = std::nullopt);

    /// The server's version, looked up once per process.
    static const std::string& serverVersion();
    /// The version from the file beside the executable's folder, else from what the executable carries
    /// inside, else "0.0.0-dev". Never fails.
    static std::string resolveServerVersion();
    /// Where the version file of an executable lies: Info.plist in the parent of its folder. Pure.
    static std::string infoPlistPath(std::string_view executable);
    /// The version in a property list file, or nothing when any step fails.
    static std::optional<std::string> versionFromPlist(const std::string& path);

private:
    struct MethodRow;
    static const MethodRow* findMethod(std::string_view name) noexcept;

    void handleLine(std::string_view line) const;
    void handleMessage(JSONValue message) const;
    void writeResult(const JSONValue* id, JSONValue result) const;
    void writeError(const JSONValue* id, std::int64_t code, std::string_view message) const;
    void writeInternalError(const JSONValue* id, const std::exception& error) const;
    static JSONValue idToJSON(const JSONValue* id);

    JSONValue handleToolCall(const JSONValue& params) const;
    JSONValue handleResourceRead(const JSONValue& params) const;
    JSONValue handlePromptGet(const JSONValue& params) const;

    const SocketClient socket_;
    const int input_;
    const int output_;
};

}  // namespace tidewell
