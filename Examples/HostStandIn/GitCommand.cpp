#include "GitCommand.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <optional>
#include <string_view>
#include <system_error>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;  // NOLINT(readability-redundant-declaration): macOS does not declare it

namespace tidewell::standin {

namespace {

constexpr std::size_t maximumComplaintBytes = 4096;

struct Setting {
    const char *key, *value;
};

// Each row takes away a way in which a repository's own configuration makes git start a program.
constexpr std::array safeConfiguration = {
    Setting{"core.fsmonitor", "false"},          // asked by status which files changed
    Setting{"core.hooksPath", "/dev/null"},      // hooks
    Setting{"log.showSignature", "false"},       // gpg.program, for signed commits
    Setting{"protocol.allow", "never"},          // transports, should anything ever want to fetch
    Setting{"i18n.logOutputEncoding", "UTF-8"},  // not a program: replies are UTF-8
};

constexpr std::array safeEnvironment = {
    "GIT_CONFIG_NOSYSTEM=1",        // answers depend on the repository alone,
    "GIT_CONFIG_GLOBAL=/dev/null",  // not on who runs the stand-in
    "GIT_TERMINAL_PROMPT=0",        // and nobody is there to answer
    "GIT_NO_LAZY_FETCH=1",          // a partial clone would fetch what is missing, with programs it names
    "GIT_ALLOW_PROTOCOL=none",      // the same for a git too old to know the variable above
    "LC_ALL=C",
};

std::vector<std::string> environmentFor(const std::vector<ConfigEntry>& overrides) {
    std::vector<std::string> variables;
    for (char** variable = environ; *variable != nullptr; ++variable) {
        const std::string_view text = *variable;
        // GIT_DIR and its like would point every command at another repository.
        if (!text.starts_with("GIT_") && !text.starts_with("LC_ALL=")) variables.emplace_back(text);
    }
    variables.insert(variables.end(), safeEnvironment.begin(), safeEnvironment.end());

    // As variables and not as "-c key=value": a key taken from a repository may itself hold a "=".
    std::size_t count = 0;
    const auto add = [&](const std::string& key, const std::string& value) {
        variables.push_back("GIT_CONFIG_KEY_" + std::to_string(count) + "=" + key);
        variables.push_back("GIT_CONFIG_VALUE_" + std::to_string(count) + "=" + value);
        ++count;
    };
    for (const Setting& setting : safeConfiguration) add(setting.key, setting.value);
    for (const ConfigEntry& entry : overrides) add(entry.key, entry.value);
    variables.push_back("GIT_CONFIG_COUNT=" + std::to_string(count));
    return variables;
}

std::vector<char*> pointersTo(std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    pointers.reserve(texts.size() + 1);
    for (std::string& text : texts) pointers.push_back(text.data());
    pointers.push_back(nullptr);
    return pointers;
}

/// A started program, alone in its process group. What still runs of it is killed with this object.
class Child {
public:
    explicit Child(pid_t pid) noexcept : pid_(pid) {}
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;
    ~Child() {
        if (pid_ == 0) return;
        ::kill(-pid_, SIGKILL);
        while (::waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) continue;
    }

    /// The exit code once the program has ended; 128 plus the signal when one ended it. Ask no further then.
    std::optional<int> exitCode() {
        int status = 0;
        const pid_t ended = ::waitpid(pid_, &status, WNOHANG);
        if (ended == 0 || (ended < 0 && errno == EINTR)) return std::nullopt;
        pid_ = 0;
        if (ended < 0) return 128;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

private:
    pid_t pid_;
};

/// The two records posix_spawn wants, destroyed on every path.
struct SpawnPlan {
    posix_spawn_file_actions_t actions{};
    posix_spawnattr_t attributes{};

