// ServerVersion.hpp: which version this is, by the property list that is installed beside the executable's
// folder. Nothing here can fail: whatever is missing or broken falls through to the next source.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace tidewell {

/// The server's version, looked up once per process.
const std::string& serverVersion();

/// The version from the file beside the executable's folder, else from what the executable carries inside, else
/// "0.0.0-dev".
std::string resolveServerVersion();

/// Where the version file of an executable lies: Info.plist in the parent of its folder. Pure.
std::string infoPlistPath(std::string_view executable);

/// The version in a property list file, or nothing when any step fails.
std::optional<std::string> versionFromPlist(const std::string& path);

}  // namespace tidewell
