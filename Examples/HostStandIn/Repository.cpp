#include "Repository.hpp"

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <string_view>

namespace tidewell::standin {

namespace fs = std::filesystem;

namespace {

// How files are compared, and where the remotes are. Nothing else in a configuration reaches git.
constexpr const char* harmlessSettings =
    R"(^(core\.(autocrlf|eol|filemode|ignorecase|precomposeunicode|symlinks)|remote\..+\.(url|pushurl))$)";

// What git needs from a git folder, apart from HEAD and the configuration.
constexpr const char* linkedData[] = {"index", "info", "objects", "packed-refs", "refs", "shallow"};

constexpr std::string_view branchPrefix = "refs/heads/";

/// Cuts the text up to `separator` off the front of `text` and returns it; the whole text when there is none.
std::string cut(std::string_view& text, char separator) {
    const std::size_t end = std::min(text.find(separator), text.size());
    std::string part(text.substr(0, end));
    text.remove_prefix(std::min(end + 1, text.size()));
    return part;
}

std::string firstLine(std::string_view text) { return cut(text, '\n'); }

HostError refusal(const std::string& reason) {
    return {
        "not_a_repository", reason,
        "give the top folder of an ordinary checkout; linked worktrees, submodules and bare repositories are "
        "not served"};
}

HostError failureOf(const std::string& command, const GitAnswer& answer) {
    return {"git_failed", "git " + command + " failed with exit code " + std::to_string(answer.exitCode) +
                              ": " + firstLine(answer.complaint)};
}

/// Throws unless `path`, and everything in it when it is a folder, is a plain file or a folder: a link would
/// lead git elsewhere, a FIFO would block it.
void requirePlain(const fs::path& path, Deadline deadline) {
    const auto check = [](const fs::path& each, fs::file_type type) {
        if (type == fs::file_type::regular || type == fs::file_type::directory) return;
        throw refusal(each.filename().string() + " in its git folder is not a plain file");
    };
    const fs::file_type type = fs::symlink_status(path).type();
    check(path, type);
    if (type != fs::file_type::directory) return;
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(path)) {
        if (Clock::now() >= deadline) checkTime(deadline);
        check(entry.path(), entry.symlink_status().type());
    }
}

}  // namespace

Repository::Repository(fs::path folder, Deadline deadline) : folder_(std::move(folder)), deadline_(deadline) {
    if (!isRepository(folder_)) throw refusal(folder_.filename().string() + " has no .git folder of its own");
    const fs::path config = folder_ / ".git/config";
    requirePlain(config, deadline);
    const GitAnswer answer = runGit(
        {"config", "--file", config.string(), "--no-includes", "--null", "--get-regexp", harmlessSettings},
        {"GIT_DIR=/dev/null"}, deadline);
    if (answer.exitCode > 1) throw failureOf("config", answer);
    for (std::string_view rest = answer.output; !rest.empty();) {
        const std::string setting = cut(rest, '\0');
        std::string_view value = setting;
        std::string key = cut(value, '\n');
        settings_.push_back({std::move(key), std::string(value)});
    }
}

std::optional<std::string> Repository::branch() const {
    std::string head;
    std::getline(std::ifstream(folder_ / ".git/HEAD"), head);
    const std::string prefix = "ref: " + std::string(branchPrefix);
    return head.starts_with(prefix) ? std::optional(head.substr(prefix.size())) : std::nullopt;
}

Json Repository::remotes() const {
    Json remotes = Json::array();
    for (const auto& [key, value] : settings_) {
        if (!key.starts_with("remote.")) continue;
        const std::size_t start = key.find('.') + 1;
        const std::size_t end = key.rfind('.');
        const std::string name = key.substr(start, end - start);
        const char* kind = key.substr(end) == ".url" ? "fetchURL" : "pushURL";
        auto remote =
            std::find_if(remotes.begin(), remotes.end(), [&](const Json& r) { return r["name"] == name; });
        if (remote == remotes.end()) remote = remotes.insert(remote, Json{{"name", name}});
        remote->emplace(kind, withoutCredentials(value));  // of several, git takes the first
    }
    return remotes;
}

