#include "Server/Methods.hpp"

#include "Base/MCPError.hpp"
#include "Server/Catalog.hpp"
#include "Server/ServerVersion.hpp"
#include "JSON/JSONReader.hpp"
#include "JSON/JSONValue.hpp"

#include <string>
#include <utility>

namespace tidewell {

namespace {

/// Reads the members of `params`, when it is an object: read(key, reader) has to read the value.
void readMembers(std::string_view params, const auto& read) {
    if (params.empty()) return;
    JSONReader reader(params);
    reader.readObject([&](std::string_view key) { read(key, reader); });
}

/// The string under `key`: the last such member counts.
std::optional<std::string> stringMember(std::string_view params, std::string_view key) {
    std::optional<std::string> string;
    readMembers(params, [&](std::string_view each, JSONReader& reader) {
        if (each == key) {
            string = reader.readString();
        } else {
            reader.skipValue();
        }
    });
    return string;
}

/// The result of a list: one member with a table's text.
void list(std::string_view member, std::string_view table, ByteBuffer& result) {
    result.append("{\"");
    result.append(member);
    result.append("\":");
    result.append(table);
    result.append('}');
}

void handleToolsList(const Call& call) { list("tools", Catalog::tools(), call.result); }
void handleResourcesList(const Call& call) { list("resources", Catalog::resources(), call.result); }
void handleTemplatesList(const Call& call) { list("resourceTemplates", "[]", call.result); }
void handlePromptsList(const Call& call) { list("prompts", Catalog::prompts(), call.result); }
void handlePing(const Call& call) { call.result.append("{}"); }
void handleShutdown(const Call& call) { call.result.append("null"); }

/// Completes a tool result, whose text is what the host app replied.
void wrapSocketResponse(const HostReply& reply, std::size_t start, ByteBuffer& result) {
    if (reply.isSuccess) return result.append(R"("}],"isError":false})");
    result.truncate(start);
    // Each member is checked on its own: a numeric code does not lose the message.
    toolErrorResult(reply.code.value_or("error"), reply.message.value_or("unknown error"), reply.hint,
                    result);
}

void handleToolCall(const Call& call) {
    std::optional<std::string> name;
    std::string_view arguments = "{}";
    readMembers(call.params, [&](std::string_view key, JSONReader& reader) {
        if (key == "name") {
            name = reader.readString();
        } else if (key == "arguments") {
            arguments = reader.rawValue();
        } else {
            reader.skipValue();
        }
    });
    if (!name) return toolErrorResult("invalid_params", "`name` is required", std::nullopt, call.result);

    const std::size_t start = call.result.size();
    const auto fail = [&](std::string_view code, std::string_view message) {
        call.result.truncate(start);
        toolErrorResult(code, message, std::nullopt, call.result);
    };
    try {
        call.result.append(R"({"content":[{"type":"text","text":")");
        const HostReply reply = call.socket.forward(*name, arguments, call.result);
        wrapSocketResponse(reply, start, call.result);
    } catch (const MCPError& error) {
        // The agent always sees this one sentence; the socket client's own diagnosis would only distract it.
        if (error.kind() == MCPError::Kind::appNotRunning) {
            return fail("app_not_running", "Tidewell is not running — start the app to use this tool.");
        }
        fail("error", error.message());
    } catch (const std::exception& error) {
        fail("error", error.what());
    }
}

void handleResourceRead(const Call& call) {
    const auto uri = stringMember(call.params, "uri");
    if (!uri) throw MCPError::invalidParams("`uri` is required for resources/read");
    const std::string uriText = JSONValue(*uri).jsonString();
    call.result.append(R"({"contents":[{"uri":)");
    call.result.append(uriText);
    call.result.append(R"(,"mimeType":"application/json","text":")");
    // Which URIs exist is the host app's decision: the published table is not consulted.
    const HostReply reply = call.socket.forward("resources/read", "{\"uri\":" + uriText + "}", call.result);
    if (!reply.isSuccess) {
        throw MCPError::live(ErrorCode::hostError, reply.message.value_or("resource unavailable"));
    }
    call.result.append("\"}]}");
}

void handlePromptGet(const Call& call) {
    const auto name = stringMember(call.params, "name");
    if (!name) throw MCPError::invalidParams("`name` is required for prompts/get");
    if (!Catalog::hasPrompt(*name)) throw MCPError::notFound("unknown prompt `" + *name + "`");
    Catalog::promptMessages(*name).writeJSON(call.result);
}

// clang-format off
constexpr MethodRow rows[] = {
    {"initialize",                Effect::answer,  handleInitialize},
    {"initialized",               Effect::nothing, nullptr},
    {"notifications/initialized", Effect::nothing, nullptr},
    {"ping",                      Effect::answer,  handlePing},
    {"tools/list",                Effect::answer,  handleToolsList},
    {"resources/list",            Effect::answer,  handleResourcesList},
    {"resources/templates/list",  Effect::answer,  handleTemplatesList},
    {"prompts/list",              Effect::answer,  handlePromptsList},
    {"tools/call",                Effect::forward, handleToolCall},
    {"resources/read",            Effect::forward, handleResourceRead},
    {"prompts/get",               Effect::answer,  handlePromptGet},
    {"shutdown",                  Effect::answer,  handleShutdown},  // the conversation goes on
    {"exit",                      Effect::exit,    nullptr},
};
// clang-format on

}  // namespace

const MethodRow* findMethod(std::string_view name) noexcept {
    for (const MethodRow& row : rows) {
        if (row.name == name) return &row;
    }
    return nullptr;
}

void handleInitialize(const Call& call) {
    constexpr std::string_view instructions = "Read tools (L0) work directly. To mutate: call a propose_* "
                                              "tool, ask the user to confirm in Tidewell → "
                                              "Agent Review to get a confirmationToken, then call the "
                                              "apply/git tool with that token. Dangerous git is "
                                              "always blocked.";
    static_assert(instructions.size() == 224);

    // Whatever revision the client names is claimed, even an unknown one: nothing is negotiated.
    const auto revision = stringMember(call.params, "protocolVersion");
    call.result.append(R"({"protocolVersion":)");
    JSONValue(revision.value_or(std::string(protocolVersion))).writeJSON(call.result);
    call.result.append(R"(,"capabilities":{"tools":{},"resources":{},"prompts":{}},)"
                       R"("serverInfo":{"name":"Tidewell","version":)");
    JSONValue(serverVersion()).writeJSON(call.result);
    call.result.append(R"(},"instructions":")");
    call.result.append(instructions);
    call.result.append("\"}");
}

void toolErrorResult(std::string_view code, std::string_view message, std::optional<std::string_view> hint,
                     ByteBuffer& result) {
    std::vector<JSONValue::Member> record = {{"code", code}, {"message", message}};
    if (hint) record.push_back({"hint", *hint});
    const JSONValue error = JSONValue::object({{"error", JSONValue::object(std::move(record))}});
    const JSONValue item = JSONValue::object({{"type", "text"}, {"text", error.jsonString()}});
    JSONValue::object({{"content", JSONValue::array({item})}, {"isError", true}}).writeJSON(result);
}

}  // namespace tidewell
