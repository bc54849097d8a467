// Server.hpp: the host's side of the agent socket. One connection is one exchange: accept, read one line,
// write one line, close.
//
// Every client has a thread of its own and a limit for everything it may do slowly, so that nobody waits for
// a client that says nothing, says too much or goes away.
#pragma once

#include "Folders.hpp"
#include "ListeningSocket.hpp"

#include <condition_variable>
#include <mutex>

namespace tidewell::standin {

inline constexpr std::size_t maximumLineBytes = 1 << 20;   ///< of a request, its line feed not counted
inline constexpr std::chrono::seconds lineTimeLimit{10};   ///< from the connection to the line feed
inline constexpr std::chrono::seconds replyTimeLimit{10};  ///< for the client to take the reply
inline constexpr std::size_t maximumClients = 64;          ///< at the same time; the next one hears "busy"

/// Serves until it is told to stop. The process must ignore SIGPIPE: its client may be gone when it writes.
class Server {
public:
    /// All three must outlive the server.
    Server(const Root& root, ListeningSocket& socket, const StopSignal& stop) noexcept
        : root_(root), socket_(socket), stop_(stop) {}

    /// Serves, and returns when the stop signal is raised: the socket is removed first, then every client is
    /// let go. Throws std::system_error when the socket can no longer be waited for.
    void run();

private:
    void admit(Descriptor client);
    void serve(const Descriptor& client) const noexcept;
    void forgetClient() noexcept;

    const Root& root_;
    ListeningSocket& socket_;
    const StopSignal& stop_;
    std::mutex mutex_;
    std::condition_variable clientGone_;
    std::size_t clients_ = 0;  // guarded by mutex_
};

}  // namespace tidewell::standin