void Repository::makePrivateFolder() {
    std::string pattern = (fs::temp_directory_path() / "tidewell-git-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr)
        throw HostError("internal_error", "there is no temporary folder");
    const auto removeFolder = [](const fs::path* made) {
        std::error_code ignored;
        fs::remove_all(*made, ignored);  // removes links, not their targets
        delete made;
    };
    std::shared_ptr<const fs::path> made(new fs::path(pattern), removeFolder);

    const fs::path git = folder_ / ".git";
    if (fs::exists(git / "objects/info/alternates"))
        throw refusal("it borrows objects of another repository");
    fs::copy_file(git / "HEAD", *made / "HEAD");
    std::ofstream(*made / "config") << "[core]\nrepositoryFormatVersion = 0\nbare = false\n";
    for (const char* name : linkedData) {
        if (fs::symlink_status(git / name).type() == fs::file_type::not_found) continue;
        requirePlain(git / name, deadline_);
        fs::create_symlink(git / name, *made / name);
    }
    privateFolder_ = std::move(made);
}

std::string Repository::ask(const std::vector<std::string>& arguments, bool orNothing) {
    if (!privateFolder_) makePrivateFolder();
    std::vector<std::string> environment{"GIT_DIR=" + privateFolder_->string(),
                                         "GIT_WORK_TREE=" + folder_.string(),
                                         "GIT_CONFIG_COUNT=" + std::to_string(settings_.size())};
    for (std::size_t at = 0; at < settings_.size(); ++at) {
        environment.push_back("GIT_CONFIG_KEY_" + std::to_string(at) + "=" + settings_[at].key);
        environment.push_back("GIT_CONFIG_VALUE_" + std::to_string(at) + "=" + settings_[at].value);
    }
    std::vector<std::string> line{"-C", folder_.string()};
    line.insert(line.end(), arguments.begin(), arguments.end());
    GitAnswer answer = runGit(std::move(line), std::move(environment), deadline_);
    if (orNothing && answer.exitCode == 1 && answer.complaint.empty()) return {};
    if (answer.exitCode != 0) throw failureOf(arguments.front(), answer);
    return std::move(answer.output);
}

std::optional<std::string> Repository::headSha() {
    const std::string sha = firstLine(ask({"rev-parse", "--verify", "--quiet", "HEAD"}, true));
    return sha.empty() ? std::nullopt : std::optional(sha);
}

Json Repository::status() {
    // "dirty": a submodule is judged by its commit alone. Looking inside would start a git that listens to the
    // submodule's own configuration.
    const std::string answer =
        ask({"status", "--porcelain=v1", "-z", "--untracked-files=normal", "--ignore-submodules=dirty"});
    Json files = Json::array();
    std::size_t staged = 0;
    std::size_t unstaged = 0;
    std::size_t untracked = 0;
    std::size_t conflicted = 0;
    std::size_t total = 0;
    for (std::string_view rest = answer; !rest.empty(); ++total) {
        const std::string record = cut(rest, '\0');  // two letters, a blank, the path
        const std::string code = record.substr(0, 2);
        Json file{{"path", record.substr(3)}, {"code", code}};
        if (code.find_first_of("RC") != std::string::npos) file["originalPath"] = cut(rest, '\0');
        if (code == "??") {
            ++untracked;
        } else if (code == "AA" || code == "DD" || code.find('U') != std::string::npos) {
            ++conflicted;
        } else {
            if (code[0] != ' ') ++staged;
            if (code[1] != ' ') ++unstaged;
        }
        if (files.size() < maximumListedFiles) files.push_back(std::move(file));
    }
    const bool complete = files.size() == total;
    return {{"counts",
             {{"clean", total == 0},
              {"staged", staged},
              {"unstaged", unstaged},
              {"untracked", untracked},
              {"conflicted", conflicted},
              {"total", total}}},
            {"files", std::move(files)},
            {"complete", complete}};
}

Json Repository::branches() {
    // No name of a branch holds a line feed or a NUL.
    const std::string lines =
        ask({"for-each-ref", "--sort=refname",
             "--format=%(refname:lstrip=2)%00%(objectname)%00%(committerdate:iso-strict)",
             std::string(branchPrefix)});
    Json branches = Json::array();
    for (std::string_view rest = lines; !rest.empty();) {
        const std::string line = cut(rest, '\n');
        std::string_view fields = line;
        Json branch;
        for (const char* key : {"name", "sha", "lastCommitAt"}) branch[key] = cut(fields, '\0');
        branches.push_back(std::move(branch));
    }
    return branches;
}

Json Repository::commits(std::int64_t count) {
    Json commits = Json::array();
    if (!headSha()) return commits;
    const std::string fields = ask({"log", "-z", "--max-count=" + std::to_string(count), "--no-patch",
                                    "--format=%H%x00%an%x00%ae%x00%aI%x00%s", "HEAD", "--"});
    for (std::string_view rest = fields; !rest.empty();) {
        Json commit;
        for (const char* key : {"sha", "authorName", "authorEmail", "date", "subject"}) {
            commit[key] = cut(rest, '\0');
        }
        commits.push_back(std::move(commit));
    }
    return commits;
}

Json Repository::fingerprint() {
    Json result{{"recentShas", Json::array()}};
    for (const Json& commit : commits(recentCommitCount)) result["recentShas"].push_back(commit["sha"]);
    // The oldest commit of a shallow clone is not the project's first.
    if (result["recentShas"].empty() || fs::exists(folder_ / ".git/shallow")) return result;
    std::string lines = ask({"rev-list", "--max-parents=0", "HEAD", "--"});
    lines.pop_back();
    result["firstCommitSha"] = lines.substr(lines.rfind('\n') + 1);  // from the newest to the oldest
    return result;
}

std::string withoutCredentials(const std::string& url) {
    constexpr std::string_view mark = "://";
    const std::size_t schemeEnd = url.find(mark);
    if (schemeEnd == std::string::npos) return url;  // "git@host:path" and local paths hold no password
    const std::size_t start = schemeEnd + mark.size();
    const std::size_t at = url.substr(0, url.find_first_of("/?#", start)).rfind('@');
    if (at == std::string::npos || at < start) return url;
    const bool isSSH = std::string_view(url).substr(0, schemeEnd).ends_with("ssh");
    const std::string user = url.substr(start, std::min(at, url.find(':', start)) - start);
    return url.substr(0, start) + (isSSH ? user + "@" : "") + url.substr(at + 1);
}

}  // namespace tidewell::standin
