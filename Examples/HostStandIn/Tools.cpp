#include "Tools.hpp"

#include "Repository.hpp"

#include <algorithm>

namespace tidewell::standin {

namespace fs = std::filesystem;

namespace {

constexpr std::int64_t defaultCommitCount = 20;
constexpr std::int64_t maximumCommitCount = 200;

/// One request: where to look, how long, and the arguments, asked for by name and type. A wrong one throws
/// HostError "invalid_params".
class Request {
public:
    Request(const Root& servedRoot, Deadline untilWhen, const Json& arguments)
        : root(servedRoot),
          deadline(untilWhen),
          arguments_(arguments.is_null() ? Json::object() : arguments) {
        if (!arguments_.is_object()) throw HostError("invalid_params", "`args` must be an object");
    }

    const Root& root;
    const Deadline deadline;

    std::string text(const char* name) const {
        const Json* value = find(name);
        if (value == nullptr) throw wrong(name, "is required");
        // To git and to the system, a path would end at a NUL.
        if (!value->is_string() || *value == "" ||
            value->get<std::string>().find('\0') != std::string::npos) {
            throw wrong(name, "must be a text without NUL");
        }
        return *value;
    }

    /// A whole number, 0 or more. The server turns the numbers 1 and 0 inside arguments into true and false,
    /// so a client's "limit": 1 arrives as true; a host has to take both for the number.
    std::optional<std::int64_t> optionalCount(const char* name) const {
        const Json* value = find(name);
        if (value == nullptr) return std::nullopt;
        if (value->is_boolean()) return value->get<bool>() ? 1 : 0;
        if (!value->is_number_unsigned()) throw wrong(name, "must be a whole number, 0 or more");
        return static_cast<std::int64_t>(std::min<std::uint64_t>(value->get<std::uint64_t>(), INT32_MAX));
    }

    fs::path folder() const { return root.resolve(text("path")); }
    Repository repository() const { return {folder(), deadline}; }

private:
    const Json* find(const char* name) const {
        const auto found = arguments_.find(name);
        return found == arguments_.end() || found->is_null() ? nullptr : &*found;
    }

    static HostError wrong(const char* name, const std::string& how) {
        return {"invalid_params", "`" + std::string(name) + "` " + how};
    }

    Json arguments_;
};

// MARK: pieces of replies

template <class Value>
void addIfKnown(Json& object, const char* key, const std::optional<Value>& value) {
    if (value) object[key] = *value;
}

/// The members that every answer about a folder begins with.
Json identity(const Root& root, const fs::path& folder) {
    return {{"repoId", root.idOf(folder)}, {"name", folder.filename().string()}, {"path", folder.string()}};
}

void addPosition(Json& object, Repository& repository) {
    const std::optional<std::string> branch = repository.branch();
    object["detached"] = !branch;
    addIfKnown(object, "branch", branch);
    addIfKnown(object, "headSha", repository.headSha());
}

/// A repository that cannot be read reports that in its own entry; the rest of the list is unaffected.
Json listed(const Request& request, const fs::path& folder) {
    Json entry = identity(request.root, folder);
    try {
        const Repository repository(folder, request.deadline);
        addIfKnown(entry, "branch", repository.branch());
        for (const Json& remote : repository.remotes()) {
            // The one that a person would mean: "origin", else the first.
            if (!remote.contains("fetchURL") || (entry.contains("remoteURL") && remote["name"] != "origin"))
                continue;
            entry["remoteURL"] = remote["fetchURL"];
        }
    } catch (const HostError& error) {
        checkTime(request.deadline);  // running out of time is not this repository's fault
        entry["problem"] = {{"code", error.code()}, {"message", error.what()}};
    }
    return entry;
}

// MARK: the tools

Json listLocalRepositories(const Request& request) {
    const Scan scan = request.root.findRepositories(request.deadline);
    Json repositories = Json::array();
    for (const fs::path& folder : scan.repositories) repositories.push_back(listed(request, folder));
    return {{"repositories", std::move(repositories)}, {"complete", scan.complete}};
}

Json inspectRepository(const Request& request) {
    Repository repository = request.repository();
    Json result = identity(request.root, request.folder());
    addPosition(result, repository);
    result["remotes"] = repository.remotes();
    result["status"] = repository.status()["counts"];
    Json commits = repository.commits(1);
    if (!commits.empty()) result["lastCommit"] = std::move(commits.front());
    return result;
}

Json readRemote(const Request& request) { return {{"remotes", request.repository().remotes()}}; }

Json readBranches(const Request& request) {
    Repository repository = request.repository();
    Json result{{"branches", repository.branches()}};
    addIfKnown(result, "currentBranch", repository.branch());
    return result;
}

Json readCommits(const Request& request) {
    Repository repository = request.repository();
    std::int64_t limit = request.optionalCount("limit").value_or(defaultCommitCount);
    if (limit == 0 || limit > maximumCommitCount) limit = maximumCommitCount;  // 0: all, as for every `limit`
    Json commits = repository.commits(limit + 1);  // one more tells whether more follow
    const bool hasMore = commits.size() > static_cast<std::size_t>(limit);
    if (hasMore) commits.erase(commits.size() - 1);
    return {{"commits", std::move(commits)}, {"hasMore", hasMore}};
}

Json readStatus(const Request& request) {
    Repository repository = request.repository();
    Json result = repository.status();
    addPosition(result, repository);
    return result;
}

Json computeFingerprint(const Request& request) { return request.repository().fingerprint(); }

Json readResource(const Request& request) {
    constexpr const char* localRepositories = "tidewell://repositories/local";
    const std::string uri = request.text("uri");
    if (uri == localRepositories) return listLocalRepositories(request);
    throw HostError("not_supported", "the stand-in has no resource " + uri,
                    std::string("it answers ") + localRepositories);
}

struct ToolRow {
    std::string_view name;
    Json (*answer)(const Request&);
};

constexpr ToolRow toolRows[] = {
    {"list_local_repositories", listLocalRepositories},
    {"inspect_local_git_repo", inspectRepository},
    {"read_git_remote", readRemote},
    {"read_git_branches", readBranches},
    {"read_git_commits", readCommits},
    {"read_git_status", readStatus},
    {"compute_repo_fingerprint", computeFingerprint},
    {"resources/read", readResource},
};

Json answer(std::string_view line, const Root& root, Deadline deadline) {
    const Json envelope = Json::parse(line, nullptr, false);
    if (!envelope.is_object() || !envelope.contains("tool") || !envelope["tool"].is_string()) {
        throw HostError("invalid_request", "the line is not a JSON object with a \"tool\"",
                        R"(send {"tool":"…","args":{…},"requestId":"…"} and a line feed)");
    }
    const std::string tool = envelope["tool"];
    std::string known;
    for (const ToolRow& row : toolRows) {
        if (row.name == tool) return row.answer({root, deadline, envelope.value("args", Json())});
        known += (known.empty() ? "" : ", ") + std::string(row.name);
    }
    throw HostError("not_supported", "the stand-in does not answer " + tool, "it answers " + known);
}

std::string lineOf(const Json& reply) {
    // "replace": names and commit texts are bytes to git; a reply is UTF-8 all the same.
    return reply.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
}

}  // namespace

std::string replyTo(std::string_view line, const Root& root, Deadline deadline) {
    try {
        return lineOf({{"ok", true}, {"result", answer(line, root, deadline)}});
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