    SpawnPlan() {
        ::posix_spawn_file_actions_init(&actions);
        ::posix_spawnattr_init(&attributes);
    }
    SpawnPlan(const SpawnPlan&) = delete;
    SpawnPlan& operator=(const SpawnPlan&) = delete;
    ~SpawnPlan() {
        ::posix_spawn_file_actions_destroy(&actions);
        ::posix_spawnattr_destroy(&attributes);
    }
};

pid_t spawnGit(std::vector<std::string> arguments, std::vector<std::string> environment, const Pipe& output,
               const Pipe& complaint) {
    SpawnPlan plan;
    ::posix_spawn_file_actions_addopen(&plan.actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    ::posix_spawn_file_actions_adddup2(&plan.actions, output.writeEnd.get(), STDOUT_FILENO);
    ::posix_spawn_file_actions_adddup2(&plan.actions, complaint.writeEnd.get(), STDERR_FILENO);

    // A group of its own, so that one kill reaches git's own children too; and default signals, because the
    // ignored SIGPIPE of this process would be inherited.
    sigset_t none;
    sigset_t pipeOnly;
    ::sigemptyset(&none);
    ::sigemptyset(&pipeOnly);
    ::sigaddset(&pipeOnly, SIGPIPE);
    ::posix_spawnattr_setsigmask(&plan.attributes, &none);
    ::posix_spawnattr_setsigdefault(&plan.attributes, &pipeOnly);
    ::posix_spawnattr_setpgroup(&plan.attributes, 0);
    ::posix_spawnattr_setflags(&plan.attributes,
                               POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);

    pid_t pid = 0;
    const int failure = ::posix_spawnp(&pid, "git", &plan.actions, &plan.attributes,
                                       pointersTo(arguments).data(), pointersTo(environment).data());
    if (failure != 0) {
        throw HostError("git_failed", "git cannot be started: " + std::generic_category().message(failure),
                        "the stand-in needs git on its PATH");
    }
    return pid;
}

/// Reads both pipes to their end.
void gather(const Request& request, const Pipe& output, const Pipe& complaint, GitResult& result) {
    std::array<pollfd, 2> ends{{{output.readEnd.get(), POLLIN, 0}, {complaint.readEnd.get(), POLLIN, 0}}};
    std::array<char, 65536> chunk;
    while (ends[0].fd >= 0 || ends[1].fd >= 0) {
        if (waitFor(ends, request.deadline, request.stop) != Wait::ready) request.checkTime();
        for (std::size_t at = 0; at < ends.size(); ++at) {
            if (ends[at].fd < 0 || ends[at].revents == 0) continue;
            const ssize_t count = ::read(ends[at].fd, chunk.data(), chunk.size());
            if (count < 0 && errno == EINTR) continue;
            if (count <= 0) {
                ends[at].fd = -1;  // poll skips it from now on
                continue;
            }
            (at == 0 ? result.output : result.complaint)
                .append(chunk.data(), static_cast<std::size_t>(count));
        }
        if (result.complaint.size() > maximumComplaintBytes) result.complaint.resize(maximumComplaintBytes);
        if (result.output.size() > maximumGitOutputBytes) {
            throw HostError("git_failed", "git's answer is larger than " +
                                              std::to_string(maximumGitOutputBytes) + " bytes");
        }
    }
}

}  // namespace

GitResult runGit(const Request& request, const std::filesystem::path& folder,
                 const std::vector<std::string>& arguments, const std::vector<ConfigEntry>& overrides) {
    request.checkTime();
    // The repository is named outright: left to search, git would take one further up for a broken one here,
    // and would follow core.worktree to wherever the repository says.
    // Without optional locks, because status would otherwise rewrite the index.
    const std::string path = folder.string();
    std::vector<std::string> line{"git", "--no-pager", "--no-optional-locks", "-C", path};
    line.push_back("--git-dir=" + path + "/.git");
    line.push_back("--work-tree=" + path);
    line.insert(line.end(), arguments.begin(), arguments.end());

    std::unique_lock inheriting(inheritanceMutex());
    Pipe output = makePipe();
    Pipe complaint = makePipe();
    Child child(spawnGit(std::move(line), environmentFor(overrides), output, complaint));
    inheriting.unlock();
    output.writeEnd.reset();
    complaint.writeEnd.reset();

    const Request limited{request.root, request.stop,
                          std::min<Deadline>(request.deadline, Clock::now() + gitTimeLimit)};
    GitResult result;
    gather(limited, output, complaint, result);
    for (;;) {  // it has closed its output, so it is as good as gone
        if (const std::optional<int> code = child.exitCode()) {
            result.exitCode = *code;
            return result;
        }
        limited.checkTime();
        waitFor({}, Clock::now() + std::chrono::milliseconds(1), limited.stop);
    }
}

}  // namespace tidewell::standin
