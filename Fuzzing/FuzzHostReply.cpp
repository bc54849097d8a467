// FuzzHostReply.cpp: the bytes that a host app answers with, and what reaches the client.
//
// A host answers one tool call and one resource read with the input, in pieces, and hangs up.
#include "Stage.hpp"
#include "Support/Judge.hpp"
#include "Support/ScriptedHost.hpp"
#include "Target.hpp"

namespace {

using namespace nlohmann::literals;
using namespace tidewell;
using namespace tidewell::fuzzing;
using nlohmann::json;
using test::HostConnection;
using test::judge;
using test::ScriptedHost;

constexpr const char* requests =
    R"({"id":1,"method":"tools/call","params":{"name":"get_repository"}})"
    "\n"
    R"({"id":2,"method":"resources/read","params":{"uri":"tidewell://settings"}})"
    "\n";

/// What the reply means, read independently.
struct Reading {
    enum class Kind { missing, unreadable, failure, success };
    Kind kind = Kind::missing;
    json result;  // of a success
    json error;   // the record of a failure, with those members that are strings
};

Reading readingOf(std::string_view bytes) {
    const std::size_t end = bytes.find('\n');
    if (end == std::string_view::npos) return {};
    const std::optional<json> reply = judge(bytes.substr(0, end));
    if (!reply) return {.kind = Reading::Kind::unreadable, .result = {}, .error = {}};
    if (reply->is_object() && reply->value("ok", json()) == json(true)) {
        return {
            .kind = Reading::Kind::success, .result = reply->value("result", json::object()), .error = {}};
    }
    Reading reading{.kind = Reading::Kind::failure, .result = {}, .error = json::object()};
    const json record = reply->is_object() ? reply->value("error", json()) : json();
    for (const char* const member : {"code", "message", "hint"}) {
        if (record.is_object() && record.contains(member) && record[member].is_string())
            reading.error[member] = record[member];
    }
    return reading;
}

json toolResult(const json& text, bool isError) {
    return {{"result", {{"content", {{{"type", "text"}, {"text", text}}}}, {"isError", isError}}}};
}

json toolFailure(const json& record) { return toolResult({{"error", record}}, true); }

json expectedToolReply(const Reading& reading, const json& reply) {
    switch (reading.kind) {
    case Reading::Kind::missing:
        return toolFailure({{"code", "app_not_running"},
                            {"message", "Tidewell is not running — start the app to use this tool."}});
    case Reading::Kind::unreadable: {
        // The reader's own words, whatever they are.
        const json message = reply.value("/result/content/0/text/error/message"_json_pointer, json());
        require(message.is_string() && !message.get_ref<const std::string&>().empty(),
                "an unreadable reply has a reason", reply.dump());
        return toolFailure({{"code", "error"}, {"message", message}});
    }
    case Reading::Kind::failure: {
        json record = {{"code", "error"}, {"message", "unknown error"}};
        record.update(reading.error);
        return toolFailure(record);
    }
    case Reading::Kind::success: return toolResult(reading.result, false);
    }
    return {};
}

json failure(int code, const json& message) { return {{"error", {{"code", code}, {"message", message}}}}; }

json expectedResourceReply(const Reading& reading, const json& reply) {
    switch (reading.kind) {
    case Reading::Kind::missing:
        return failure(-32000, "no response from Tidewell within 120s (app busy or stalled)");
    case Reading::Kind::unreadable: {
        const json message = reply.value("/error/message"_json_pointer, json());
        require(message.is_string() && message.get<std::string>().starts_with("Internal error: "),
                "an unreadable resource is an internal error", reply.dump());
        return failure(-32603, message);
    }
    case Reading::Kind::failure:
        return failure(-32000, reading.error.value("message", "resource unavailable"));
    case Reading::Kind::success: {
        const json item = {
            {"uri", "tidewell://settings"}, {"mimeType", "application/json"}, {"text", reading.result}};
        return {{"result", {{"contents", {item}}}}};
    }
    }
    return {};
}

/// Takes the next line off `output`; returns the reply to the request with this id, without its envelope.
json nextReply(std::string_view& output, int id) {
    const std::size_t end = output.find('\n');
    require(end != std::string_view::npos, "every request gets a reply", output);
    const std::optional<json> reply = judge(output.substr(0, end), test::Text::written);
    require(reply && reply->is_object() && reply->size() == 3 && (*reply)["jsonrpc"] == "2.0" &&
                (*reply)["id"] == id,
            "a reply is one JSON-RPC object", output.substr(0, end));
    output.remove_prefix(end + 1);
    json outcome = *reply;
    outcome.erase("jsonrpc");
    outcome.erase("id");
    return outcome;
}

std::string outputWithReplies(std::string_view bytes) {
    static ScriptedHost host;
    static const Stage stage(host.socketPath());
    // A few large pieces or many small ones, chosen by the input itself, so that a run can be repeated.
    constexpr std::size_t mostPieces = 64;
    const std::size_t pieces = 1 + std::hash<std::string_view>()(bytes) % mostPieces;
    const std::size_t size = 1 + bytes.size() / pieces;
    for (int request = 0; request < 2; ++request) {
        // A copy, because the host may still be writing when the client has read its one line and moved on.
        host.then([reply = std::string(bytes), size](const HostConnection& connection) {
            connection.readEnvelope();
            connection.writeInPieces(reply, size);
        });
    }
    return stage.outputFor(requests);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view bytes = textOf(data, size);
    const Reading reading = readingOf(bytes);
    const std::string output = outputWithReplies(bytes);

    std::string_view rest = output;
    const json tool = test::opened(nextReply(rest, 1));
    require(tool == expectedToolReply(reading, tool), "a tool result says what the host said", output);

    const json resource = test::opened(nextReply(rest, 2));
    require(resource == expectedResourceReply(reading, resource), "a resource is what the host said", output);
    require(rest.empty(), "nothing is written unasked", rest);
    return 0;
}
