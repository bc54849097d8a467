#include "Faults.hpp"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <mutex>
#include <new>
#include <set>

namespace tidewell::test {

namespace {

struct State {
    std::mutex mutex;
    bool isArmed = false;
    Call call = Call::none;
    Fault fault;
    std::atomic<int> input{-1};  // looked at by every read and write of every thread
    std::atomic<int> output{-1};
    std::set<int> hostSockets;
    std::set<int> files;
    std::array<int, static_cast<std::size_t>(Call::none) + 1> made{};
};

State& state() {
    static State one;
    return one;
}

std::atomic<std::size_t> refusedSize{SIZE_MAX};

std::atomic<bool> isCounting{false};
std::atomic<int> allocations{0};
std::atomic<int> firstRefused{Allocations::never};
std::atomic<int> lastRefused{Allocations::never};
thread_local bool isSpared = false;

/// Counts an allocation and says whether it is to fail.
bool isRefused(std::size_t size) {
    if (size >= refusedSize) return true;
    if (!isCounting || isSpared) return false;
    const int number = allocations++;
    return number >= firstRefused && number <= lastRefused;
}

/// Counts a call and says whether it is to fail.
bool isHit(Call call) {
    const std::lock_guard lock(state().mutex);
    if (!state().isArmed) return false;
    const int number = state().made[static_cast<std::size_t>(call)]++;
    return call == state().call && number >= state().fault.after &&
           number < state().fault.after + state().fault.times;
}

/// For calls that move no bytes: either fails with the chosen error or makes the call.
template <typename Real>
auto made(Call call, Real real) -> decltype(real()) {
    if (!isHit(call)) return real();
    errno = state().fault.error;
    return -1;
}

/// For calls that move up to `size` bytes.
template <typename Real>
ssize_t moved(Call call, std::size_t size, Real real) {
    if (!isHit(call)) return real(size);
    if (state().fault.error == 0) return real(std::min(size, state().fault.atMost));
    errno = state().fault.error;
    return state().fault.result;
}

bool holds(const std::set<int>& descriptors, int descriptor) {
    const std::lock_guard lock(state().mutex);
    return state().isArmed && descriptors.contains(descriptor);
}

int remember(std::set<int>& descriptors, int descriptor) {
    const std::lock_guard lock(state().mutex);
    if (state().isArmed && descriptor >= 0) descriptors.insert(descriptor);
    return descriptor;
}

}  // namespace

Faults::Faults(Call call, Fault fault, int input, int output) {
    const std::lock_guard lock(state().mutex);
    state().call = call;
    state().fault = fault;
    state().input = input;
    state().output = output;
    state().hostSockets.clear();
    state().files.clear();
    state().made.fill(0);
    state().isArmed = true;
}

Faults::~Faults() {
    const std::lock_guard lock(state().mutex);
    state().isArmed = false;
}

int Faults::calls() const {
    const std::lock_guard lock(state().mutex);
    return state().made[static_cast<std::size_t>(state().call)];
}

LittleMemory::LittleMemory(std::size_t bytes) { refusedSize = bytes; }
LittleMemory::~LittleMemory() { refusedSize = SIZE_MAX; }

Allocations::Allocations(int first, int last) {
    allocations = 0;
    firstRefused = first;
    lastRefused = last;
    isCounting = true;
}
Allocations::~Allocations() { isCounting = false; }
int Allocations::count() const { return allocations; }

SparedThread::SparedThread() { isSpared = true; }
SparedThread::~SparedThread() { isSpared = false; }

}  // namespace tidewell::test

// The linker's names for "the wrapped call" and "the call itself".
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
extern "C" {

using tidewell::test::Call;
using tidewell::test::holds;
using tidewell::test::isRefused;
using tidewell::test::made;
using tidewell::test::moved;
using tidewell::test::remember;
using tidewell::test::state;

ssize_t __real_read(int, void*, size_t);
ssize_t __wrap_read(int descriptor, void* bytes, size_t size) {
    const auto real = [&](size_t part) { return __real_read(descriptor, bytes, part); };
    if (descriptor == state().input) return moved(Call::readInput, size, real);
    if (holds(state().hostSockets, descriptor)) return moved(Call::readReply, size, real);
    if (holds(state().files, descriptor)) return moved(Call::readFile, size, real);
    return real(size);
}

ssize_t __real_write(int, const void*, size_t);
ssize_t __wrap_write(int descriptor, const void* bytes, size_t size) {
    const auto real = [&](size_t part) { return __real_write(descriptor, bytes, part); };
    return descriptor == state().output ? moved(Call::writeOutput, size, real) : real(size);
}

int __real_poll(pollfd*, nfds_t, int);
int __wrap_poll(pollfd* wanted, nfds_t count, int timeout) {
    const auto real = [&] { return __real_poll(wanted, count, timeout); };
    return wanted->fd == state().output ? made(Call::pollOutput, real) : real();
}

int __real_socket(int, int, int);
int __wrap_socket(int domain, int type, int protocol) {
    return remember(state().hostSockets,
                    made(Call::socket, [&] { return __real_socket(domain, type, protocol); }));
}

int __real_connect(int, const sockaddr*, socklen_t);
int __wrap_connect(int descriptor, const sockaddr* address, socklen_t size) {
    return made(Call::connect, [&] { return __real_connect(descriptor, address, size); });
}

int __real_setsockopt(int, int, int, const void*, socklen_t);
int __wrap_setsockopt(int descriptor, int level, int name, const void* value, socklen_t size) {
    return made(Call::setsockopt, [&] { return __real_setsockopt(descriptor, level, name, value, size); });
}

ssize_t __real_send(int, const void*, size_t, int);
ssize_t __wrap_send(int descriptor, const void* bytes, size_t size, int flags) {
    const auto real = [&](size_t part) { return __real_send(descriptor, bytes, part, flags); };
    return holds(state().hostSockets, descriptor) ? moved(Call::sendRequest, size, real) : real(size);
}

int __real_close(int);
int __wrap_close(int descriptor) {
    if (!holds(state().hostSockets, descriptor)) return __real_close(descriptor);
    // Closed all the same: Linux closes the descriptor even when it reports an error.
    __real_close(descriptor);
    return made(Call::close, [] { return 0; });
}

int __real_getentropy(void*, size_t);
int __wrap_getentropy(void* bytes, size_t size) {
    return made(Call::getentropy, [&] { return __real_getentropy(bytes, size); });
}

ssize_t __real_readlink(const char*, char*, size_t);
ssize_t __wrap_readlink(const char* path, char* bytes, size_t size) {
    return made(Call::readlink, [&] { return __real_readlink(path, bytes, size); });
}

int __real_open(const char*, int, ...);
int __wrap_open(const char* path, int flags, ...) {
    return remember(state().files, made(Call::open, [&] { return __real_open(path, flags); }));
}

int __real_madvise(void*, size_t, int);
int __wrap_madvise(void* start, size_t size, int advice) {
    return made(Call::madvise, [&] { return __real_madvise(start, size, advice); });
}

// Buffers and arenas allocate with malloc(); the rest of the C++ code goes through operator new below.
void* __real_malloc(size_t);
void* __wrap_malloc(size_t size) { return isRefused(size) ? nullptr : __real_malloc(size); }

void* __real_realloc(void*, size_t);
void* __wrap_realloc(void* memory, size_t size) {
    return isRefused(size) ? nullptr : __real_realloc(memory, size);
}

}  // extern "C"
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)

void* operator new(std::size_t size) {
    if (void* const memory = std::malloc(size == 0 ? 1 : size)) return memory;  // the wrapped one
    throw std::bad_alloc();
}
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
