// Repository.hpp: what one checkout says about itself, asked through git, although the checkout is not trusted.
//
// A repository's own configuration can name programs that git would start, and files elsewhere that git would
// read. So git never sees that configuration. It gets a private git folder with one of ours; of the repository's
// own settings only those in `harmlessSettings` count. The private folder links to the repository's data,
// but only after a check that this data is plain files in plain folders.
#pragma once

#include "Git.hpp"
#include "Root.hpp"

#include <nlohmann/json.hpp>

#include <cstdint>
#include <memory>
#include <optional>

namespace tidewell::standin {

using Json = nlohmann::json;

inline constexpr std::size_t maximumListedFiles = 1000;  ///< of one status; the counts cover all of them
inline constexpr std::int64_t recentCommitCount = 10;    ///< in a fingerprint

/// One checkout. All operations throw HostError: "git_failed" with git's own words, "not_a_repository" when
/// its data lies elsewhere, "timeout", "stopping". What is unknown is left out of the answers.
class Repository {
public:
    /// `folder` is resolved. Throws HostError "not_a_repository" when it is not the top of an ordinary one.
    Repository(std::filesystem::path folder, Deadline deadline);

    std::optional<std::string> branch() const;  ///< Nothing when HEAD is detached.
    Json remotes() const;                       ///< [{name, fetchURL?, pushURL?}], without credentials
    std::optional<std::string> headSha();       ///< Nothing before the first commit.
    Json status();                              ///< {counts, files: [{path, code, originalPath?}], complete}
    Json branches();                            ///< [{name, sha, lastCommitAt}]
    Json commits(std::int64_t count);  ///< [{sha, authorName, authorEmail, date, subject}], newest first
    Json fingerprint();                ///< {firstCommitSha?, recentShas}

private:
    struct Setting {
        std::string key, value;
    };

    /// The output of a command that has to succeed, or to fail in silence with exit code 1 where `orNothing`.
    std::string ask(const std::vector<std::string>& arguments, bool orNothing = false);
    void makePrivateFolder();

    std::filesystem::path folder_;
    Deadline deadline_;
    std::vector<Setting> settings_;
    std::shared_ptr<const std::filesystem::path> privateFolder_;  ///< Removes itself; made when first needed.
};

/// `url` without user name and password. The user name of an ssh URL stays: it is needed and not a secret.
std::string withoutCredentials(const std::string& url);

}  // namespace tidewell::standin
