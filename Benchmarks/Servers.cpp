#include "Servers.hpp"

#include "CannedReply.hpp"
#include "CannedShapes.hpp"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <chrono>
#include <stdexcept>

namespace tidewell::bench {

namespace {

using nlohmann::json;

// All requests begin alike, because the floor finds the method by its position in the line.
std::string request(std::string_view rest) {
    return R"({"jsonrpc":"2.0","id":1,"method":")" + std::string(rest) + "}\n";
}

void require(bool condition, const std::string& what) {
    if (!condition)
        throw std::runtime_error("nothing was measured, because this is wrong: " +
                                 what.substr(0, what.find('\n')));
}

/// Throws unless the server's reply to `line` has the result `expected`; `accept` makes a result comparable.
template <typename Accept>
void compare(Server& server, const std::string& line, const json& expected, Accept accept) {
    const std::string text = ask(server, line);
    json reply = json::parse(text);
    require(reply.is_object() && reply["jsonrpc"] == "2.0" && reply["id"] == 1 && reply.contains("result") &&
                accept(reply["result"]) == expected,
            "the reply of " + server.name + " to " + line);
    server.replySizes[line] = {.bytes = text.size()};
}

/// A tool's text is JSON inside JSON, and the order of its members is not promised.
json toolText(json& result) {
    if (result["isError"] != false || result["content"].size() != 1) return nullptr;
    return json::parse(result["content"][0]["text"].get_ref<const std::string&>());
}

/// How much longer a text becomes inside a JSON string. Canned texts have no control characters.
std::size_t escapedSize(const std::string& text) {
    const auto escapes =
        std::count_if(text.begin(), text.end(), [](char c) { return c == '"' || c == '\\'; });
    return text.size() + static_cast<std::size_t>(escapes);
}

}  // namespace

const std::string initializeRequest =
    request(R"(initialize","params":{"protocolVersion":"2025-11-25","capabilities":{},)"
            R"("clientInfo":{"name":"bench","version":"1"}})");
const std::string pingRequest = request(R"(ping")");
const std::string listRequest = request(R"(tools/list","params":{})");

std::string callRequest(std::string_view tool) {
    return request(R"(tools/call","params":{"name":")" + std::string(tool) +
                   R"(","arguments":{"repoId":"r1","limit":20,"includeArchived":false}})");
}

std::string callRequest(std::size_t size) { return callRequest("reply_" + std::to_string(size)); }

const std::string smallCall = callRequest("get_repository");

bool Server::isReply(const std::string& line, std::size_t size) const {
    const ReplySize& expected = replySizes.at(line);
    return size >= expected.bytes && size <= expected.bytes + expected.tolerance;
}

std::string ask(const Server& server, const std::string& line) {
    Client client(server.command);
    client.keep();
    client.write(line);
    client.readReply();
    return client.kept();
}

void compareReplies(std::vector<Server>& servers) {
    // The first server's handshake and list are the reference; the program's own tests check them. The version
    // may differ, so that versions can be compared.
    const auto withoutVersion = [](json result) {
        if (result.contains("serverInfo")) result["serverInfo"].erase("version");
        return result;
    };
    for (const std::string& line : {initializeRequest, pingRequest, listRequest}) {
        const json expected = withoutVersion(json::parse(ask(servers.front(), line))["result"]);
        for (Server& server : servers) compare(server, line, expected, withoutVersion);
    }
    compareCalls(servers, "get_repository");
    for (const std::size_t size : {megabyte, 8 * megabyte})
        compareCalls(servers, "reply_" + std::to_string(size));
}

void compareCalls(std::vector<Server>& servers, const std::string& tool) {
    const json expected = std::move(json::parse(cannedAnswer(tool))["result"]);
    for (Server& server : servers) {
        compare(server, callRequest(tool), expected, [&server](json& result) {
            return server.isFloor ? std::move(result["result"]) : toolText(result);
        });
    }
}

void expectLargeReply(Server& server, std::size_t size) {
    const std::string result = cannedResult(size);
    const std::size_t bytes = server.isFloor ? result.size() : escapedSize(result);
    // Tolerance for the envelope, and because not every writer finds the shortest form of every double.
    server.replySizes[callRequest(size)] = {.bytes = bytes, .tolerance = 200 + bytes / 1000};
}

std::optional<std::string> findTooLarge(const Server& server, std::size_t size) {
    constexpr int seconds = 30;
    const std::string line = callRequest(size);
    try {
        Client client(server.command);
        client.write(line);
        if (!client.waitForOutput(seconds)) return "more than " + std::to_string(seconds) + " s";
        if (!server.isReply(line, client.readReply())) return "another reply";
        return std::nullopt;
    } catch (const std::exception& error) {
        return error.what();
    }
}

}  // namespace tidewell::bench
