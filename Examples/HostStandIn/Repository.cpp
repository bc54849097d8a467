#include "Repository.hpp"

#include "RemoteURL.hpp"

#include <algorithm>
#include <charconv>
#include <string_view>

#include <sys/stat.h>
#include <unistd.h>

namespace tidewell::standin {

namespace fs = std::filesystem;

namespace {

bool belongsToUser(const fs::path& path) {
    struct stat facts {};
    return ::stat(path.c_str(), &facts) == 0 && facts.st_uid == ::geteuid();
}

/// Cuts the text up to `separator` off the front of `text` and gives it; the whole text when there is none.
std::string_view cut(std::string_view& text, char separator) {
    const std::size_t end = std::min(text.find(separator), text.size());
    const std::string_view part = text.substr(0, end);
    text.remove_prefix(std::min(end + 1, text.size()));
    return part;
}

std::string firstLine(std::string_view text) { return std::string(cut(text, '\n')); }

/// The number that follows `mark`; 0 when there is none.
std::int64_t numberAfter(std::string_view text, std::string_view mark) {
    std::int64_t value = 0;
    if (const std::size_t at = text.find(mark); at != std::string_view::npos) {
        std::from_chars(text.data() + at + mark.size(), text.data() + text.size(), value);
    }
    return value;
}

HostError failureOf(const std::vector<std::string>& arguments, const GitResult& result) {
    return {"git_failed", "git " + arguments.front() + " failed with exit code " +
                              std::to_string(result.exitCode) + ": " + firstLine(result.complaint)};
}

/// Whether everything git would read for a repository lies below the root: its two folders, what links in
/// them lead to, and the object stores it borrows from.
bool keepsToItself(const Root& root, const fs::path& gitFolder, const fs::path& commonFolder) {
    std::error_code error;
    const auto isInside = [&](const fs::path& path) {
        const fs::path resolved = fs::weakly_canonical(path, error);
        return !error && root.holds(resolved);
    };
    const fs::path objects = commonFolder / "objects";
    for (const fs::path& folder : {gitFolder, commonFolder, objects}) {
        if (!isInside(folder)) return false;
        for (fs::directory_iterator entry(folder, error), end; !error && entry != end;
             entry.increment(error)) {
            if (entry->is_symlink(error) && !isInside(entry->path())) return false;
        }
        if (error) return false;
    }
    const std::string alternates = root.readFile(objects / "info/alternates").value_or("");
    for (std::string_view rest = alternates; !rest.empty();) {
        if (!isInside(objects / cut(rest, '\n'))) return false;
    }
    return true;
}

}  // namespace

Repository::Repository(const Request& request, fs::path folder)
    : request_(request), folder_(std::move(folder)) {
    if (!isCheckout(folder_)) {
        throw HostError("not_a_repository", "there is no git checkout at " + request.root.idOf(folder_),
                        "give the top folder of a checkout; bare repositories are not served");
    }
    // Naming the repository outright skips git's own check of ownership.
    if (!belongsToUser(folder_) || !belongsToUser(folder_ / ".git")) {
        throw HostError("untrusted_repository", request.root.idOf(folder_) + " belongs to another user");
    }
    // A `.git` file, a link or a `commondir` may lead to any repository of this machine.
    if (!keepsToItself(request.root, askForPath("--absolute-git-dir"), askForPath("--git-common-dir"))) {
        throw HostError("outside_root", "the repository's data lies outside the served folder");
    }
}

std::string Repository::ask(const std::vector<std::string>& arguments,
                            const std::vector<ConfigEntry>& overrides) const {
    GitResult result = runGit(request_, folder_, arguments, overrides);
    if (result.exitCode != 0) throw failureOf(arguments, result);
    return std::move(result.output);
}

std::string Repository::askForSome(const std::vector<std::string>& arguments) const {
    GitResult result = runGit(request_, folder_, arguments);
    if (result.exitCode == 1 && result.complaint.empty()) return {};
    if (result.exitCode != 0) throw failureOf(arguments, result);
    return std::move(result.output);
}

fs::path Repository::askForPath(const char* question) const {
    std::string path = ask({"rev-parse", question});
    if (path.ends_with('\n')) path.pop_back();  // one: the name itself may end with another
    return folder_ / path;                      // git answers some questions relative to the folder
}

std::optional<std::string> Repository::headSha() const {
    const std::string sha = firstLine(askForSome({"rev-parse", "--verify", "--quiet", "HEAD"}));
    return sha.empty() ? std::nullopt : std::optional(sha);
}

std::optional<std::string> Repository::currentBranch() const {
    const std::string name = firstLine(askForSome({"symbolic-ref", "--quiet", "HEAD"}));
    constexpr std::string_view prefix = "refs/heads/";
    return name.starts_with(prefix) ? std::optional(name.substr(prefix.size())) : std::nullopt;
}

// To see whether a file changed, status may run the "clean" filter that the repository names for it. An empty
// `process` that outranks the repository's switches a filter off; it must not be a required one then.
std::vector<ConfigEntry> Repository::withoutFilters() const {
    std::vector<ConfigEntry> overrides;
    const std::string keys = askForSome({"config", "-z", "--name-only", "--get-regexp", "^filter\\."});
    for (std::string_view rest = keys; !rest.empty();) {
        const std::string_view key = cut(rest, '\0');
        const std::string filter(key.substr(0, key.rfind('.')));
        overrides.push_back({filter + ".process", ""});
        overrides.push_back({filter + ".required", "false"});
    }
    return overrides;
}

namespace {

void readHeader(std::string_view header, Status& status) {
    const std::string_view key = cut(header, ' ');
    if (key == "branch.upstream") status.upstream = header;
    if (key == "branch.ab") {  // "+1 -2"
        status.ahead = numberAfter(header, "+");
        status.behind = numberAfter(header, "-");
    }
}

/// One record of `git status --porcelain=v2 -z`. Above the path stand fields separated by one blank each:
///     1 XY sub mH mI mW hH hI path                   changed
///     2 XY sub mH mI mW hH hI score path NUL origin  renamed or copied
///     u XY sub m1 m2 m3 mW h1 h2 h3 path             conflicted
///     ? path                                         untracked
void readRecord(std::string_view record, std::string_view& rest, Status& status) {
    const std::string_view kind = cut(record, ' ');
    if (kind == "#") return readHeader(record, status);
    const int fieldsBeforePath = kind == "1" ? 7 : kind == "2" ? 8 : kind == "u" ? 9 : 0;
    // Version 1 of the format, whose two letters are reported, writes a blank for "unchanged".
    std::string code = kind == "?" ? "??" : std::string(record.substr(0, 2));
    std::replace(code.begin(), code.end(), '.', ' ');
    for (int field = 0; field < fieldsBeforePath; ++field) cut(record, ' ');

    Json file{{"path", record}, {"code", code}};
    if (kind == "2") file["originalPath"] = cut(rest, '\0');
    if (kind == "?") {
        ++status.untracked;
    } else if (kind == "u") {
        ++status.conflicted;
    } else {
        if (code[0] != ' ') ++status.staged;
        if (code[1] != ' ') ++status.unstaged;
    }
    ++status.fileCount;
    if (status.files.size() < maximumListedFiles) status.files.push_back(std::move(file));
}

}  // namespace

Status Repository::status() const {
    Status status;
    status.head = headSha();
    status.branch = currentBranch();
    // "dirty": a submodule is judged by its commit alone. Looking inside would start a git of its own in
    // there, one that listens to the submodule's configuration and not to ours.
    const std::string answer = ask({"status", "--porcelain=v2", "-z", "--branch", "--untracked-files=normal",
                                    "--ignore-submodules=dirty", "--find-renames"},
                                   withoutFilters());
    for (std::string_view rest = answer; !rest.empty();) {
        const std::string_view record = cut(rest, '\0');
        readRecord(record, rest, status);
    }
    return status;
}

std::vector<Remote> Repository::remotes() const {
    // From the configuration, because `git remote -v` cannot tell a line feed in a URL from the next remote;
    // and without includes, because they may quote any file of this machine.
    const std::string entries =
        askForSome({"config", "-z", "--no-includes", "--get-regexp", "^remote\\..+\\.(url|pushurl)$"});
    std::vector<Remote> remotes;
    for (std::string_view rest = entries; !rest.empty();) {
        std::string_view value = cut(rest, '\0');
        std::string_view name = cut(value, '\n');
        name.remove_prefix(std::string_view("remote.").size());
        const bool isPush = name.ends_with(".pushurl");
        name = name.substr(0, name.rfind('.'));

        auto remote =
            std::find_if(remotes.begin(), remotes.end(), [&](const Remote& r) { return r.name == name; });
        if (remote == remotes.end()) remote = remotes.insert(remote, Remote{std::string(name), {}, {}});
        std::string& url = isPush ? remote->pushURL : remote->fetchURL;
        if (url.empty()) url = withoutCredentials(std::string(value));  // of several, git takes the first
    }
    for (Remote& remote : remotes) {
        if (remote.pushURL.empty()) remote.pushURL = remote.fetchURL;
    }
    return remotes;
}

Json Repository::branches() const {
    // No name of a branch holds a line feed or a NUL.
    const std::string lines =
        ask({"for-each-ref", "--sort=refname",
             "--format=%(refname:lstrip=2)%00%(objectname)%00%(HEAD)%00%(committerdate:iso-strict)"
             "%00%(upstream:lstrip=2)%00%(upstream:track,nobracket)",
             "refs/heads/"});
    Json branches = Json::array();
    for (std::string_view rest = lines; !rest.empty();) {
        std::string_view line = cut(rest, '\n');
        Json branch;
        branch["name"] = cut(line, '\0');
        branch["sha"] = cut(line, '\0');
        branch["current"] = cut(line, '\0') == "*";
        branch["lastCommitAt"] = cut(line, '\0');
        if (const std::string_view upstream = cut(line, '\0'); !upstream.empty()) {
            branch["upstream"] = upstream;
            branch["upstreamGone"] = line == "gone";
            if (line != "gone") {  // "ahead 1, behind 2", or one of them; nothing when level
                branch["ahead"] = numberAfter(line, "ahead ");
                branch["behind"] = numberAfter(line, "behind ");
            }
        }
        branches.push_back(std::move(branch));
    }
    return branches;
}

Json Repository::commits(std::int64_t count) const {
    Json commits = Json::array();
    if (!headSha()) return commits;
    const std::string fields =
        ask({"log", "-z", "--max-count=" + std::to_string(count), "--no-ext-diff", "--no-textconv",
             "--no-notes", "--no-patch", "--format=%H%x00%an%x00%ae%x00%aI%x00%s", "HEAD", "--"});
    for (std::string_view rest = fields; !rest.empty();) {
        Json commit;
        for (const char* key : {"sha", "authorName", "authorEmail", "date", "subject"}) {
            commit[key] = cut(rest, '\0');
        }
        commits.push_back(std::move(commit));
    }
    return commits;
}

std::vector<std::string> Repository::recentShas() const {
    std::vector<std::string> shas;
    if (!headSha()) return shas;
    const std::string lines =
        ask({"rev-list", "--max-count=" + std::to_string(recentCommitCount), "HEAD", "--"});
    for (std::string_view rest = lines; !rest.empty();) shas.emplace_back(cut(rest, '\n'));
    return shas;
}

std::optional<std::string> Repository::firstCommitSha() const {
    if (!headSha() || firstLine(ask({"rev-parse", "--is-shallow-repository"})) == "true") return std::nullopt;
    std::string lines = ask({"rev-list", "--max-parents=0", "HEAD", "--"});
    if (lines.ends_with('\n')) lines.pop_back();
    return lines.substr(lines.rfind('\n') + 1);  // the list runs from the newest to the oldest
}

const Remote* primaryRemote(const std::vector<Remote>& remotes) {
    const auto named =
        std::find_if(remotes.begin(), remotes.end(), [](const Remote& r) { return r.name == "origin"; });
    if (named != remotes.end()) return &*named;
    return remotes.empty() ? nullptr : &remotes.front();
}

}  // namespace tidewell::standin
