#include "Server/ServerVersion.hpp"

#include "Base/Descriptor.hpp"
#include "Base/Platform.hpp"
#include "PropertyList/PropertyList.hpp"

#include <fcntl.h>

#include <array>
#include <cerrno>

namespace tidewell {

namespace {

/// Far above any real version file, and still read quickly.
constexpr std::size_t largestVersionFile = 16 << 20;

/// The content of a file of a sensible size. Whatever else lies at that path (a pipe, a device, a folder)
/// must not hold up the start, so nothing is waited for.
std::optional<std::string> readWholeFile(const std::string& path) {
    const Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!file.isOpen()) return std::nullopt;

    std::string content;
    std::array<char, 4096> chunk{};
    for (;;) {
        const ssize_t count = ::read(file.get(), chunk.data(), chunk.size());
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return std::nullopt;
        if (count == 0) return content;
        content.append(chunk.data(), static_cast<std::size_t>(count));
        if (content.size() > largestVersionFile) return std::nullopt;
    }
}

std::optional<std::string> versionIn(std::string_view propertyList) {
    auto version = stringInPropertyList(propertyList, "CFBundleShortVersionString");
    if (version && version->empty()) return std::nullopt;
    return version;
}

/// Trailing slashes are ignored; "/" stays, and a path without a slash leaves nothing.
std::string_view removeLastComponent(std::string_view path) {
    const auto trimmed = [](std::string_view text) {
        while (text.size() > 1 && text.back() == '/') text.remove_suffix(1);
        return text;
    };
    path = trimmed(path);
    const std::size_t slash = path.rfind('/');
    return slash == std::string_view::npos ? std::string_view() : trimmed(path.substr(0, slash + 1));
}

}  // namespace

const std::string& serverVersion() {
    static const std::string version = resolveServerVersion();
    return version;
}

std::string resolveServerVersion() {
    if (const auto executable = Platform::executablePath()) {
        if (auto version = versionFromPlist(infoPlistPath(*executable))) return *version;
    }
    return versionIn(Platform::bundleInformation()).value_or("0.0.0-dev");
}

std::string infoPlistPath(std::string_view executable) {
    std::string path(removeLastComponent(removeLastComponent(executable)));
    if (!path.empty() && path.back() != '/') path += '/';
    return path + "Info.plist";
}

std::optional<std::string> versionFromPlist(const std::string& path) {
    const auto file = readWholeFile(path);
    return file ? versionIn(*file) : std::nullopt;
}

}  // namespace tidewell
