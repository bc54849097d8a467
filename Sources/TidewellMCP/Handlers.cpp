// Handlers.cpp: what the bridge answers to initialize, tools/call, resources/read and prompts/get.
#include "Catalog.hpp"
#include "MCPError.hpp"
#include "StdioBridge.hpp"

#include <utility>

namespace tidewell {

namespace {

/// The string under `key`; nothing when `value` is no object, has no such member, or it is no string.
std::optional<std::string_view> stringMember(const JSONValue& value, std::string_view key) {
    const JSONValue* const member = value.find(key);
    return member == nullptr ? std::nullopt : member->string();
}

/// Only the boolean true counts: a missing "ok", the number 1 or the string "true" are all failures.
bool isSuccess(const JSONValue& reply) {
    const JSONValue* const ok = reply.find("ok");
    return ok != nullptr && ok->boolean() == true;
}

/// What a successful reply carries; an absent result means an empty object.
JSONValue resultOf(const JSONValue& reply) {
    const JSONValue* const result = reply.find("result");
    return result == nullptr ? JSONValue::object({}) : *result;
}

/// The result of a tool: `value` as text.
JSONValue toolResult(JSONValue value, bool isError) {
    const JSONValue item =
        JSONValue::object({{"type", "text"}, {"text", JSONValue::textOf(std::move(value))}});
    return JSONValue::object({{"content", JSONValue::array({item})}, {"isError", isError}});
}

}  // namespace

JSONValue StdioBridge::handleInitialize(const JSONValue& params) {
    constexpr std::string_view instructions = "Read tools (L0) work directly. To mutate: call a propose_* "
                                              "tool, ask the user to confirm in Tidewell → "
                                              "Agent Review to get a confirmationToken, then call the "
                                              "apply/git tool with that token. Dangerous git is "
                                              "always blocked.";
    static_assert(instructions.size() == 224);

    // Whatever revision the client names is claimed, even an unknown one: nothing is negotiated.
    const JSONValue none = JSONValue::object({});
    return JSONValue::object({
        {"protocolVersion", stringMember(params, "protocolVersion").value_or(protocolVersion)},
        {"capabilities", JSONValue::object({{"tools", none}, {"resources", none}, {"prompts", none}})},
        {"serverInfo", JSONValue::object({{"name", "Tidewell"}, {"version", serverVersion()}})},
        {"instructions", instructions},
    });
}

JSONValue StdioBridge::handleToolCall(const JSONValue& params) const {
    const auto name = stringMember(params, "name");
    if (!name) return toolErrorResult("invalid_params", "`name` is required");
    const JSONValue* const arguments = params.find("arguments");
    try {
        return wrapSocketResponse(
            socket_.forward(*name, arguments == nullptr ? JSONValue::object({}) : *arguments));
    } catch (const MCPError& error) {
        // The agent always sees this one sentence; the socket client's own diagnosis would only distract it.
        if (error.kind() == MCPError::Case::appNotRunning) {
            return toolErrorResult("app_not_running",
                                   "Tidewell is not running — start the app to use this tool.");
        }
        return toolErrorResult("error", error.message());
    } catch (const std::exception& error) {
        return toolErrorResult("error", error.what());
    }
}

JSONValue StdioBridge::wrapSocketResponse(const JSONValue& reply) {
    if (isSuccess(reply)) return toolResult(resultOf(reply), false);
    const JSONValue* const found = reply.find("error");
    const JSONValue record = found == nullptr ? JSONValue() : *found;
    // Each member is judged on its own: a numeric code does not cost the message.
    return toolErrorResult(stringMember(record, "code").value_or("error"),
                           stringMember(record, "message").value_or("unknown error"),
                           stringMember(record, "hint"));
}

JSONValue StdioBridge::toolErrorResult(std::string_view code, std::string_view message,
                                       std::optional<std::string_view> hint) {
    JSONValue record = JSONValue::object({{"code", code}, {"message", message}});
    if (hint) record = JSONValue::object({{"code", code}, {"message", message}, {"hint", *hint}});
    return toolResult(JSONValue::object({{"error", record}}), true);
}

JSONValue StdioBridge::handleResourceRead(const JSONValue& params) const {
    const auto uri = stringMember(params, "uri");
    if (!uri) throw MCPError::invalidParams("`uri` is required for resources/read");
    // Which URIs exist is the host app's decision: the published table is not consulted.
    const JSONValue reply = socket_.forward("resources/read", JSONValue::object({{"uri", *uri}}));
    if (!isSuccess(reply)) {
        const JSONValue* const record = reply.find("error");
        const auto message = record == nullptr ? std::nullopt : stringMember(*record, "message");
        throw MCPError::live(-32000, std::string(message.value_or("resource unavailable")));
    }
    const JSONValue content = JSONValue::object(
        {{"uri", *uri}, {"mimeType", "application/json"}, {"text", JSONValue::textOf(resultOf(reply))}});
    return JSONValue::object({{"contents", JSONValue::array({content})}});
}

JSONValue StdioBridge::handlePromptGet(const JSONValue& params) const {
    const auto name = stringMember(params, "name");
    if (!name) throw MCPError::invalidParams("`name` is required for prompts/get");
    for (const JSONValue& prompt : Catalog::prompts().elements()) {
        if (stringMember(prompt, "name") == name) return Catalog::promptMessages(*name);
    }
    throw MCPError::notFound("unknown prompt `" + std::string(*name) + "`");
}

}  // namespace tidewell
