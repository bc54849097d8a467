#include "StdioBridge.hpp"

#include "ByteBuffer.hpp"
#include "Catalog.hpp"
#include "JSONReader.hpp"
#include "LineBuffer.hpp"
#include "MCPError.hpp"
#include "Worker.hpp"

#include <poll.h>

#include <array>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <exception>
#include <new>
#include <string>
#include <utility>

namespace tidewell {

namespace {

// JSON-RPC 2.0's codes for what is wrong before any handler runs.
constexpr std::int64_t parseError = -32700;
constexpr std::int64_t methodNotFound = -32601;
constexpr std::int64_t unclassifiedError = -32603;

/// Whether a method is carried out for a message that will not be answered.
enum class WithoutId : std::uint8_t { skipped, run };

/// Where a method is carried out: what talks to the host app blocks, so that is done on the worker, the reply
/// included. Waking this thread first would put one more change of threads between a reply and the client.
enum class Place : std::uint8_t { here, worker };

Worker& exchangeWorker() {
    static Worker worker;
    return worker;
}

/// A buffer that is kept for the next line.
ByteBuffer& emptyLine() {
    thread_local ByteBuffer line;
    line.clear();
    return line;
}

bool waitUntilWritable(int descriptor) {
    pollfd wanted{.fd = descriptor, .events = POLLOUT, .revents = 0};
    return ::poll(&wanted, 1, -1) >= 0 || errno == EINTR;
}

void writeAll(std::string_view rest, int output) {
    while (!rest.empty()) {
        const ssize_t count = ::write(output, rest.data(), rest.size());
        if (count > 0) {
            rest.remove_prefix(static_cast<std::size_t>(count));
            continue;
        }
        if (count == 0) return;  // no error to wait for, no progress to hope for
        if (errno == EINTR) continue;
        if ((errno != EAGAIN && errno != EWOULDBLOCK) || !waitUntilWritable(output)) return;
    }
}

/// Writes the line out; its memory is kept for the next one, unless it became unusually large.
void finishLine(ByteBuffer& line, int output) {
    constexpr std::size_t keptCapacity = 1 << 20;
    line.append('\n');
    writeAll(line.view(), output);
    if (line.capacity() > keptCapacity) line = {};
}

}  // namespace

void emitLine(const JSONValue& value, int output) {
    ByteBuffer& line = emptyLine();
    value.writeJSON(line);
    finishLine(line, output);
}

void emitLine(std::initializer_list<JSONValue::Member> members, int output) {
    ByteBuffer& line = emptyLine();
    JSONValue::writeJSON(members, line);
    finishLine(line, output);
}

/// One method, one row. A handler of none: the method is known, does nothing and is never answered.
struct StdioBridge::MethodRow {
    std::string_view name;
    JSONValue (*handler)(const StdioBridge& bridge, const JSONValue& params);
    WithoutId withoutId;
    Place place = Place::here;
};

const StdioBridge::MethodRow* StdioBridge::findMethod(std::string_view name) noexcept {
    using Bridge = const StdioBridge&;
    using Params = const JSONValue&;
    static constexpr auto emptyObject = [](Bridge, Params) { return JSONValue::object({}); };
    static constexpr auto endProcess = [](Bridge, Params) -> JSONValue { std::exit(EXIT_SUCCESS); };

    // clang-format off
    static constexpr MethodRow rows[] = {
        {"initialize",                [](Bridge, Params params) { return handleInitialize(params); },                                  WithoutId::skipped},
        {"initialized",               nullptr,                                                                                         WithoutId::skipped},
        {"notifications/initialized", nullptr,                                                                                         WithoutId::skipped},
        {"ping",                      emptyObject,                                                                                     WithoutId::skipped},
        {"tools/list",                [](Bridge, Params) { return JSONValue::object({{"tools", Catalog::tools()}}); },                 WithoutId::skipped},
        {"resources/list",            [](Bridge, Params) { return JSONValue::object({{"resources", Catalog::resources()}}); },         WithoutId::skipped},
        {"resources/templates/list",  [](Bridge, Params) { return JSONValue::object({{"resourceTemplates", JSONValue::array({})}}); }, WithoutId::skipped},
        {"prompts/list",              [](Bridge, Params) { return JSONValue::object({{"prompts", Catalog::prompts()}}); },             WithoutId::skipped},
        {"tools/call",                [](Bridge bridge, Params params) { return bridge.handleToolCall(params); },                      WithoutId::run, Place::worker},  // its side effects still happen
        {"resources/read",            [](Bridge bridge, Params params) { return bridge.handleResourceRead(params); },                  WithoutId::run, Place::worker},
        {"prompts/get",               [](Bridge bridge, Params params) { return bridge.handlePromptGet(params); },                     WithoutId::run},
        {"shutdown",                  [](Bridge, Params) { return JSONValue(); },                                                      WithoutId::skipped},  // only "exit" and the end of input end the process
        {"exit",                      endProcess,                                                                                      WithoutId::run},
    };
    // clang-format on
    for (const MethodRow& row : rows) {
        if (row.name == name) return &row;
    }
    return nullptr;
}

StdioBridge::StdioBridge(SocketClient socket, int input, int output)
    : socket_(std::move(socket)), input_(input), output_(output) {}

void StdioBridge::run() {
    std::array<char, 4096> chunk{};
    LineBuffer buffer;
    for (;;) {
        const ssize_t count = ::read(input_, chunk.data(), chunk.size());
        if (count <= 0) return;
        try {
            buffer.append({chunk.data(), static_cast<std::size_t>(count)});
        } catch (const std::bad_alloc& error) {
            // A line that memory cannot hold is answered like one that cannot be read, and the next one counts.
            buffer.dropLine();
            writeInternalError(nullptr, error);
            // Its end may lie in this very piece, and what follows counts.
            buffer.append({chunk.data(), static_cast<std::size_t>(count)});
        }
        while (const auto line = buffer.nextLine()) {
            if (!line->empty()) handleLine(*line);
        }
    }
}

void StdioBridge::handleLine(std::string_view line) const {
    try {
        handleMessage(readJSON(line));
    } catch (const JSONError&) {
        writeError(nullptr, parseError, "Parse error");
    } catch (const std::exception& error) {
        writeInternalError(nullptr, error);  // out of memory: not even the id is certain
    }
}

void StdioBridge::handleMessage(JSONValue message) const {
    if (message.kind() != JSONValue::Case::object) return writeError(nullptr, parseError, "Parse error");

    // The "jsonrpc" member is ignored on purpose, like every member not named here.
    std::optional<JSONValue> given = message.take("params");
    const bool isStructured =
        given && (given->kind() == JSONValue::Case::object || given->kind() == JSONValue::Case::array);
    const JSONValue params = isStructured ? JSONValue::from(std::move(given)) : JSONValue();
    const JSONValue* const named = message.find("method");
    const std::string_view method = named == nullptr ? "" : named->string().value_or("");
    const JSONValue* const id = message.find("id");
    const bool isNotification = id == nullptr || id->isNull();

    const MethodRow* const row = findMethod(method);
    if (row == nullptr) {
        if (!isNotification) writeError(id, methodNotFound, "Method not found: " + std::string(method));
        return;
    }
    if (row->handler == nullptr || (isNotification && row->withoutId == WithoutId::skipped)) return;

    const auto answer = [&] {
        try {
            JSONValue result = row->handler(*this, params);
            if (!isNotification) writeResult(id, std::move(result));
        } catch (const MCPError& error) {
            if (!isNotification) writeError(id, error.code(), error.message());
        } catch (const std::exception& error) {
            if (!isNotification) writeInternalError(id, error);
        }
    };
    if (row->place == Place::worker) {
        exchangeWorker().run(answer);
    } else {
        answer();
    }
}

void StdioBridge::writeResult(const JSONValue* id, JSONValue result) const {
    // Made once: in a ping these words would be a tenth of the work.
    static const std::array<JSONValue, 4> words = {"jsonrpc", "2.0", "id", "result"};
    emitLine({{words[0], words[1]}, {words[2], idToJSON(id)}, {words[3], std::move(result)}}, output_);
}

void StdioBridge::writeError(const JSONValue* id, std::int64_t code, std::string_view message) const {
    emitLine({{"jsonrpc", "2.0"},
              {"id", idToJSON(id)},
              {"error", JSONValue::object({{"code", code}, {"message", message}})}},
             output_);
}

void StdioBridge::writeInternalError(const JSONValue* id, const std::exception& error) const {
    writeError(id, unclassifiedError, std::string("Internal error: ") + error.what());
}

/// The id as it is echoed: integers and strings as they are, other numbers cut toward zero, booleans as 1 and
/// 0, anything else as null.
JSONValue StdioBridge::idToJSON(const JSONValue* id) {
    if (id == nullptr) return nullptr;
    if (const auto boolean = id->boolean()) return *boolean ? 1 : 0;
    if (const auto number = id->number()) {
        // Ids are 64-bit integers here, and one that was cut or rounded to fit would answer a request that was
        // never made: the process ends instead, with nothing written.
        const auto whole = exactInteger(std::trunc(*number));
        if (!whole) std::abort();
        return *whole;
    }
    if (id->integer() || id->string()) return *id;
    return nullptr;
}

}  // namespace tidewell
