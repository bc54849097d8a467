#include "Tools.hpp"

#include "Project.hpp"
#include "RemoteURL.hpp"
#include "Repository.hpp"

#include <algorithm>

namespace tidewell::standin {

namespace fs = std::filesystem;

namespace {

/// The arguments of one call, asked for by name and type. A wrong one throws HostError "invalid_params".
class Arguments {
public:
    explicit Arguments(Json values) : values_(values.is_null() ? Json::object() : std::move(values)) {
        if (!values_.is_object()) throw HostError("invalid_params", "`args` must be an object");
    }

    std::string text(const char* name) const {
        const std::optional<std::string> value = optionalText(name);
        if (!value || value->empty()) throw wrong(name, "is required");
        return *value;
    }

    std::optional<std::string> optionalText(const char* name) const {
        const Json* value = find(name);
        if (value == nullptr) return std::nullopt;
        if (!value->is_string()) throw wrong(name, "must be a string");
        const auto& text = value->get_ref<const std::string&>();
        // A path would silently end there, in git's eyes and in the system's.
        if (text.find('\0') != std::string::npos) throw wrong(name, "must hold no NUL");
        return text;
    }

    /// A whole number from 0 on. The server turns the numbers 1 and 0 inside arguments into true and false,
    /// so a client's "limit": 1 arrives as true; a host has to take both for the number.
    std::optional<std::int64_t> optionalCount(const char* name) const {
        const Json* value = find(name);
        if (value == nullptr) return std::nullopt;
        if (value->is_boolean()) return value->get<bool>() ? 1 : 0;
        if (!value->is_number_unsigned()) throw wrong(name, "must be a whole number, 0 or more");
        return static_cast<std::int64_t>(std::min<std::uint64_t>(value->get<std::uint64_t>(), INT32_MAX));
    }

private:
    const Json* find(const char* name) const {
        const auto found = values_.find(name);
        return found == values_.end() || found->is_null() ? nullptr : &*found;
    }

    static HostError wrong(const char* name, const std::string& how) {
        return {"invalid_params", "`" + std::string(name) + "` " + how};
    }

