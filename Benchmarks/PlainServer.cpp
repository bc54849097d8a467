// PlainServer.cpp: the server as one would write it in an afternoon on a popular JSON library that builds a
// tree: every message is parsed to a tree, every reply is built as one and dumped. It behaves like the real
// program in what SideBySide.cpp asks, and is neither slowed down nor tuned.
//
//   PlainServer FILE     FILE holds a tools/list reply, from which the tool table is taken
#include <nlohmann/json.hpp>

#include <fcntl.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <utility>

namespace {

using nlohmann::json;

void writeAll(int descriptor, const std::string& text) {
    for (std::size_t done = 0; done < text.size();) {
        const ssize_t count = ::write(descriptor, text.data() + done, text.size() - done);
        if (count <= 0) throw std::runtime_error("write failed");
        done += static_cast<std::size_t>(count);
    }
}

void emitLine(const json& message) { writeAll(STDOUT_FILENO, message.dump() + "\n"); }

std::string readVersion() {
    const auto parent = [](const std::string& path) { return path.substr(0, path.rfind('/')); };
    std::array<char, 4096> path{};
    const ssize_t length = ::readlink("/proc/self/exe", path.data(), path.size());
    if (length <= 0) return "0.0.0-dev";
    std::ifstream file(parent(parent(std::string(path.data(), static_cast<std::size_t>(length)))) +
                       "/Info.plist");
    const std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    const auto key = text.find("<key>CFBundleShortVersionString</key>");
    const auto begin = text.find("<string>", key);
    if (key == std::string::npos || begin == std::string::npos) return "0.0.0-dev";
    return text.substr(begin + 8, text.find("</string>", begin) - begin - 8);
}

json initializeResult(const json& params) {
    static const std::string version = readVersion();
    return {{"protocolVersion", params.value("protocolVersion", "2025-11-25")},
            {"capabilities",
             {{"tools", json::object()}, {"resources", json::object()}, {"prompts", json::object()}}},
            {"serverInfo", {{"name", "Tidewell"}, {"version", version}}},
            {"instructions",
             "Read tools (L0) work directly. To mutate: call a propose_* tool, ask the user to "
             "confirm in Tidewell → Agent Review to get a confirmationToken, then call the "
             "apply/git tool with that token. Dangerous git is always blocked."}};
}

std::string randomId() {
    std::array<unsigned char, 16> bytes{};
    if (::getentropy(bytes.data(), bytes.size()) != 0) throw std::runtime_error("no random bytes");
    std::string text;
    for (std::size_t at = 0; at < bytes.size(); ++at) {
        if (at == 4 || at == 6 || at == 8 || at == 10) text += '-';
        text += "0123456789ABCDEF"[bytes[at] >> 4];
        text += "0123456789ABCDEF"[bytes[at] & 15];
    }
    return text;
}

/// The numbers 1 and 0 become booleans.
void convertNumbers(json& value) {
    if (value.is_number() && (value == 1 || value == 0)) value = value == 1;
    if (value.is_structured()) {
        for (json& element : value) convertNumbers(element);
    }
}

json forward(const json& envelope) {
    const char* const path = std::getenv("TIDEWELL_SOCKET_PATH");
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::string(path == nullptr ? "" : path).copy(address.sun_path, sizeof address.sun_path - 1);
    const int connection = ::socket(AF_UNIX, SOCK_STREAM, 0);
    if (::connect(connection, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        ::close(connection);
        throw std::runtime_error("not running");
    }
    const timeval limit{.tv_sec = 120, .tv_usec = 0};
    ::setsockopt(connection, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    ::setsockopt(connection, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    writeAll(connection, envelope.dump() + "\n");

    std::string received;
    std::array<char, 4096> chunk{};
    std::size_t end = std::string::npos;
    while (end == std::string::npos) {
        const ssize_t count = ::read(connection, chunk.data(), chunk.size());
        if (count <= 0) break;
        const std::size_t before = received.size();
        received.append(chunk.data(), static_cast<std::size_t>(count));
        end = received.find('\n', before);
    }
    ::close(connection);
    if (end == std::string::npos) throw std::runtime_error("no response");
    received.resize(end);
    return json::parse(received);
}

json toolResult(const json& value, bool isError) {
    return {{"content", json::array({{{"type", "text"}, {"text", value.dump()}}})}, {"isError", isError}};
}

json callTool(const json& params) {
    try {
        const json reply = forward({{"tool", params.at("name")},
                                    {"args", params.value("arguments", json::object())},
                                    {"requestId", randomId()}});
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
    emitLine(reply);
}

}  // namespace

int main(int argumentCount, char* arguments[]) {
    if (argumentCount != 2) return 2;
    std::ifstream file(arguments[1]);
    const json tools = json::parse(file)["result"]["tools"];

    std::string buffer;
    std::array<char, 4096> chunk{};
    for (;;) {
        const ssize_t count = ::read(STDIN_FILENO, chunk.data(), chunk.size());
        if (count <= 0) return 0;
        buffer.append(chunk.data(), static_cast<std::size_t>(count));
        std::size_t begin = 0;
        for (std::size_t end = 0; (end = buffer.find('\n', begin)) != std::string::npos; begin = end + 1) {
            if (end > begin) handleLine(buffer.substr(begin, end - begin), tools);
        }
        buffer.erase(0, begin);
    }
}
