// FuzzConversation.cpp: a whole input stream through the read loop and the method table, without a host app.
#include "Stage.hpp"
#include "Support/Judge.hpp"
#include "Target.hpp"

#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <random>
#include <thread>
#include <utility>
#include <vector>

namespace {

using namespace tidewell;
using namespace tidewell::fuzzing;
using nlohmann::json;
using test::judge;

constexpr const char* noHost = "/nonexistent/host.sock";

bool isRequest(const json& message) {
    const auto id = message.find("id");
    return id != message.end() && !id->is_null();
}

std::string methodOf(const json& message) {
    const auto method = message.find("method");
    return method != message.end() && method->is_string() ? method->get<std::string>() : "";
}

std::optional<std::string> stringParameter(const json& message, const char* name) {
    const auto params = message.find("params");
    if (params == message.end() || !params->is_object()) return std::nullopt;
    const auto value = params->find(name);
    if (value == params->end() || !value->is_string()) return std::nullopt;
    return value->get<std::string>();
}

/// Two kinds of message end the process: "exit", and an id outside 64 bits that would be echoed.
bool endsProcess(const json& message) {
    const std::string method = methodOf(message);
    if (method == "exit") return true;
    const auto id = message.find("id");
    return id != message.end() && id->is_number_float() &&
           std::abs(id->get<double>()) >= 9223372036854775808.0;
}

struct Plan {
    /// Up to the first line that would end the process.
    std::string_view input;
    /// For each reply, the message it answers; nothing for a parse error.
    std::vector<std::optional<json>> expected;
};

Plan planFor(std::string_view stream) {
    Plan plan;
    std::size_t start = 0;
    std::size_t end = stream.find('\n');
    for (; end != std::string_view::npos; start = end + 1, end = stream.find('\n', start)) {
        const std::string_view line = stream.substr(start, end - start);
        if (line.empty()) continue;
        std::optional<json> message = judge(line);
        if (message && message->is_object()) {
            if (endsProcess(*message)) break;
            const std::string method = methodOf(*message);
            const bool isSilent = method == "initialized" || method == "notifications/initialized";
            if (isRequest(*message) && !isSilent) plan.expected.push_back(std::move(message));
        } else {
            plan.expected.emplace_back();
        }
    }
    // What follows the last line feed stays, because the server must ignore it; a line that ends the process goes.
    plan.input = end == std::string_view::npos ? stream : stream.substr(0, start);
    return plan;
}

bool echoes(const json& echoed, const json& id) {
    if (id.is_boolean()) return echoed == (id.get<bool>() ? 1 : 0);
    if (id.is_number_float())
        return echoed.is_number_integer() && echoed.get<double>() == std::trunc(id.get<double>());
    if (id.is_number() || id.is_string()) return echoed == id;
    return echoed.is_null();
}

json failure(int code, const std::string& message) {
    return {{"error", {{"code", code}, {"message", message}}}};
}

json toolFailure(const char* code, const char* message) {
    const json text = {{"error", {{"code", code}, {"message", message}}}};
    return {{"result", {{"content", {{{"type", "text"}, {"text", text}}}}, {"isError", true}}}};
}

/// The result or error that a request must get, unless it comes from the catalog.
std::optional<json> outcomeOf(const json& message) {
    const std::string method = methodOf(message);
    const auto name = stringParameter(message, "name");
    if (method == "ping") return json{{"result", json::object()}};
    if (method == "shutdown") return json{{"result", nullptr}};
    if (method == "resources/templates/list") return json{{"result", {{"resourceTemplates", json::array()}}}};
    if (method == "tools/call") {
        if (!name) return toolFailure("invalid_params", "`name` is required");
        return toolFailure("app_not_running", "Tidewell is not running — start the app to use this tool.");
    }
    if (method == "resources/read") {
        if (!stringParameter(message, "uri")) return failure(-32602, "`uri` is required for resources/read");
        return failure(-32000, std::string("could not connect to tidewell-agent.sock at ") + noHost +
                                   " — is Tidewell running?");
    }
    if (method == "prompts/get") {
        constexpr std::array known = {"map_github_to_local",       "cleanup_today",
                                      "review_project_health",     "prepare_weekly_report",
                                      "find_missing_repositories", "fix_mapping_conflicts"};
        if (!name) return failure(-32602, "`name` is required for prompts/get");
        if (std::ranges::find(known, *name) != known.end()) return std::nullopt;
        return failure(-32001, "unknown prompt `" + *name + "`");
    }
    for (const char* const fromCatalog : {"initialize", "tools/list", "resources/list", "prompts/list"}) {
        if (method == fromCatalog) return std::nullopt;
    }
    return failure(-32601, "Method not found: " + method);
}

/// For the methods whose results are tables or texts, only the shape is checked.
bool hasCatalogShape(const json& message, const json& result) {
    const std::string method = methodOf(message);
    if (method == "initialize") {
        return result.size() == 4 && result["serverInfo"]["name"] == "Tidewell" &&
               result["protocolVersion"] ==
                   stringParameter(message, "protocolVersion").value_or("2025-11-25");
    }
    if (method == "prompts/get") return result.size() == 1 && result["messages"].size() == 1;
    const std::string table = method.substr(0, method.find('/'));
    const std::size_t rows = table == "tools" ? 60 : table == "resources" ? 9 : 6;
    return result.size() == 1 && result[table].is_array() && result[table].size() == rows;
}

void checkReply(std::string_view line, const std::optional<json>& message) {
    std::optional<json> reply = judge(line, test::Text::written);
    require(reply && reply->is_object() && reply->size() == 3 && (*reply)["jsonrpc"] == "2.0" &&
                reply->contains("id"),
            "a reply is one JSON-RPC object", line);
    json outcome = *reply;
    outcome.erase("jsonrpc");
    outcome.erase("id");
    if (!message) {
        require((*reply)["id"].is_null() && outcome == failure(-32700, "Parse error"),
                "a line that is no object gets a parse error", line);
        return;
    }
    require(echoes((*reply)["id"], message->at("id")), "the id is echoed", line);
    if (const std::optional<json> expected = outcomeOf(*message)) {
        require(test::opened(outcome) == *expected, "a request gets its own answer", line);
    } else {
        require(outcome.contains("result") && hasCatalogShape(*message, outcome["result"]),
                "the catalog is served whole", line);
    }
}

/// What the bridge writes when its input arrives in packets of random sizes: each read gets one.
std::string outputInPackets(const Stage& stage, std::string_view input) {
    std::array<int, 2> ends{};
    if (::socketpair(AF_UNIX, SOCK_DGRAM, 0, ends.data()) != 0) std::abort();
    std::thread writer([input, end = ends[1]] {
        // The input itself is the seed, so that a run can be repeated.
        std::minstd_rand random(static_cast<unsigned>(std::hash<std::string_view>()(input)));
        constexpr std::size_t fewBytes = 64;
        constexpr std::size_t largestPacket = 1024;
        const std::size_t largest = input.size() <= fewBytes ? 1 : std::min(input.size() / 8, largestPacket);
        for (std::string_view rest = input; !rest.empty();) {
            const std::size_t size = std::min<std::size_t>(1 + random() % largest, rest.size());
            if (::send(end, rest.data(), size, 0) <= 0) return;
            rest.remove_prefix(size);
        }
        ::send(end, "", 0, 0);  // an empty packet reads like the end of input
    });
    std::string output = stage.outputFrom(ends[0]);
    writer.join();
    for (const int end : ends) ::close(end);
    return output;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const Stage stage(noHost);
    const Plan plan = planFor(textOf(data, size));
    const std::string output = stage.outputFor(plan.input);
    std::string_view rest = output;
    for (const std::optional<json>& message : plan.expected) {
        const std::size_t end = rest.find('\n');
        require(end != std::string_view::npos, "every request gets a reply", output);
        checkReply(rest.substr(0, end), message);
        rest.remove_prefix(end + 1);
    }
    require(rest.empty(), "nothing is written unasked", rest);
    require(outputInPackets(stage, plan.input) == output, "how the input was cut cannot be seen", output);
    return 0;
}
