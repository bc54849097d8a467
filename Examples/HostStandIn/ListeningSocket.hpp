// ListeningSocket.hpp: claims a path for a Unix-domain socket and gives it back.
#pragma once

#include "System.hpp"

#include <string>

#include <sys/types.h>

namespace tidewell::standin {

/// A listening socket that its user alone may connect to. The path is removed when the socket is withdrawn or
/// destroyed, unless something else has taken its place by then.
class ListeningSocket {
public:
    /// Takes over a socket that nobody serves any more, and nothing else: throws std::runtime_error, with a
    /// message for the user, when the path is too long, is being served, is no socket or cannot be created.
    /// Changes the process's umask for a moment, so it must be made before there are threads.
    explicit ListeningSocket(std::string path);
    ListeningSocket(const ListeningSocket&) = delete;
    ListeningSocket& operator=(const ListeningSocket&) = delete;
    ~ListeningSocket() { withdraw(); }

    const Descriptor& descriptor() const noexcept { return socket_; }

    /// The next client, non-blocking; an empty descriptor when there is none after all. Throws
    /// std::system_error.
    Descriptor accept() const;

    /// Stops listening and removes the path. Doing it twice is harmless.
    void withdraw() noexcept;

private:
    std::string path_;
    Descriptor socket_;
    dev_t device_ = 0;
    ino_t inode_ = 0;
};

}  // namespace tidewell::standin
