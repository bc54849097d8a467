#include "ListeningSocket.hpp"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <stdexcept>
#include <system_error>
#include <thread>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace tidewell::standin {

namespace {

constexpr int waitingClients = 64;
constexpr std::chrono::milliseconds claimPause{20};
constexpr int claimAttempts = 100;

[[noreturn]] void fail(const std::string& doing, int number) {
    throw std::runtime_error(doing + ": " + std::generic_category().message(number));
}

sockaddr_un addressOf(const std::string& path) {
    sockaddr_un address{};
    constexpr std::size_t maximumPathBytes = sizeof address.sun_path - 1;  // one for the closing NUL
    if (path.size() > maximumPathBytes) {
        throw std::runtime_error("the socket path is too long: it has " + std::to_string(path.size()) +
                                 " bytes, and a socket address holds at most " +
                                 std::to_string(maximumPathBytes));
    }
    address.sun_family = AF_UNIX;
    std::copy(path.begin(), path.end(), address.sun_path);
    return address;
}

Descriptor makeSocket() {
    Descriptor made(::socket(AF_UNIX, SOCK_STREAM, 0));
    if (!made) fail("cannot create a socket", errno);
    setUp(made, true);
    return made;
}

/// Locks the folder of the socket while the path is looked at and taken. Of two stand-ins that start together
/// and both see a stale socket, the second would otherwise remove the first one's fresh one. The lock is the
/// folder's own, so no file stays behind.
Descriptor lockFolderOf(const std::string& path) {
    const std::filesystem::path parent = std::filesystem::path(path).parent_path();
    const std::string folder = parent.empty() ? "." : parent.string();
    Descriptor opened(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!opened) fail("cannot open the socket's folder " + folder, errno);
    for (int attempt = 0; ::flock(opened.get(), LOCK_EX | LOCK_NB) < 0; ++attempt) {
        if (attempt == claimAttempts) fail("cannot lock the socket's folder " + folder, errno);
        std::this_thread::sleep_for(claimPause);
    }
    return opened;
}

/// Removes what a stand-in that ended without notice has left at the path; refuses to touch anything else.
void clearStaleSocket(const std::string& path, const sockaddr_un& address) {
    struct stat facts {};
    if (::lstat(path.c_str(), &facts) < 0) {
        if (errno == ENOENT) return;
        fail("cannot look at " + path, errno);
    }
    if (!S_ISSOCK(facts.st_mode))
        throw std::runtime_error(path + " exists and is no socket; it is left alone");

    const Descriptor probe = makeSocket();
    const int result = ::connect(probe.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
    // Only a refusal proves that nobody listens; a full queue or a foreign owner proves the opposite.
    if (result == 0 || errno != ECONNREFUSED) {
        throw std::runtime_error(path + " is already served by another process");
    }
    if (::unlink(path.c_str()) < 0) fail("cannot remove the stale socket " + path, errno);
}

}  // namespace

ListeningSocket::ListeningSocket(std::string path) : path_(std::move(path)) {
    const sockaddr_un address = addressOf(path_);
    const Descriptor lock = lockFolderOf(path_);
    clearStaleSocket(path_, address);
    Descriptor made = makeSocket();

    // By umask and not by chmod afterwards: in between, anybody could connect.
    const mode_t before = ::umask(0177);
    const int bound = ::bind(made.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
    const int bindError = errno;
    ::umask(before);
    if (bound < 0) fail("cannot create the socket " + path_, bindError);

    struct stat facts {};
    if (::lstat(path_.c_str(), &facts) < 0 || ::listen(made.get(), waitingClients) < 0) {
        const int listenError = errno;
        ::unlink(path_.c_str());
        fail("cannot listen at " + path_, listenError);
    }
    device_ = facts.st_dev;
    inode_ = facts.st_ino;
    socket_ = std::move(made);
}

Descriptor ListeningSocket::accept() const {
    const std::lock_guard inheriting(inheritanceMutex());
    Descriptor client(::accept(socket_.get(), nullptr, nullptr));
    if (client) {
        setUp(client, true);
    } else if (errno != EAGAIN && errno != EINTR && errno != ECONNABORTED) {
        throw std::system_error(errno, std::generic_category(), "accept");
    }
    return client;
}

void ListeningSocket::withdraw() noexcept {
    if (!socket_) return;
    struct stat facts {};
    const bool isOurs =
        ::lstat(path_.c_str(), &facts) == 0 && facts.st_dev == device_ && facts.st_ino == inode_;
    if (isOurs) ::unlink(path_.c_str());
    socket_.reset();
}

}  // namespace tidewell::standin
