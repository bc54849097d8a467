// Repository.hpp: what one checkout says about itself, asked through git and nothing else.
#pragma once

#include "GitCommand.hpp"

#include <nlohmann/json.hpp>

namespace tidewell::standin {

using Json = nlohmann::json;

inline constexpr std::int64_t defaultCommitCount = 20;
inline constexpr std::int64_t maximumCommitCount = 200;
inline constexpr std::size_t maximumListedFiles = 1000;  ///< of one status; the counts cover all of them
inline constexpr int recentCommitCount = 10;             ///< in a fingerprint

/// A remote as configured, without the credentials its URLs may carry.
struct Remote {
    std::string name, fetchURL, pushURL;
};

struct Status {
    std::optional<std::string> head;    ///< absent before the first commit
    std::optional<std::string> branch;  ///< absent when HEAD is detached
    std::optional<std::string> upstream;
    std::optional<std::int64_t> ahead, behind;  ///< absent without upstream, or when the upstream is gone
    std::int64_t staged = 0, unstaged = 0, untracked = 0, conflicted = 0;
    std::int64_t fileCount = 0;
    Json files = Json::array();  ///< [{path, code, originalPath?}], at most `maximumListedFiles`
};

/// One checkout. All operations throw HostError ("git_failed" with git's own words, "timeout", "stopping").
class Repository {
public:
    /// Opens the checkout whose top is `folder` (resolved). Throws HostError "not_a_repository",
    /// "untrusted_repository" (it belongs to another user), "outside_root" (its git folder lies elsewhere).
    Repository(const Request& request, std::filesystem::path folder);

    const std::filesystem::path& folder() const noexcept { return folder_; }
    std::string name() const { return folder_.filename().string(); }

    std::optional<std::string> headSha() const;        ///< Nothing before the first commit.
    std::optional<std::string> currentBranch() const;  ///< Nothing when HEAD is detached.
    Status status() const;
    std::vector<Remote> remotes() const;  ///< In the order of the configuration.
    Json branches() const;                ///< [{name, sha, current, upstream?, …}]
    Json
    commits(std::int64_t count) const;  ///< [{sha, authorName, authorEmail, date, subject}], newest first
    std::vector<std::string> recentShas() const;  ///< Newest first, at most `recentCommitCount`.

    /// The oldest commit without parents; nothing before the first commit and in a shallow clone, whose
    /// oldest commit is not the project's first.
    std::optional<std::string> firstCommitSha() const;

private:
    /// The output of a command that has to succeed.
    std::string ask(const std::vector<std::string>& arguments,
                    const std::vector<ConfigEntry>& overrides = {}) const;
    /// The output of a command whose exit code 1 means "there is none"; empty then.
    std::string askForSome(const std::vector<std::string>& arguments) const;
    std::filesystem::path askForPath(const char* question) const;
    std::vector<ConfigEntry> withoutFilters() const;

    const Request& request_;
    std::filesystem::path folder_;
};

/// The remote a person would mean: "origin", else the first; null when there is none.
const Remote* primaryRemote(const std::vector<Remote>& remotes);

}  // namespace tidewell::standin
