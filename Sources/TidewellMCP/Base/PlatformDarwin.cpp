#include "Base/Platform.hpp"

#include <crt_externs.h>
#include <mach-o/dyld.h>
#include <mach-o/loader.h>
#include <pwd.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>

// As in <mach-o/getsect.h>, which the headers that come with cross compilers lack.
extern "C" std::uint8_t* getsectiondata(const mach_header_64* image, const char* segment, const char* section,
                                        unsigned long* size);

namespace tidewell::Platform {

std::optional<std::string> executablePath() {
    std::uint32_t size = 0;
    ::_NSGetExecutablePath(nullptr, &size);  // says how much room it needs, terminator included
    std::string path(size, '\0');
    if (::_NSGetExecutablePath(path.data(), &size) == 0) {
        path.resize(path.find('\0'));
        // Package managers start programs through a link; the version lies beside the real file.
        if (char* const real = ::realpath(path.c_str(), nullptr)) {
            path = real;
            std::free(real);
        }
        return path;
    }
    const char* const* const arguments = *::_NSGetArgv();
    if (arguments == nullptr || arguments[0] == nullptr) return std::nullopt;
    return arguments[0];
}

std::string homeDirectory() {
    const char* const home = std::getenv("HOME");
    if (home != nullptr && *home != '\0') return home;
    const passwd* const user = ::getpwuid(::getuid());
    if (user == nullptr || user->pw_dir == nullptr || *user->pw_dir == '\0') return "/";
    return user->pw_dir;
}

std::string_view bundleInformation() {
    unsigned long size = 0;
    // Not the first image that was loaded: that may be an inserted library.
    const auto* const bytes = ::getsectiondata(::_NSGetMachExecuteHeader(), "__TEXT", "__info_plist", &size);
    if (bytes == nullptr) return {};
    return {reinterpret_cast<const char*>(bytes), size};
}

const std::size_t socketPathCapacity = sizeof(sockaddr_un::sun_path);

int openStreamSocket() {
    const int descriptor = ::socket(AF_UNIX, SOCK_STREAM, 0);
    if (descriptor < 0) return -1;
    const int on = 1;
    if (::setsockopt(descriptor, SOL_SOCKET, SO_NOSIGPIPE, &on, sizeof on) == 0) return descriptor;
    // Without this option, a host app that hangs up would end the process.
    const int error = errno;
    ::close(descriptor);
    errno = error;
    return -1;
}

ssize_t sendBytes(int socket, std::string_view bytes) {
    return ::send(socket, bytes.data(), std::min(bytes.size(), largestTransfer), 0);
}

ssize_t writeBytes(int descriptor, std::string_view bytes) {
    return ::write(descriptor, bytes.data(), std::min(bytes.size(), largestTransfer));
}

// There is nothing to set here.
void configureMemory() noexcept {}
void preferLargePages(void*, std::size_t) noexcept {}

// LLVM's library reads doubles from version 20 on.
std::optional<double> parseDouble(std::string_view) { return std::nullopt; }

bool fillRandom(std::span<unsigned char> bytes) { return ::getentropy(bytes.data(), bytes.size()) == 0; }

}  // namespace tidewell::Platform
