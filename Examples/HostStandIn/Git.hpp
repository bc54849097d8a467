// Git.hpp: runs one git command, within limits and without the caller's environment.
#pragma once

#include "Limits.hpp"

#include <string>
#include <vector>

namespace tidewell::standin {

inline constexpr std::size_t maximumGitOutputBytes = 8 << 20;  ///< of one command

struct GitAnswer {
    int exitCode = 0;  ///< 128 plus the signal for a git that a signal killed
    std::string output;
    std::string complaint;  ///< the beginning of its standard error
};

/// Runs git. It sees the variables given here ("NAME=value"), the PATH and settings that keep the user's
/// configuration and the network out, and nothing else. Throws HostError "git_failed" (its output is too
/// large), "timeout", "stopping"; git and what it started are killed then.
GitAnswer runGit(std::vector<std::string> arguments, std::vector<std::string> environment, Deadline deadline);

}  // namespace tidewell::standin
