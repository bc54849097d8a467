#include "SoakLoad.hpp"

#include "Judge.hpp"

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <utility>

namespace tidewell::test {

using nlohmann::json;

namespace {

json readGolden(const std::string& kind) {
    std::vector<std::filesystem::path> paths;
    for (const auto& entry : std::filesystem::directory_iterator(GOLDEN_PATH "/" + kind))
        paths.push_back(entry.path());
    std::ranges::sort(paths);
    json entries = json::array();
    for (const auto& path : paths) entries.push_back(json::parse(std::ifstream(path)));
    return entries;
}

std::string stringOr(const json& object, const char* key, std::string otherwise) {
    return object.is_object() && object.contains(key) && object[key].is_string() ? object[key]
                                                                                 : json(otherwise);
}

json result(json value) { return {{"result", std::move(value)}}; }
json error(int code, const std::string& message) {
    return {{"error", {{"code", code}, {"message", message}}}};
}
/// The text is given as the value that it must encode (see opened()).
json toolResult(json text, bool isError) {
    json item = {{"type", "text"}, {"text", std::move(text)}};
    return result({{"content", json::array({std::move(item)})}, {"isError", isError}});
}
json toolFailure(const std::string& code, const std::string& message) {
    return toolResult({{"error", {{"code", code}, {"message", message}}}}, true);
}

bool isSuccess(const json& reply) {
    return reply.is_object() && reply.contains("ok") && reply["ok"] == json(true);
}
json dataOf(const json& reply) { return reply.value("result", json::object()); }
json recordOf(const json& reply) { return reply.is_object() ? reply.value("error", json()) : json(); }

json toolOutcome(const Exchange& exchange) {
    switch (exchange.end) {
    case Exchange::End::replied: break;
    case Exchange::End::unreadable: return toolFailure("error", exchange.reason);
    case Exchange::End::unanswered:
    case Exchange::End::hungUp:
    case Exchange::End::absent:
        return toolFailure("app_not_running", "Tidewell is not running — start the app to use this tool.");
    }
    if (isSuccess(exchange.reply)) return toolResult(dataOf(exchange.reply), false);
    const json record = recordOf(exchange.reply);
    json shown = {{"code", stringOr(record, "code", "error")},
                  {"message", stringOr(record, "message", "unknown error")}};
    if (record.is_object() && record.contains("hint") && record["hint"].is_string())
        shown["hint"] = record["hint"];
    return toolResult({{"error", std::move(shown)}}, true);
}

std::vector<json> resourceOutcomes(const Exchange& exchange, const std::string& uri,
                                   const std::string& socketPath) {
    const json unanswered = error(-32000, "no response from Tidewell within 120s (app busy or stalled)");
    switch (exchange.end) {
    case Exchange::End::replied: break;
    case Exchange::End::unreadable: return {error(-32603, "Internal error: " + exchange.reason)};
    case Exchange::End::unanswered: return {unanswered};
    // The host app may be gone before the request is written, or only when the reply is read: both are right.
    case Exchange::End::hungUp:
        return {unanswered, error(-32000, "socket write failed: errno=" + std::to_string(EPIPE)),
                error(-32000, "socket write failed: errno=" + std::to_string(ECONNRESET))};
    case Exchange::End::absent:
        return {error(-32000, "could not connect to tidewell-agent.sock at " + socketPath +
                                  " — is Tidewell running?")};
    }
    if (!isSuccess(exchange.reply))
        return {error(-32000, stringOr(recordOf(exchange.reply), "message", "resource unavailable"))};
    json item = {{"uri", uri}, {"mimeType", "application/json"}, {"text", dataOf(exchange.reply)}};
    return {result({{"contents", json::array({std::move(item)})}})};
}

}  // namespace

struct SoakLoad::Row {
    std::size_t weight;
    Request (SoakLoad::*make)();
};

const SoakLoad::Row SoakLoad::rows[] = {
    {12, &SoakLoad::ping},         {2, &SoakLoad::shutdown},
    {1, &SoakLoad::tools},         {2, &SoakLoad::resources},
    {2, &SoakLoad::templates},     {2, &SoakLoad::prompts},
    {3, &SoakLoad::initialize},    {2, &SoakLoad::initialized},
    {3, &SoakLoad::unknownMethod}, {1, &SoakLoad::noMethod},
    {8, &SoakLoad::broken},        {2, &SoakLoad::nothing},
    {36, &SoakLoad::toolCall},     {2, &SoakLoad::toolCallWithoutName},
    {12, &SoakLoad::resourceRead}, {2, &SoakLoad::resourceReadWithoutURI},
    {5, &SoakLoad::prompt},        {1, &SoakLoad::promptWithoutName},
};

SoakLoad::SoakLoad(RandomJSON& random, SoakHost& host)
    : random_(random),
      host_(host),
      tools_(readGolden("tools")),
      resources_(readGolden("resources")),
      prompts_(readGolden("prompts")) {}

Request SoakLoad::next() { return (this->*pick(rows, random_).make)(); }

Request SoakLoad::closingPing() {
    const int id = ++lastId_;
    return {json{{"id", id}, {"method", "ping"}}.dump(),
            {{{"jsonrpc", "2.0"}, {"id", id}, {"result", json::object()}}}};
}

/// A message with a random id or none, and the answer that it must get if it has one.
Request SoakLoad::message(const json& method, const std::optional<json>& params,
                          const std::vector<json>& outcomes) {
    json message = {{"method", method}};
    if (params) message["params"] = *params;
    if (random_.chance(90)) message["jsonrpc"] = random_.chance(95) ? "2.0" : "1.0";
    if (random_.chance(3)) message["_meta"] = random_.value(2);
    if (isHuge(random_)) message["padding"] = hugeText(random_);
    const std::optional<json> echo = addId(message);

    Request request{message.dump()};
    if (random_.chance(3)) request.line = " \t" + request.line + "\r";
    for (const json& outcome : outcomes) {
        if (!echo) break;
        request.replies.push_back(outcome);
        request.replies.back().update({{"jsonrpc", "2.0"}, {"id", *echo}});
    }
    return request;
}

/// Returns the id as the reply must carry it; nothing if there must be no reply.
std::optional<json> SoakLoad::addId(json& message) {
    const int number = ++lastId_;
    json& id = message["id"];
    switch (random_.upTo(29)) {
    case 0: return id = "№ " + std::to_string(number) + random_.string();
    case 1: id = number + 0.5; return number;
    case 2: id = -number - 0.5; return -number;
    case 3: id = random_.chance(50); return id.get<bool>() ? 1 : 0;
    case 4: id = json::array({number}); return json();
    case 5: id = {{"id", number}}; return json();
    case 6: return id = -number;
    case 7: return id = INT64_MAX - number;
    case 8: id = nullptr; return std::nullopt;
    case 9:
    case 10: message.erase("id"); return std::nullopt;
    default: return id = number;
    }
}

Request SoakLoad::ping() { return message("ping", anyParams(), {result(json::object())}); }
Request SoakLoad::shutdown() { return message("shutdown", anyParams(), {result(nullptr)}); }
Request SoakLoad::tools() { return message("tools/list", {}, {result({{"tools", tools_}})}); }
Request SoakLoad::resources() {
    return message("resources/list", json{{"cursor", "x"}}, {result({{"resources", resources_}})});
}

Request SoakLoad::templates() {
    return message("resources/templates/list", anyParams(), {result({{"resourceTemplates", json::array()}})});
}

Request SoakLoad::prompts() {
    json entries = json::array();
    for (const json& prompt : prompts_) entries.push_back(prompt["entry"]);
    return message("prompts/list", {}, {result({{"prompts", std::move(entries)}})});
}

Request SoakLoad::initialize() {
    json params = {{"capabilities", json::object()}};
    if (random_.chance(70)) params["protocolVersion"] = random_.chance(80) ? json(random_.string()) : json(2);
    const std::string version = stringOr(params, "protocolVersion", "2025-11-25");
    return message(
        "initialize", params,
        {result({{"protocolVersion", version},
                 {"serverInfo", {{"name", "Tidewell"}, {"version", TIDEWELL_VERSION}}},
                 {"capabilities",
                  {{"tools", json::object()}, {"resources", json::object()}, {"prompts", json::object()}}},
                 {"instructions",
                  "Read tools (L0) work directly. To mutate: call a propose_* tool, ask the "
                  "user to confirm in Tidewell → Agent Review to get a confirmationToken, then call "
                  "the apply/git tool with that token. Dangerous git is always blocked."}})});
}

Request SoakLoad::initialized() {
    return message(random_.chance(50) ? "initialized" : "notifications/initialized", anyParams(), {});
}

Request SoakLoad::unknownMethod() {
    const std::string name = "no/" + random_.string();
    return message(name, anyParams(), {error(-32601, "Method not found: " + name)});
}

Request SoakLoad::noMethod() { return message(nullptr, anyParams(), {error(-32601, "Method not found: ")}); }

Request SoakLoad::broken() {
    static const std::string lines[] = {
        // clang-format off
        "not json", "   ", "null", "1", "\"text\"", "[]",
        "[{\"jsonrpc\":\"2.0\",\"id\":1,\"method\":\"ping\"}]",
        "{\"id\":1,\"method\":\"ping\"} {}",
        "{'id':1}",
        "{\"id\":1,\"method\":\"ping\",}",
        "{\"id\":01,\"method\":\"ping\"}",
        "{\"id\":1,\"method\":\"pi\tng\"}",
        "{\"id\":1,\"method\":\"\\ud800\"}",
        std::string(1000, '['),
        std::string(3, '\0'),
        // clang-format on
    };
    Request request{lines[random_.upTo(std::size(lines) - 1)]};
    if (random_.chance(50)) {  // a good line, cut or with a byte that is not UTF-8
        request.line = json{{"id", 1}, {"method", "ping"}, {"params", random_.value(3)}}.dump();
        const std::size_t at = 1 + random_.upTo(request.line.size() - 2);
        if (random_.chance(50)) {
            request.line.resize(at);
        } else {
            request.line[at] = '\xFF';
        }
    }
    if (isHuge(random_)) request.line += json(hugeText(random_)).dump();
    request.replies = {error(-32700, "Parse error")};
    request.replies[0].update({{"jsonrpc", "2.0"}, {"id", nullptr}});
    return request;
}

Request SoakLoad::nothing() { return {""}; }

Request SoakLoad::toolCall() {
    const std::string name = random_.chance(80) ? anyOf(tools_)["name"] : json(random_.string());
    json params = {{"name", name}};
    if (random_.chance(90)) params["arguments"] = random_.value(3);
    if (isHuge(random_)) params["arguments"] = {{"text", hugeText(random_)}};
    const Exchange exchange = host_.expect(name, withBooleans(params.value("arguments", json::object())));
    return message("tools/call", params, {toolOutcome(exchange)});
}

Request SoakLoad::toolCallWithoutName() {
    return message("tools/call", paramsWithout("name"),
                   {toolFailure("invalid_params", "`name` is required")});
}

Request SoakLoad::resourceRead() {
    const std::string uri = random_.chance(80) ? anyOf(resources_)["uri"] : json(random_.string());
    const Exchange exchange = host_.expect("resources/read", {{"uri", uri}});
    return message("resources/read", json{{"uri", uri}}, resourceOutcomes(exchange, uri, host_.socketPath()));
}

Request SoakLoad::resourceReadWithoutURI() {
    return message("resources/read", paramsWithout("uri"),
                   {error(-32602, "`uri` is required for resources/read")});
}

Request SoakLoad::prompt() {
    const json prompt = anyOf(prompts_);
    const std::string name = prompt["entry"]["name"];
    if (random_.chance(20)) {
        return message("prompts/get", json{{"name", "Not_" + name}},
                       {error(-32001, "unknown prompt `Not_" + name + "`")});
    }
    return message("prompts/get", json{{"name", name}}, {result({{"messages", prompt["messages"]}})});
}

Request SoakLoad::promptWithoutName() {
    return message("prompts/get", paramsWithout("name"),
                   {error(-32602, "`name` is required for prompts/get")});
}

std::optional<json> SoakLoad::anyParams() {
    if (random_.chance(60)) return std::nullopt;
    return random_.value(2);
}

std::optional<json> SoakLoad::paramsWithout(const char* key) {
    switch (random_.upTo(3)) {
    case 0: return std::nullopt;
    case 1: return random_.value(2);  // its keys are different
    case 2: return json{{key, 5}};
    default: return json{{"other", "text"}};
    }
}

}  // namespace tidewell::test
