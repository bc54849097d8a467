// Root.hpp: the served folder, which no path may escape, and the search for repositories in it.
//
// Every path is resolved first, links and ".." included, and checked afterwards. The other order is a
// classic vulnerability.
#pragma once

#include "Limits.hpp"

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace tidewell::standin {

inline constexpr int scanDepth = 4;                         ///< folders below the root
inline constexpr std::size_t maximumRepositories = 500;     ///< found by one scan
inline constexpr std::size_t maximumScanEntries = 200'000;  ///< names looked at by one scan

/// What a scan found, sorted by path; `complete` is false when a limit or an unreadable folder cut it short.
struct Scan {
    std::vector<std::filesystem::path> repositories;
    bool complete = true;
};

/// The served folder. Immutable.
class Root {
public:
    /// Throws std::runtime_error when `folder` is not a folder.
    explicit Root(const std::filesystem::path& folder);

    const std::filesystem::path& path() const noexcept { return path_; }

    /// The existing folder that `text` names, absolute or relative to the root, free of links and "..".
    /// Throws HostError "outside_root", "not_found".
    std::filesystem::path resolve(const std::filesystem::path& text) const;

    /// The `repoId` of a resolved folder: its path relative to the root, "." for the root itself.
    std::string idOf(const std::filesystem::path& resolved) const;

    /// Finds repositories in and below the root. Never follows a link, never looks inside a repository other
    /// than the root, nor into node_modules. Throws HostError "timeout", "stopping".
    Scan findRepositories(Deadline deadline) const;

private:
    std::filesystem::path path_;
};

/// Whether a resolved folder is the top of an ordinary checkout: its `.git` is a folder, not a link and not
/// a file that points elsewhere, and has a HEAD.
bool isRepository(const std::filesystem::path& folder);

}  // namespace tidewell::standin
