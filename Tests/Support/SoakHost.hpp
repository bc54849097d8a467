// SoakHost.hpp: a host app that misbehaves at random and knows beforehand how each exchange will end.
#pragma once

#include "RandomJSON.hpp"
#include "ScriptedHost.hpp"

#include <cstddef>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_set>

namespace tidewell::test {

/// One of `rows`, each as often as its member `weight` says.
template <typename Row, std::size_t count>
const Row& pick(const Row (&rows)[count], RandomJSON& random) {
    std::size_t total = 0;
    for (const Row& row : rows) total += row.weight;
    std::size_t left = random.upTo(total - 1);
    const Row* row = rows;
    for (; left >= row->weight; ++row) left -= row->weight;
    return *row;
}

/// True once in two thousand times: for what takes a megabyte or more.
inline bool isHuge(RandomJSON& random) { return random.upTo(1999) == 0; }
/// One to three megabytes of text.
std::string hugeText(RandomJSON& random);

/// How the exchange of one request with the host app ends for the server.
struct Exchange {
    enum class End {
        replied,
        unreadable,  ///< a line that is not JSON
        unanswered,  ///< the request was read, and no whole line came back
        hungUp,      ///< gone before the request was read
        absent,      ///< nobody to connect to
    };
    End end;
    nlohmann::json reply = nullptr;  ///< replied: with this
    std::string reason = {};         ///< unreadable: what the server's reader says
};

/// It learns of a request before the request is sent. As only one is ever under way, the connections come in
/// the order of the expect() calls, and each can be compared with what it has to bring.
class SoakHost {
public:
    explicit SoakHost(RandomJSON& random);

    const std::string& socketPath() const { return path_; }
    /// How many connections there were, and how many there should have been.
    int connections() const { return connectionsBefore_ + host_->connections(); }
    int expectedConnections() const { return expectedConnections_; }
    /// What was wrong with an envelope; empty if nothing was.
    std::string complaint() const;

    /// If the host app is gone, it may come back now. To be called while no request is under way.
    void mayComeBack();
    /// Prepares for the next request that gets here, and returns how it will end. `args` are the arguments as
    /// they must arrive.
    Exchange expect(const std::string& tool, const nlohmann::json& args);

private:
    struct Script;
    struct Row;
    static const Row rows[];

    Script replies();
    Script repliesInPieces();
    Script repliesAtLength();
    Script saysMoreThanItShould();
    Script stopsBeforeTheLineFeed();
    Script talksNonsense();
    Script closesUnanswered();
    Script hangsUpAtOnce();
    Script hangsUpHalfway();
    nlohmann::json randomReply();

    void leave(bool refuses) const;
    void check(const std::string& line, const std::string& tool, const nlohmann::json& args);

    RandomJSON& random_;
    TemporaryFolder folder_;
    std::string path_ = folder_ / "host.sock";
    bool isGone_ = false;
    int connectionsBefore_ = 0;
    int expectedConnections_ = 0;
    std::unordered_set<std::string> requestIds_;  // used by the host's thread only
    mutable std::mutex mutex_;
    std::string complaint_;
    std::optional<ScriptedHost> host_;  // last, so that its thread ends first
};

}  // namespace tidewell::test
