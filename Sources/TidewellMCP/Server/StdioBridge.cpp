#include "Server/StdioBridge.hpp"

#include "Base/LineBuffer.hpp"
#include "Base/MCPError.hpp"
#include "Base/Platform.hpp"
#include "JSON/JSONValue.hpp"
#include "JSON/JSONWriter.hpp"

#include <poll.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <new>
#include <optional>
#include <string>
#include <utility>

namespace tidewell {

namespace {

std::string internalErrorMessage(const std::exception& error) {
    return std::string("Internal error: ") + error.what();
}

bool waitUntilWritable(int descriptor) {
    pollfd wanted{.fd = descriptor, .events = POLLOUT, .revents = 0};
    return ::poll(&wanted, 1, -1) >= 0 || errno == EINTR;
}

void writeAll(std::string_view rest, int output) {
    while (!rest.empty()) {
        const ssize_t count = Platform::writeBytes(output, rest);
        if (count > 0) {
            rest.remove_prefix(static_cast<std::size_t>(count));
            continue;
        }
        if (count == 0) return;  // neither an error nor progress: give up
        if (errno == EINTR) continue;
        static_assert(EAGAIN == EWOULDBLOCK);
        if (errno != EAGAIN || !waitUntilWritable(output)) return;
    }
}

/// The text of `value` if that is a string, else nothing. Decoded in `place` if it has escapes.
std::string_view textOf(std::string_view value, std::string& place) {
    if (!value.starts_with('"')) return {};
    if (value.find('\\') == value.npos) return value.substr(1, value.size() - 2);
    return *JSONReader(value).readString(place);
}

/// A number cut toward zero; nothing when that does not fit 64 bits.
std::optional<std::int64_t> integerIn(std::string_view number) {
    const std::optional<std::int64_t> rounded = JSONValue::decode(number).integer();
    return rounded ? rounded : integerPart(number);
}

/// Appends an id as it is echoed: strings as they are, numbers cut toward zero, booleans as 1 and 0, anything
/// else as null. False for a number outside 64 bits.
bool idToJSON(std::string_view id, ByteBuffer& out) {
    switch (id.empty() ? 'n' : id.front()) {
    case '"': rewriteJSON(id, NumberRule::keep, out); return true;
    case 't': out.append('1'); return true;
    case 'f': out.append('0'); return true;
    case 'n':
    case '{':
    case '[': out.append("null"); return true;
    default: break;
    }
    constexpr std::size_t surelyFits = 18;
    const auto isDigit = [](char byte) { return byte >= '0' && byte <= '9'; };
    if (id.size() <= surelyFits && std::ranges::all_of(id, isDigit)) {
        out.append(id);
        return true;
    }
    const std::optional<std::int64_t> integer = integerIn(id);
    if (integer) JSONWriter<JSONForm::plain>(out).integer(*integer);
    return integer.has_value();
}

}  // namespace

void emitLine(ByteBuffer& line, int output) {
    line.append('\n');
    writeAll(line.view(), output);
}

StdioBridge::StdioBridge(SocketClient socket, int input, int output)
    : socket_(std::move(socket)), input_(input), output_(output) {}

StdioBridge::Ending StdioBridge::run() {
    std::array<char, 4096> chunk{};
    LineBuffer buffer;
    for (;;) {
        const ssize_t count = ::read(input_, chunk.data(), chunk.size());
        if (count <= 0) return Ending::inputEnded;
        if (!buffer.append({chunk.data(), static_cast<std::size_t>(count)})) {
            // The id is unknown, so the error has id null.
            writeError({}, ErrorCode::internalError, internalErrorMessage(std::bad_alloc()));
        }
        while (const auto line = buffer.nextLine()) {
            if (!line->empty() && handleLine(*line) == Next::exit) return Ending::exitRequested;
            constexpr std::size_t keptCapacity = 1 << 20;
            if (reply_.capacity() > keptCapacity) reply_ = {};
        }
    }
}

StdioBridge::Next StdioBridge::handleLine(std::string_view line) {
    std::optional<Message> message;
    // The one place where a failure becomes a JSON-RPC error. An unreadable line gets one with id null.
    const auto fail = [&](std::int64_t code, const std::string& text) {
        if (!message || !message->isNotification()) writeError(message ? message->id : "", code, text);
        return Next::goOn;
    };
    try {
        try {
            message = readMessage(line);
            return carryOut(*message);
        } catch (const MCPError& error) {
            return fail(error.code(), error.message());
        } catch (const JSONError& error) {
            return message ? fail(ErrorCode::internalError, internalErrorMessage(error))
                           : fail(ErrorCode::parseError, "Parse error");
        }
    } catch (const std::exception& error) {  // also when another error found no memory
        return fail(ErrorCode::internalError, internalErrorMessage(error));
    }
}

/// Other members are ignored on purpose, "jsonrpc" too.
StdioBridge::Message StdioBridge::readMessage(std::string_view line) {
    Message message;
    JSONReader reader(line);
    const bool isObject = reader.readObject([&](std::string_view key) {
        const std::string_view value = reader.rawValue();
        if (key == "id") {
            message.id = value;
        } else if (key == "method") {
            message.method = value;
        } else if (key == "params") {
            message.params = value;
        }
    });
    if (!isObject) throw JSONError("expected an object", 0);
    reader.readEnd();
    return message;
}

StdioBridge::Next StdioBridge::carryOut(const Message& message) {
    std::string decoded;
    const std::string_view method = textOf(message.method, decoded);
    const MethodRow* const row = findMethod(method);
    if (row == nullptr) {
        if (!message.isNotification())
            writeError(message.id, ErrorCode::methodNotFound, "Method not found: " + std::string(method));
        return Next::goOn;
    }
    switch (row->effect) {
    case Effect::answer:
        if (!message.isNotification()) answer(*row, message);
        break;
    case Effect::forward:
        // This waits for the host app, so the worker does it and sends the reply too: waking this thread
        // first would delay every reply by another switch of threads.
        worker_.run([&] { answer(*row, message); });
        break;
    case Effect::nothing: break;
    case Effect::exit: return Next::exit;
    }
    return Next::goOn;
}

void StdioBridge::answer(const MethodRow& row, const Message& message) {
    const bool hasEcho = beginReply(message.id, R"(,"result":)");
    row.handler({message.params, socket_, reply_});
    if (!message.isNotification()) sendReply(hasEcho);
}

void StdioBridge::writeError(std::string_view id, std::int64_t code, std::string_view message) {
    const bool hasEcho = beginReply(id, R"(,"error":)");
    JSONValue::object({{"code", code}, {"message", message}}).writeJSON(reply_);
    sendReply(hasEcho);
}

/// Begins the reply, up to its result or error, which `member` introduces. False if the id cannot be echoed.
bool StdioBridge::beginReply(std::string_view id, std::string_view member) {
    reply_.clear();
    reply_.append(R"({"jsonrpc":"2.0","id":)");
    const bool hasEcho = idToJSON(id, reply_);
    reply_.append(member);
    return hasEcho;
}

void StdioBridge::sendReply(bool hasEcho) {
    // Ids are 64-bit integers here, and one that was cut to fit would answer a request that was never made: the
    // process ends instead, with nothing written.
    if (!hasEcho) std::abort();
    reply_.append('}');
    emitLine(reply_, output_);
}

}  // namespace tidewell
