// GitCommand.hpp: runs one git command on a checkout that nobody vouches for.
//
// A repository may name programs in its own configuration that git would start for it. Reading somebody's
// status must not run somebody's program, so every command carries a configuration of its own that outranks
// the repository's, an environment without the caller's GIT_* variables, and limits of time and size.
#pragma once

#include "Folders.hpp"

#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

namespace tidewell::standin {

inline constexpr std::chrono::seconds gitTimeLimit{20};        ///< for one command
inline constexpr std::size_t maximumGitOutputBytes = 8 << 20;  ///< of one command

struct ConfigEntry {
    std::string key, value;
};

struct GitResult {
    int exitCode = 0;  ///< 128 plus the signal for a git that was killed
    std::string output;
    std::string complaint;  ///< the beginning of its standard error
};

/// Runs `git` with `arguments` in `folder`, the resolved top folder of a checkout. It cannot change the
/// repository, reach the network or ask for a password. `overrides` are added to the safe configuration.
/// Throws HostError "git_failed" (it cannot start, or says too much), "timeout", "stopping". The command, and
/// whatever it started, is gone when this returns.
GitResult runGit(const Request& request, const std::filesystem::path& folder,
                 const std::vector<std::string>& arguments, const std::vector<ConfigEntry>& overrides = {});

}  // namespace tidewell::standin
