#include "Platform.hpp"

#include <malloc.h>
#include <pwd.h>
#include <sys/mman.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>

namespace tidewell::Platform {

std::optional<std::string> executablePath() {
    for (std::size_t capacity = 256; capacity <= 65536; capacity *= 2) {
        std::string path(capacity, '\0');
        const ssize_t length = ::readlink("/proc/self/exe", path.data(), path.size());
        if (length < 0) break;
        if (static_cast<std::size_t>(length) == capacity) continue;  // it may have been cut
        path.resize(static_cast<std::size_t>(length));
        return path;
    }
    // No /proc, as in some containers and change-root trees.
    if (program_invocation_name == nullptr || *program_invocation_name == '\0') return std::nullopt;
    return program_invocation_name;
}

std::string homeDirectory() {
    // Only read here, and before the program's second thread exists.
    const char* const home = std::getenv("HOME");  // NOLINT(concurrency-mt-unsafe)
    if (home != nullptr && *home != '\0') return home;
    // The file itself rather than getpwuid(): a statically linked program has no name-service switch.
    const std::unique_ptr<FILE, int (*)(FILE*)> users(std::fopen("/etc/passwd", "re"), &std::fclose);
    if (users == nullptr) return "/";
    const uid_t self = ::getuid();
    while (const passwd* const user = ::fgetpwent(users.get())) {
        if (user->pw_uid == self && user->pw_dir != nullptr && *user->pw_dir != '\0') return user->pw_dir;
    }
    return "/";
}

std::string_view bundleInformation() { return {}; }

int openStreamSocket() { return ::socket(AF_UNIX, SOCK_STREAM, 0); }

ssize_t sendBytes(int socket, std::string_view bytes) {
    return ::send(socket, bytes.data(), bytes.size(), MSG_NOSIGNAL);
}

void configureMemory() noexcept {
#ifdef __GLIBC__
    // The two threads take turns, so that a second arena would only take memory.
    ::mallopt(M_ARENA_MAX, 1);
    // Left alone, malloc keeps what a large reply took for the next one, which may come in a week.
    constexpr int largeBlock = 1 << 20;
    ::mallopt(M_MMAP_THRESHOLD, largeBlock);
    ::mallopt(M_TRIM_THRESHOLD, largeBlock);
#endif
}

void preferLargePages(void* block, std::size_t size) noexcept {
    constexpr std::size_t largePage = std::size_t{2} << 20;
    if (size < largePage) return;
    const auto pageSize = static_cast<std::uintptr_t>(::sysconf(_SC_PAGESIZE));
    const auto start = reinterpret_cast<std::uintptr_t>(block);
    // Outward to whole pages: a rest left out would be a mapping of its own, and realloc() could not move
    // both.
    const std::uintptr_t first = start / pageSize * pageSize;
    const std::uintptr_t end = (start + size + pageSize - 1) / pageSize * pageSize;
    ::madvise(reinterpret_cast<void*>(first), end - first, MADV_HUGEPAGE);  // a wish: nothing hangs on it
}

bool fillRandom(std::span<unsigned char> bytes) { return ::getentropy(bytes.data(), bytes.size()) == 0; }

}  // namespace tidewell::Platform
