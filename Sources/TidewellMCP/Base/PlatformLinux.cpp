#include "Base/Platform.hpp"

#include <malloc.h>
#include <pwd.h>
#include <sys/mman.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>

namespace tidewell::Platform {

std::optional<std::string> executablePath() {
    std::array<char, PATH_MAX> path;  // the kernel tells none that is longer
    const ssize_t length = ::readlink("/proc/self/exe", path.data(), path.size());
    if (length > 0) return std::string(path.data(), static_cast<std::size_t>(length));
    // There is no /proc in some containers and chroot trees.
    if (program_invocation_name == nullptr || *program_invocation_name == '\0') return std::nullopt;
    return program_invocation_name;
}

std::string homeDirectory() {
    // Read only here, before the program's second thread exists.
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

const std::size_t socketPathCapacity = sizeof(sockaddr_un::sun_path);

int openStreamSocket() { return ::socket(AF_UNIX, SOCK_STREAM, 0); }

ssize_t sendBytes(int socket, std::string_view bytes) {
    return ::send(socket, bytes.data(), std::min(bytes.size(), largestTransfer), MSG_NOSIGNAL);
}

ssize_t writeBytes(int descriptor, std::string_view bytes) {
    return ::write(descriptor, bytes.data(), std::min(bytes.size(), largestTransfer));
}

void configureMemory() noexcept {
#ifdef __GLIBC__
    // By default malloc keeps the memory of a large reply, although the next may be days away.
    constexpr int largeBlock = 256 << 10;
    ::mallopt(M_MMAP_THRESHOLD, largeBlock);
    ::mallopt(M_TRIM_THRESHOLD, largeBlock);
#endif
}

void preferLargePages(void* block, std::size_t size) noexcept {
    constexpr std::size_t largePage = std::size_t{2} << 20;
    if (size < largePage) return;
    // Extended outward to whole pages: a part left out would be a mapping of its own, and realloc() could not
    // move both. The kernel rounds the end up.
    const auto pageSize = static_cast<std::uintptr_t>(::sysconf(_SC_PAGESIZE));
    const std::size_t before = reinterpret_cast<std::uintptr_t>(block) % pageSize;
    ::madvise(static_cast<char*>(block) - before, before + size, MADV_HUGEPAGE);  // advisory
}

std::optional<double> parseDouble([[maybe_unused]] std::string_view text) {
#ifdef __cpp_lib_to_chars
    double value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error == std::errc()) return value;
#endif
    return std::nullopt;
}

bool fillRandom(std::span<unsigned char> bytes) { return ::getentropy(bytes.data(), bytes.size()) == 0; }

}  // namespace tidewell::Platform