    Json values_;
};

// MARK: pieces of replies

template <class Value>
void addIfKnown(Json& object, const char* key, const std::optional<Value>& value) {
    if (value) object[key] = *value;
}

fs::path folderAt(const Request& request, const std::string& text) {
    fs::path folder = request.root.resolve(text);
    if (!fs::is_directory(folder)) throw HostError("not_found", text + " is no folder");
    return folder;
}

Repository repositoryAt(const Request& request, const std::string& text) {
    return Repository(request, folderAt(request, text));
}

/// repoId, name and path: how every reply about a folder begins.
Json identity(const Request& request, const fs::path& folder) {
    return {{"repoId", request.root.idOf(folder)},
            {"name", folder.filename().string()},
            {"path", folder.string()}};
}

Json remotesOf(const Repository& repository) {
    Json remotes = Json::array();
    for (const Remote& remote : repository.remotes()) {
        Json entry{{"name", remote.name}};
        if (!remote.fetchURL.empty()) entry["fetchURL"] = remote.fetchURL;
        if (!remote.pushURL.empty()) entry["pushURL"] = remote.pushURL;
        addIfKnown(entry, "ownerRepo", ownerAndRepository(remote.fetchURL));
        remotes.push_back(std::move(entry));
    }
    return remotes;
}

Json positionOf(const Status& status) {
    Json position{{"detached", !status.branch}};
    addIfKnown(position, "branch", status.branch);
    addIfKnown(position, "headSha", status.head);
    return position;
}

Json countsOf(const Status& status) {
    return {{"clean", status.fileCount == 0},  {"staged", status.staged},
            {"unstaged", status.unstaged},     {"untracked", status.untracked},
            {"conflicted", status.conflicted}, {"total", status.fileCount}};
}

Json syncStateOf(const Status& status) {
    Json sync{{"hasUpstream", status.upstream.has_value()}};
    addIfKnown(sync, "upstream", status.upstream);
    addIfKnown(sync, "ahead", status.ahead);
    addIfKnown(sync, "behind", status.behind);
    return sync;
}

void addLastCommit(Json& object, const Repository& repository) {
    Json commits = repository.commits(1);
    if (!commits.empty()) object["lastCommit"] = std::move(commits.front());
}

/// identity, and the remote's URL as far as there is one. A repository that cannot be read says so itself and
/// does not spoil the list.
Json listed(const Request& request, const fs::path& folder) {
    Json entry = identity(request, folder);
    try {
        const Repository repository(request, folder);
        const std::vector<Remote> remotes = repository.remotes();
        addIfKnown(entry, "branch", repository.currentBranch());
        const Remote* remote = primaryRemote(remotes);
        if (remote != nullptr && !remote->fetchURL.empty()) entry["remoteURL"] = remote->fetchURL;
    } catch (const HostError& error) {
        request.checkTime();  // out of time is no property of this repository
        entry["problem"] = {{"code", error.code()}, {"message", error.what()}};
    }
    return entry;
}

int scanDepth(const Arguments& arguments) {
    const std::int64_t wanted = arguments.optionalCount("maxDepth").value_or(defaultScanDepth);
    return static_cast<int>(std::min<std::int64_t>(wanted, maximumScanDepth));
}

std::string lowerCase(std::string text) {
    for (char& c : text) c = c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
    return text;
}

// MARK: the tools

Json listLocalRepositories(const Request& request, const Arguments&) {
    const Scan scan = findRepositories(request, request.root.path(), defaultScanDepth);
    Json repositories = Json::array();
    for (const fs::path& folder : scan.repositories) repositories.push_back(listed(request, folder));
    return {{"repositories", std::move(repositories)}, {"complete", scan.complete}};
}

// Mappings live in the desktop application; the stand-in knows of none and so says nothing about them.
Json getRepository(const Request& request, const Arguments& arguments) {
    const Repository repository = repositoryAt(request, arguments.text("repoId"));
    const Status status = repository.status();
    Json result = identity(request, repository.folder());
    result["local"] = positionOf(status);
    addLastCommit(result["local"], repository);
    result["remotes"] = remotesOf(repository);
    result["syncState"] = syncStateOf(status);
    return result;
}

Json getRepositoryStatus(const Request& request, const Arguments& arguments) {
    const Repository repository = repositoryAt(request, arguments.text("repoId"));
    const Status status = repository.status();
    Json snapshot = positionOf(status);
    snapshot["counts"] = countsOf(status);
    addLastCommit(snapshot, repository);
    return {{"repoId", request.root.idOf(repository.folder())},
            {"snapshot", std::move(snapshot)},
            {"syncState", syncStateOf(status)}};
}

Json scanFolder(const Request& request, const Arguments& arguments) {
    const fs::path start = folderAt(request, arguments.text("rootPath"));
    const int depth = scanDepth(arguments);
    const Scan scan = findRepositories(request, start, depth);
    Json repositories = Json::array();
    for (const fs::path& folder : scan.repositories) repositories.push_back(identity(request, folder));
    return {{"rootPath", start.string()},
            {"maxDepth", depth},
            {"repositories", std::move(repositories)},
            {"complete", scan.complete}};
}

Json searchProjects(const Request& request, const Arguments& arguments) {
    const fs::path start = folderAt(request, arguments.text("rootPath"));
    const std::string query = lowerCase(arguments.optionalText("query").value_or(""));
    const Scan scan = findRepositories(request, start, scanDepth(arguments));
    Json projects = Json::array();
    for (const fs::path& folder : scan.repositories) {
        Json entry = listed(request, folder);
        const std::string searched = request.root.idOf(folder) + '\n' + folder.filename().string() + '\n' +
                                     entry.value("remoteURL", "");
        if (lowerCase(searched).find(query) != std::string::npos) projects.push_back(std::move(entry));
    }
    return {{"rootPath", start.string()}, {"projects", std::move(projects)}, {"complete", scan.complete}};
}

Json inspectRepository(const Request& request, const Arguments& arguments) {
    const Repository repository = repositoryAt(request, arguments.text("path"));
    const Status status = repository.status();
    Json result = identity(request, repository.folder());
    result.update(positionOf(status));
    result["remotes"] = remotesOf(repository);
    result["status"] = countsOf(status);
    result["syncState"] = syncStateOf(status);
    addLastCommit(result, repository);
    return result;
}

Json readRemote(const Request& request, const Arguments& arguments) {
    return {{"remotes", remotesOf(repositoryAt(request, arguments.text("path")))}};
}

Json readBranches(const Request& request, const Arguments& arguments) {
    const Repository repository = repositoryAt(request, arguments.text("path"));
    Json result{{"branches", repository.branches()}};
    addIfKnown(result, "currentBranch", repository.currentBranch());
    return result;
}

Json readCommits(const Request& request, const Arguments& arguments) {
    const Repository repository = repositoryAt(request, arguments.text("path"));
    std::int64_t limit = arguments.optionalCount("limit").value_or(defaultCommitCount);
    if (limit == 0 || limit > maximumCommitCount) limit = maximumCommitCount;  // 0: all, as for every `limit`
    Json commits = repository.commits(limit + 1);  // one more tells whether more follow
    const bool hasMore = commits.size() > static_cast<std::size_t>(limit);
    if (hasMore) commits.erase(commits.size() - 1);
    return {{"commits", std::move(commits)}, {"hasMore", hasMore}};
}

Json readStatus(const Request& request, const Arguments& arguments) {
    Status status = repositoryAt(request, arguments.text("path")).status();
    Json result = positionOf(status);
    result["counts"] = countsOf(status);
    result["complete"] = status.files.size() == static_cast<std::size_t>(status.fileCount);
    result["files"] = std::move(status.files);
    return result;
}

Json computeFingerprint(const Request& request, const Arguments& arguments) {
    const Repository repository = repositoryAt(request, arguments.text("path"));
    const std::vector<Remote> remotes = repository.remotes();
    Json result{{"recentShas", repository.recentShas()}};
    addIfKnown(result, "firstCommitSha", repository.firstCommitSha());
    if (const Remote* remote = primaryRemote(remotes)) {
        addIfKnown(result, "remoteOwnerRepo", ownerAndRepository(remote->fetchURL));
    }
    addIfKnown(result, "pkgName", packageName(request.root, repository.folder()));
    addIfKnown(result, "readmeTitle", readmeTitle(request.root, repository.folder()));
    return result;
}

Json inferProject(const Request& request, const Arguments& arguments) {
    return inferMetadata(request.root, folderAt(request, arguments.text("path")));
}

Json readResource(const Request& request, const Arguments& arguments) {
    constexpr const char* localRepositories = "tidewell://repositories/local";
    const std::string uri = arguments.text("uri");
    if (uri == localRepositories) return listLocalRepositories(request, arguments);
    throw HostError("not_supported", "the stand-in has no resource " + uri,
                    std::string("it answers ") + localRepositories);
}

struct ToolRow {
    std::string_view name;
    Json (*answer)(const Request&, const Arguments&);
};

constexpr ToolRow toolRows[] = {
    {"list_local_repositories", listLocalRepositories},
    {"get_repository", getRepository},
    {"get_repository_status", getRepositoryStatus},
    {"search_local_projects", searchProjects},
    {"scan_folder_for_git_repos", scanFolder},
    {"inspect_local_git_repo", inspectRepository},
    {"read_git_remote", readRemote},
    {"read_git_branches", readBranches},
    {"read_git_commits", readCommits},
    {"read_git_status", readStatus},
    {"compute_repo_fingerprint", computeFingerprint},
    {"infer_project_metadata", inferProject},
    {"resources/read", readResource},
};

Json answer(std::string_view line, const Root& root, const StopSignal& stop) {
    Json envelope = Json::parse(line, nullptr, false);
    if (!envelope.is_object() || !envelope.contains("tool") || !envelope["tool"].is_string()) {
        throw HostError("invalid_request", "the line is no JSON object with a \"tool\"",
                        R"(send {"tool":"…","args":{…},"requestId":"…"} and a line feed)");
    }
    const std::string tool = envelope["tool"];
    const auto row = std::find_if(std::begin(toolRows), std::end(toolRows),
                                  [&](const ToolRow& candidate) { return candidate.name == tool; });
    if (row == std::end(toolRows)) {
        std::string known;
        for (const ToolRow& each : toolRows) known += (known.empty() ? "" : ", ") + std::string(each.name);
        throw HostError("not_supported", "the stand-in does not answer " + tool, "it answers " + known);
    }
    const Arguments arguments(envelope.value("args", Json()));
    return row->answer(Request{root, stop, Clock::now() + requestTimeLimit}, arguments);
}

std::string lineOf(const Json& reply) {
    // "replace": names and commit texts are bytes to git; a reply is UTF-8 all the same.
    return reply.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
}

}  // namespace

std::string replyTo(std::string_view line, const Root& root, const StopSignal& stop) {
    try {
        return lineOf({{"ok", true}, {"result", answer(line, root, stop)}});
    } catch (const HostError& error) {
        return replyWith(error);
    } catch (const std::exception& error) {
        return replyWith(HostError("internal_error", error.what()));
    }
}

std::string replyWith(const HostError& error) {
    Json record{{"code", error.code()}, {"message", error.what()}};
    if (!error.hint().empty()) record["hint"] = error.hint();
    return lineOf({{"ok", false}, {"error", std::move(record)}});
}

}  // namespace tidewell::standin
