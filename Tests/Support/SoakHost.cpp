#include "SoakHost.hpp"

#include "Judge.hpp"

#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <fstream>
#include <iterator>
#include <utility>

namespace tidewell::test {

using nlohmann::json;
using End = Exchange::End;

std::string hugeText(RandomJSON& random) {
    const std::string piece = random.string() + "é\"\\—";
    std::string text;
    for (const std::size_t size = 1'000'000 + random.upTo(2'000'000); text.size() < size;) text += piece;
    return text;
}

/// What the host app does with one connection.
struct SoakHost::Script {
    Exchange exchange;
    ScriptedHost::Behaviour act;
    bool readsEnvelope = true;
};

struct SoakHost::Row {
    std::size_t weight;
    Script (SoakHost::*make)();
};

const SoakHost::Row SoakHost::rows[] = {
    {60, &SoakHost::replies},
    {4, &SoakHost::repliesInPieces},
    {2, &SoakHost::repliesAtLength},
    {6, &SoakHost::saysMoreThanItShould},
    {6, &SoakHost::stopsBeforeTheLineFeed},
    {6, &SoakHost::talksNonsense},
    {6, &SoakHost::closesUnanswered},
    {4, &SoakHost::hangsUpAtOnce},
    {4, &SoakHost::hangsUpHalfway},
};

SoakHost::SoakHost(RandomJSON& random) : random_(random), host_(std::in_place, path_) {}

std::string SoakHost::complaint() const {
    const std::lock_guard lock(mutex_);
    return complaint_;
}

void SoakHost::mayComeBack() {
    if (!isGone_ || random_.chance(40)) return;
    connectionsBefore_ = connections();
    host_.reset();
    host_.emplace(path_);
    isGone_ = false;
}

Exchange SoakHost::expect(const std::string& tool, const json& args) {
    if (isGone_) return {.end = End::absent};
    const Script script = (this->*pick(rows, random_).make)();
    isGone_ = random_.upTo(2999) == 0;
    const bool refuses = random_.chance(50);
    ++expectedConnections_;
    host_->then([this, tool, args, act = script.act, reads = script.readsEnvelope, leaves = isGone_,
                 refuses](const HostConnection& connection) {
        if (leaves) leave(refuses);
        if (reads) check(connection.readEnvelope(), tool, args);
        act(connection);
    });
    return script.exchange;
}

/// From here on nothing is at the path, or a file that refuses connections; the current connection is still
/// served.
void SoakHost::leave(bool refuses) const {
    ::unlink(path_.c_str());
    if (refuses) std::ofstream{path_};
}

void SoakHost::check(const std::string& line, const std::string& tool, const json& args) {
    const json envelope = judge(line, Text::written).value_or(json());
    const json given = envelope.is_object() ? envelope.value("requestId", json()) : json();
    const std::string id = given.is_string() ? given.get<std::string>() : "";
    const bool isUUID = id.size() == 36 && id.find_first_not_of("0123456789ABCDEF-") == std::string::npos;
    if (isUUID && requestIds_.insert(id).second &&
        envelope == json{{"tool", tool}, {"args", args}, {"requestId", id}}) {
        return;
    }
    const std::lock_guard lock(mutex_);
    complaint_ = "the host app got " + line.substr(0, 500) + "\nand not          " + tool + " " +
                 args.dump().substr(0, 500);
}

namespace {

ScriptedHost::Behaviour writes(std::string bytes) {
    return [bytes = std::move(bytes)](const HostConnection& connection) { connection.write(bytes); };
}

}  // namespace

SoakHost::Script SoakHost::replies() {
    json reply = randomReply();
    std::string text = reply.dump() + '\n';
    return {{End::replied, std::move(reply)}, writes(std::move(text))};
}

SoakHost::Script SoakHost::repliesInPieces() {
    const json reply = {{"ok", true}, {"result", random_.string()}};
    const std::size_t size = 1 + random_.upTo(3);
    return {{End::replied, reply}, [text = reply.dump() + '\n', size](const HostConnection& connection) {
                connection.writeInPieces(text, size);
            }};
}

SoakHost::Script SoakHost::repliesAtLength() {
    json reply = {{"ok", true}, {"result", std::string(random_.upTo(100'000), 'x')}};
    if (random_.chance(5)) reply["result"] = {{"text", hugeText(random_)}};
    std::string text = reply.dump() + '\n';
    return {{End::replied, std::move(reply)}, writes(std::move(text))};
}

SoakHost::Script SoakHost::saysMoreThanItShould() {
    json reply = randomReply();
    std::string text = reply.dump() + "\n{\"ok\":false}\n" + random_.string();
    return {{End::replied, std::move(reply)}, writes(std::move(text))};
}

SoakHost::Script SoakHost::stopsBeforeTheLineFeed() {
    const std::string text = randomReply().dump();
    return {{End::unanswered}, writes(text.substr(0, text.size() - random_.upTo(text.size() / 2)))};
}

SoakHost::Script SoakHost::talksNonsense() {
    struct Nonsense {
        const char* text;
        const char* reason;
    };
    static constexpr Nonsense table[] = {
        {"", "invalid JSON at byte 0: unexpected end of the text"},
        {"not json", "invalid JSON at byte 0: expected a value"},
        {"{\"ok\":true", "invalid JSON at byte 10: unexpected end of the text"},
        {"{\"ok\":true} {}", "invalid JSON at byte 12: expected the end of the text"},
        {"{\"ok\":tru}", "invalid JSON at byte 6: expected a value"},
        {"{ok:true}", "invalid JSON at byte 1: expected a string as key"},
        {"[1,]", "invalid JSON at byte 3: expected a value"},
        {"\"\xC3(\"", "invalid JSON at byte 1: invalid UTF-8"},
        {"\"\\x\"", "invalid JSON at byte 2: unknown escape"},
        {"1e400", "invalid JSON at byte 0: number out of range"},
    };
    const Nonsense& nonsense = table[random_.upTo(std::size(table) - 1)];
    return {{End::unreadable, nullptr, nonsense.reason}, writes(nonsense.text + std::string("\n"))};
}

SoakHost::Script SoakHost::closesUnanswered() {
    return {{End::unanswered}, [](const HostConnection&) {}};
}

SoakHost::Script SoakHost::hangsUpAtOnce() {
    return {{End::hungUp}, [](const HostConnection&) {}, false};
}

SoakHost::Script SoakHost::hangsUpHalfway() {
    const std::size_t size = 1 + random_.upTo(30);  // fewer than any envelope has
    return {{End::hungUp},
            [size](const HostConnection& connection) {
                std::array<char, 32> bytes{};
                static_cast<void>(::recv(connection.descriptor(), bytes.data(), size, 0));
            },
            false};
}

json SoakHost::randomReply() {
    switch (random_.upTo(9)) {
    case 0: return {{"ok", true}};
    case 1: return {{"ok", false}, {"error", random_.value(1)}};
    case 2: return {{"ok", random_.value(0)}, {"result", random_.value(1)}};
    case 3: return random_.value(2);
    case 4: return {{"ok", true}, {"result", random_.value(2)}, {"error", {{"code", "ignored"}}}};
    case 5:
    case 6: {
        json error = json::object();
        for (const char* const member : {"code", "message", "hint"}) {
            if (random_.chance(70))
                error[member] = random_.chance(80) ? json(random_.string()) : random_.value(1);
        }
        return {{"ok", random_.chance(50) ? json(false) : json(1)}, {"error", std::move(error)}};
    }
    default: return {{"ok", true}, {"result", random_.value(3)}};
    }
}

}  // namespace tidewell::test
