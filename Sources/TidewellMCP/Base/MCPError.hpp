// MCPError.hpp: the server's own failures, and the JSON-RPC code that each one becomes at the edge.
#pragma once

#include <cstdint>
#include <exception>
#include <string>
#include <utility>

namespace tidewell {

/// Every code that the server sends: those of JSON-RPC 2.0, and two from the range that it leaves to servers.
namespace ErrorCode {
inline constexpr std::int64_t parseError = -32700;
inline constexpr std::int64_t methodNotFound = -32601;
inline constexpr std::int64_t invalidParams = -32602;
inline constexpr std::int64_t internalError = -32603;
inline constexpr std::int64_t hostError = -32000;  ///< from the host app, or about it
inline constexpr std::int64_t notFound = -32001;
}  // namespace ErrorCode

/// A failure with its complete, human-readable message. Thrown by the socket client and by the resource and
/// prompt handlers; anything else that is thrown is an unclassified error.
class MCPError : public std::exception {
public:
    enum class Kind : std::uint8_t {
        invalidParams,  ///< the request's parameters lack something required
        appNotRunning,  ///< the host app could not be reached or did not answer
        notFound,       ///< a named thing does not exist
        internalError,  ///< the server itself failed
        live,           ///< the host app reported an error; it carries its own code
    };

    static MCPError invalidParams(std::string message) {
        return {Kind::invalidParams, ErrorCode::invalidParams, std::move(message)};
    }
    static MCPError appNotRunning(std::string message) {
        return {Kind::appNotRunning, ErrorCode::hostError, std::move(message)};
    }
    static MCPError notFound(std::string message) {
        return {Kind::notFound, ErrorCode::notFound, std::move(message)};
    }
    static MCPError internalError(std::string message) {
        return {Kind::internalError, ErrorCode::internalError, std::move(message)};
    }
    static MCPError live(std::int64_t code, std::string message) {
        return {Kind::live, code, std::move(message)};
    }

    Kind kind() const noexcept { return kind_; }
    std::int64_t code() const noexcept { return code_; }  ///< as JSON-RPC knows it
    const std::string& message() const noexcept { return message_; }
    const char* what() const noexcept override { return message_.c_str(); }

private:
    MCPError(Kind kind, std::int64_t code, std::string message)
        : kind_(kind), code_(code), message_(std::move(message)) {}

    Kind kind_;
    std::int64_t code_;
    std::string message_;
};

}  // namespace tidewell
