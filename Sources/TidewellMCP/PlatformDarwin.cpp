#include "Platform.hpp"

#include <crt_externs.h>
#include <mach-o/dyld.h>
#include <mach-o/loader.h>
#include <pwd.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>

// As in <mach-o/getsect.h>, which the headers that come with cross compilers lack.
extern "C" std::uint8_t* getsectiondata(const mach_header_64* image, const char* segment, const char* section,
                                        unsigned long* size);

namespace tidewell::Platform {

std::optional<std::string> executablePath() {
    std::uint32_t size = 0;
    ::_NSGetExecutablePath(nullptr, &size);  // says how much room it wants, terminator included
    std::string path(size, '\0');
    if (::_NSGetExecutablePath(path.data(), &size) == 0) {
        path.resize(path.find('\0'));
        // Started through a link (as package managers lay them out), the version lies beside the real file.
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
    const auto* const program = reinterpret_cast<const mach_header_64*>(::_dyld_get_image_header(0));
    const auto* const bytes = ::getsectiondata(program, "__TEXT", "__info_plist", &size);
    if (bytes == nullptr) return {};
    return {reinterpret_cast<const char*>(bytes), size};
}

int openStreamSocket() {
    const int descriptor = ::socket(AF_UNIX, SOCK_STREAM, 0);
    if (descriptor < 0) return -1;
    const int on = 1;
    ::setsockopt(descriptor, SOL_SOCKET, SO_NOSIGPIPE, &on, sizeof on);
    return descriptor;
}

ssize_t sendBytes(int socket, std::string_view bytes) {
    return ::send(socket, bytes.data(), bytes.size(), 0);
}

// Nothing to ask for here.
void configureMemory() noexcept {}
void preferLargePages(void*, std::size_t) noexcept {}

bool fillRandom(std::span<unsigned char> bytes) { return ::getentropy(bytes.data(), bytes.size()) == 0; }

}  // namespace tidewell::Platform
