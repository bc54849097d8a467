// PlainServer.cpp: the server as one would write it in an afternoon on a popular JSON library that builds a
// tree: every message is parsed to a tree, every reply is built as one and dumped. It behaves like the real
// program in what SideBySide.cpp asks, and is neither slowed down nor tuned.
//
//   PlainServer FILE     FILE holds a tools/list reply, from which the tool table is taken
#include "WithoutJSON.hpp"

#include <nlohmann/json.hpp>

namespace {

using namespace tidewell::bench;
using nlohmann::json;

json initializeResult(const json& params) {
    static const std::string version = readVersion();
    return {{"protocolVersion", params.value("protocolVersion", "2025-11-25")},
            {"capabilities",
             {{"tools", json::object()}, {"resources", json::object()}, {"prompts", json::object()}}},
            {"serverInfo", {{"name", "Tidewell"}, {"version", version}}},
            {"instructions", instructions}};
}

/// The numbers 1 and 0 become booleans.
void convertNumbers(json& value) {
    if (value.is_number() && (value == 1 || value == 0)) value = value == 1;
    if (value.is_structured()) {
        for (json& element : value) convertNumbers(element);
    }
}

json toolResult(const json& value, bool isError) {
    return {{"content", json::array({{{"type", "text"}, {"text", value.dump()}}})}, {"isError", isError}};
}

json callTool(const json& params) {
    try {
        const json envelope = {{"tool", params.at("name")},
                               {"args", params.value("arguments", json::object())},
                               {"requestId", randomId()}};
        const json reply = json::parse(exchange(envelope.dump() + "\n"));
        if (reply.value("ok", false)) return toolResult(reply.value("result", json::object()), false);
        return toolResult({{"error", reply.value("error", json::object())}}, true);
    } catch (const std::exception& error) {
        return toolResult({{"error", {{"code", "error"}, {"message", error.what()}}}}, true);
    }
}

void handleLine(const std::string& line, const json& tools) {
    json request = json::parse(line);
    const std::string method = request.value("method", "");
    json params = request.value("params", json::object());
    convertNumbers(params);
    json reply = {{"jsonrpc", "2.0"}, {"id", request["id"]}};
    if (method == "initialize") {
        reply["result"] = initializeResult(params);
    } else if (method == "ping") {
        reply["result"] = json::object();
    } else if (method == "tools/list") {
        reply["result"]["tools"] = tools;
    } else if (method == "tools/call") {
        reply["result"] = callTool(params);
    } else {
        reply["error"] = {{"code", -32601}, {"message", "Method not found: " + method}};
    }
    writeAll(STDOUT_FILENO, reply.dump() + "\n");
}

}  // namespace

int main(int argumentCount, char* arguments[]) {
    if (argumentCount != 2) return 2;
    const json tools = json::parse(readFile(arguments[1]))["result"]["tools"];
    serveLines([&](const std::string& line) { handleLine(line, tools); });
}
