// MCPError.hpp: the server's own failures, and the JSON-RPC code that each one becomes at the edge.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <string>
#include <utility>

namespace tidewell {

/// A failure with its complete, human-readable message. Thrown by the socket client and by the resource and
/// prompt handlers; anything else that is thrown is an unclassified error.
class MCPError : public std::exception {
public:
    enum class Case : std::uint8_t {
        invalidParams,  ///< the request's parameters lack something required
        appNotRunning,  ///< the host app could not be reached or did not answer
        notFound,       ///< a named thing does not exist
        internalError,  ///< the server itself failed
        live,           ///< the host app reported an error, with its own code
    };

    static MCPError invalidParams(std::string message) { return {Case::invalidParams, std::move(message)}; }
    static MCPError appNotRunning(std::string message) { return {Case::appNotRunning, std::move(message)}; }
    static MCPError notFound(std::string message) { return {Case::notFound, std::move(message)}; }
    static MCPError internalError(std::string message) { return {Case::internalError, std::move(message)}; }
    static MCPError live(std::int64_t code, std::string message) {
        return {Case::live, std::move(message), code};
    }

    Case kind() const noexcept { return kind_; }
    const std::string& message() const noexcept { return message_; }
    const char* what() const noexcept override { return message_.c_str(); }
    /// The JSON-RPC error code: of its case, or what `live` carries.
    std::int64_t code() const noexcept;

private:
    MCPError(Case kind, std::string message, std::int64_t liveCode = 0)
        : kind_(kind), liveCode_(liveCode), message_(std::move(message)) {}

    Case kind_;
    std::int64_t liveCode_;
    std::string message_;
};

/// The standard JSON-RPC 2.0 codes, and two from the range that it leaves to servers.
struct CodeRow {
    MCPError::Case kind;
    std::int64_t code;
};
inline constexpr std::array codeRows = {
    CodeRow{MCPError::Case::invalidParams, -32602},
    CodeRow{MCPError::Case::appNotRunning, -32000},
    CodeRow{MCPError::Case::notFound, -32001},
    CodeRow{MCPError::Case::internalError, -32603},
};  // `live` has no row: it brings its own code.

static_assert([] {
    for (std::size_t at = 0; at < codeRows.size(); ++at) {
        if (static_cast<std::size_t>(codeRows[at].kind) != at) return false;
    }
    return codeRows.size() == static_cast<std::size_t>(MCPError::Case::live);
}());

inline std::int64_t MCPError::code() const noexcept {
    return kind_ == Case::live ? liveCode_ : codeRows[static_cast<std::size_t>(kind_)].code;
}

}  // namespace tidewell
