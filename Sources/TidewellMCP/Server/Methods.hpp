// Methods.hpp: what the server can be asked, and what it answers.
#pragma once

#include "Base/ByteBuffer.hpp"
#include "Host/SocketClient.hpp"

#include <cstdint>
#include <optional>
#include <string_view>

namespace tidewell {

/// The protocol revision that this server is written for.
inline constexpr std::string_view protocolVersion = "2025-11-25";

/// One request, as its handler sees it.
struct Call {
    std::string_view params;  ///< JSON text: an object or array; empty when the request has none
    const SocketClient& socket;
    ByteBuffer& result;  ///< the handler appends the result's JSON text
};

/// What happens to a request.
enum class Effect : std::uint8_t {
    answer,   ///< it is answered here; a notification is ignored
    forward,  ///< it goes to the host app, which takes time and has side effects, also for a notification
    nothing,  ///< it is known and never answered
    exit,     ///< it ends the conversation
};

/// One method, one row. Handlers throw MCPError, JSONError or std::bad_alloc; then discard what they
/// appended.
struct MethodRow {
    std::string_view name;
    Effect effect;
    void (*handler)(const Call& call);
};

/// The row of a method, or null.
const MethodRow* findMethod(std::string_view name) noexcept;

/// The result of "initialize": the client's protocol version echoed when it names one, and constants.
void handleInitialize(const Call& call);

/// Appends a tool result that reports a failure; `hint` is left out when absent.
void toolErrorResult(std::string_view code, std::string_view message, std::optional<std::string_view> hint,
                     ByteBuffer& result);

}  // namespace tidewell
