// ScriptedHost.hpp: a host app that does exactly what a test tells it to, damage included.
//
// Each connection gets the next behaviour in the order in which they were added; when none is left, the host
// answers {"ok":true}, or does what otherwise() says. It runs on a thread of its own and ends with the object.
#pragma once

#include "TemporaryFolder.hpp"

#include <nlohmann/json.hpp>
#include <sys/socket.h>

#include <atomic>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace tidewell::test {

/// A new socket, bound or connected (`call` is ::bind or ::connect) to a path; throws when that fails.
using AddressCall = int (*)(int, const sockaddr*, socklen_t);
int socketAt(const std::string& path, AddressCall call, int type = SOCK_STREAM);

/// The host's side of one connection.
class HostConnection {
public:
    explicit HostConnection(int descriptor) : descriptor_(descriptor) {}
    int descriptor() const { return descriptor_; }
    /// The envelope line without its line feed, or the part of it that came before the end.
    std::string readEnvelope() const;
    /// Writes everything, or stops when the other side has gone.
    void write(std::string_view bytes) const;
    void writeInPieces(std::string_view bytes, std::size_t size) const;

private:
    int descriptor_;
};

class ScriptedHost {
public:
    using Behaviour = std::function<void(const HostConnection&)>;

    /// Listens at once, at `path` or at a private place of its own.
    explicit ScriptedHost(std::string path = {});
    ScriptedHost(const ScriptedHost&) = delete;
    ScriptedHost& operator=(const ScriptedHost&) = delete;
    ~ScriptedHost();

    const std::string& socketPath() const { return socketPath_; }
    /// The envelopes read so far, in order. Throws if one is not JSON as the program must write it.
    std::vector<nlohmann::json> received() const;
    /// The same as exact() spells them (ExactJSON.hpp), each without its request id, which has to be a UUID.
    std::vector<std::string> exactEnvelopes() const;
    int connections() const { return connections_; }
    /// Ends the thread once the current connection is served; what a behaviour recorded may be read after that.
    void stop();
    /// Whether somebody connects, or has connected, while the current connection is served.
    bool isAnotherWaiting(int milliseconds) const;

    // The vocabulary. All but the first two read the envelope first.
    ScriptedHost& closesAtOnce();  ///< without reading: what the server wrote is lost
    ScriptedHost& neverReads();    ///< and keeps the connection until the end of the test
    ScriptedHost& closesUnanswered();
    ScriptedHost& replies(std::string text);  ///< with its line feed
    ScriptedHost& repliesWithoutLineFeed(std::string text);
    ScriptedHost& repliesInSingleBytes(std::string text);
    ScriptedHost& repliesWith(std::string bytes);  ///< exactly these, then closes
    ScriptedHost& repliesSlowly(std::string text, int milliseconds);
    ScriptedHost& repliesInPieces(std::string text, std::size_t pieceSize);
    ScriptedHost& staysSilent();  ///< and keeps the connection until the server hangs up
    /// `name` is one of the words above; `text` its argument. For conversations kept in files.
    ScriptedHost& does(std::string_view name, std::string text);
    ScriptedHost& then(Behaviour behaviour);
    /// For every connection when no behaviour is left.
    ScriptedHost& otherwise(Behaviour behaviour);

private:
    void serve();
    std::string readAndRecord(const HostConnection& connection);

    TemporaryFolder folder_;
    std::string socketPath_;
    int listener_ = -1;
    std::atomic<int> connections_{0};
    std::atomic<bool> stopping_{false};
    mutable std::mutex mutex_;
    std::deque<Behaviour> behaviours_;
    Behaviour otherwise_;
    std::vector<std::string> received_;
    std::thread thread_;
};

}  // namespace tidewell::test
