// Folders.hpp: the root folder, which nothing may lead out of, and the search for repositories below it.
//
// Everything the stand-in reads is named by a path that `Root` has resolved: symbolic links and ".." first,
// the check afterwards. The other order is the classic hole.
#pragma once

#include "System.hpp"

#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace tidewell::standin {

/// A failure the client is told about: {"code", "message", "hint"}.
class HostError : public std::runtime_error {
public:
    HostError(std::string code, const std::string& message, std::string hint = {})
        : std::runtime_error(message), code_(std::move(code)), hint_(std::move(hint)) {}
    const std::string& code() const noexcept { return code_; }
    const std::string& hint() const noexcept { return hint_; }  ///< Empty: none.

private:
    std::string code_, hint_;
};

/// The served folder. Immutable, shared by all threads.
class Root {
public:
    /// Throws std::runtime_error when `folder` is no folder.
    explicit Root(const std::filesystem::path& folder);

    const std::filesystem::path& path() const noexcept { return path_; }

    /// Whether a resolved path lies below the root or is the root.
    bool holds(const std::filesystem::path& resolved) const;

    /// The existing file or folder that `text` names, absolute or relative to the root, free of links and
    /// "..". Throws HostError "outside_root", "not_found".
    std::filesystem::path resolve(const std::filesystem::path& text) const;

    /// The `repoId` of a resolved folder: its path relative to the root, "." for the root itself.
    std::string idOf(const std::filesystem::path& resolved) const;

    /// The first `maximumFileBytes` of a regular file below the root; nothing when there is no such file.
    std::optional<std::string> readFile(const std::filesystem::path& file) const;
    static constexpr std::size_t maximumFileBytes = 256 << 10;

private:
    std::filesystem::path path_;
};

/// What one request may use and how long it may take.
struct Request {
    const Root& root;
    const StopSignal& stop;
    Deadline deadline;

    /// Throws HostError "timeout" or "stopping" when there is no reason to go on.
    void checkTime() const;
};

inline constexpr int defaultScanDepth = 4;                  ///< folders below the starting folder
inline constexpr int maximumScanDepth = 12;                 ///< a larger wish is cut to this
inline constexpr std::size_t maximumRepositories = 500;     ///< found by one scan
inline constexpr std::size_t maximumScanEntries = 200'000;  ///< names looked at by one scan

/// What a scan found, sorted by path; `complete` is false when a limit or an unreadable folder cut it short.
struct Scan {
    std::vector<std::filesystem::path> repositories;
    bool complete = true;
};

/// Whether a resolved folder is the top of a checkout: it has a `.git` folder, or a `.git` file pointing to
/// one. Bare repositories have no checkout and do not count.
bool isCheckout(const std::filesystem::path& folder);

/// Finds checkouts in `start` (a resolved folder) and at most `depth` levels below it. Never follows a link,
/// never looks inside a checkout other than `start`, nor into .git and node_modules. Throws HostError.
Scan findRepositories(const Request& request, const std::filesystem::path& start, int depth);

}  // namespace tidewell::standin
