#include "Base/SystemCalls.hpp"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <mutex>
#include <set>
#include <string_view>

namespace tidewell::test {

namespace {

/// macOS's SO_NOSIGPIPE.
constexpr int noSignalOption = 0x1022;

/// Shared by all threads of a test.
struct SocketsWithoutSignal {
    std::mutex mutex;
    std::set<int> sockets;
};

SocketsWithoutSignal& socketsWithoutSignal() {
    static SocketsWithoutSignal one;
    return one;
}

void takeSignalFrom(int socket) {
    const std::lock_guard lock(socketsWithoutSignal().mutex);
    socketsWithoutSignal().sockets.insert(socket);
}

bool raisesSignal(int socket) {
    const std::lock_guard lock(socketsWithoutSignal().mutex);
    return !socketsWithoutSignal().sockets.contains(socket);
}

ssize_t swallow(std::size_t size) {
    systemCalls().swallowed = size;
    return static_cast<ssize_t>(size);
}

}  // namespace

SystemCalls& systemCalls() {
    static SystemCalls one;
    return one;
}

}  // namespace tidewell::test

// The linker's names for "the wrapped call" and "the call itself".
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
extern "C" {

using namespace tidewell::test;

ssize_t __real_send(int, const void*, size_t, int);
ssize_t __wrap_send(int socket, const void* bytes, size_t size, int flags) {
    if (systemCalls().areSwallowed) return swallow(size);
    return __real_send(socket, bytes, size, raisesSignal(socket) ? flags : flags | MSG_NOSIGNAL);
}

ssize_t __real_write(int, const void*, size_t);
ssize_t __wrap_write(int descriptor, const void* bytes, size_t size) {
    return systemCalls().areSwallowed ? swallow(size) : __real_write(descriptor, bytes, size);
}

uid_t __real_getuid();
uid_t __wrap_getuid() { return systemCalls().user ? *systemCalls().user : __real_getuid(); }

FILE* __real_fopen(const char*, const char*);
FILE* __wrap_fopen(const char* path, const char* mode) {
    if (systemCalls().isWithoutUsers && path == std::string_view("/etc/passwd")) {
        errno = ENOENT;
        return nullptr;
    }
    return __real_fopen(path, mode);
}

int __real_setsockopt(int, int, int, const void*, socklen_t);
int __wrap_setsockopt(int socket, int level, int name, const void* value, socklen_t size) {
    if (level != SOL_SOCKET || name != noSignalOption)
        return __real_setsockopt(socket, level, name, value, size);
    if (systemCalls().noSignalError != 0) {
        errno = systemCalls().noSignalError;
        return -1;
    }
    if (size == sizeof(int) && *static_cast<const int*>(value) != 0) takeSignalFrom(socket);
    return 0;
}

}  // extern "C"
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
