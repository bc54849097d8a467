// AgentSocket.hpp: the host's side of the agent socket. One connection is one exchange: accept, read one line,
// write one line, close.
//
// Each exchange is a process of its own, with one deadline for everything in it, so that nobody waits for a
// client that says nothing, says too much or goes away.
#pragma once

#include "Root.hpp"

#include <string>

namespace tidewell::standin {

inline constexpr std::size_t maximumLineBytes = 1 << 20;      ///< of a request, without its line feed
inline constexpr std::chrono::seconds exchangeTimeLimit{25};  ///< some clients give up after 30 seconds
inline constexpr std::size_t maximumExchanges = 32;           ///< at the same time; further clients wait

/// A listening socket that only its owner may connect to. The path is removed when serving ends.
class AgentSocket {
public:
    /// Takes over a socket that nobody serves any more, and nothing else: throws std::runtime_error, with a
    /// message for the user, when the path is too long, is being served, is not a socket or cannot be created.
    explicit AgentSocket(std::string path);
    AgentSocket(const AgentSocket&) = delete;
    AgentSocket& operator=(const AgentSocket&) = delete;
    ~AgentSocket() { withdraw(); }

    /// Serves until a signal asks it to stop (see `noticeStopSignals`): it first removes the path, then waits for
    /// the exchanges to end.
    void serve(const Root& root);

private:
    void withdraw() noexcept;

    std::string path_;
    Descriptor socket_;
};

}  // namespace tidewell::standin
