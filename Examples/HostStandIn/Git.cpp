#include "Git.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;  // NOLINT(readability-redundant-declaration): macOS does not declare it

namespace tidewell::standin {

namespace {

constexpr std::array fixedEnvironment = {
    "GIT_CONFIG_NOSYSTEM=1",        // answers depend on the repository alone,
    "GIT_CONFIG_GLOBAL=/dev/null",  // not on who runs the stand-in
    "GIT_OPTIONAL_LOCKS=0",         // status would rewrite the index
    "GIT_ALLOW_PROTOCOL=none",      // nothing is fetched
    "LC_ALL=C",
};

constexpr std::size_t maximumComplaintBytes = 4096;
constexpr std::chrono::milliseconds exitPause{20};
constexpr int exitCannotStart = 127;

struct Pipe {
    Descriptor readEnd, writeEnd;

    Pipe() {
        std::array<int, 2> ends{};
        if (::pipe(ends.data()) < 0) throw HostError("internal_error", "no pipe is left for git");
        readEnd = Descriptor(ends[0]);
        writeEnd = Descriptor(ends[1]);
    }
};

std::vector<char*> pointersTo(std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    pointers.reserve(texts.size() + 1);
    for (std::string& text : texts) pointers.push_back(text.data());
    pointers.push_back(nullptr);
    return pointers;
}

/// A started git, alone in its process group. Whatever is still running when this object goes is killed.
class Child {
public:
    Child(std::vector<std::string>& arguments, std::vector<std::string>& environment, const Pipe& output,
          const Pipe& complaint) {
        const std::vector<char*> argumentPointers = pointersTo(arguments);
        std::vector<char*> environmentPointers = pointersTo(environment);
        pid_ = ::fork();
        if (pid_ < 0) throw HostError("internal_error", "no process is left for git");
        if (pid_ > 0) {
            ::setpgid(pid_, pid_);  // here too: either process may run first
            return;
        }
        ::setpgid(0, 0);
        const int nothing = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
        ::dup2(nothing, STDIN_FILENO);
        ::dup2(output.writeEnd.get(), STDOUT_FILENO);
        ::dup2(complaint.writeEnd.get(), STDERR_FILENO);
        environ = environmentPointers.data();
        ::execvp("git", argumentPointers.data());
        ::_exit(exitCannotStart);
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;
    ~Child() {
        if (pid_ == 0) return;
        ::kill(-pid_, SIGKILL);
        while (::waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) continue;
    }

    int exitCode(Deadline deadline) {
        int status = 0;
        while (::waitpid(pid_, &status, WNOHANG) == 0) {
            checkTime(deadline);
            waitOnce({}, For::reading, Clock::now() + exitPause);
        }
        pid_ = 0;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

private:
    pid_t pid_ = 0;
};

}  // namespace

GitAnswer runGit(std::vector<std::string> arguments, std::vector<std::string> environment,
                 Deadline deadline) {
    checkTime(deadline);
    arguments.insert(arguments.begin(), {"git", "--no-pager"});
    environment.insert(environment.end(), fixedEnvironment.begin(), fixedEnvironment.end());
    const char* path = std::getenv("PATH");
    if (path != nullptr) environment.push_back(std::string("PATH=") + path);

    Pipe output;
    Pipe complaint;
    Child child(arguments, environment, output, complaint);
    output.writeEnd.reset();
    complaint.writeEnd.reset();

    GitAnswer answer;
    std::array<char, 65536> chunk;
    for (ssize_t count = 1; count != 0;) {
        waitFor(output.readEnd, For::reading, deadline);
        count = ::read(output.readEnd.get(), chunk.data(), chunk.size());
        if (count < 0) throw HostError("internal_error", "git's output cannot be read");
        answer.output.append(chunk.data(), static_cast<std::size_t>(count));
        if (answer.output.size() > maximumGitOutputBytes) {
            throw HostError("git_failed", "git's output is larger than " +
                                              std::to_string(maximumGitOutputBytes) + " bytes");
        }
    }
    answer.exitCode = child.exitCode(deadline);
    if (answer.exitCode == exitCannotStart)
        throw HostError("git_failed", "git cannot be started", "install git");
    // Without waiting: something that git left behind may hold the other end open.
    ::fcntl(complaint.readEnd.get(), F_SETFL, O_NONBLOCK);
    const ssize_t count = ::read(complaint.readEnd.get(), chunk.data(), maximumComplaintBytes);
    answer.complaint.assign(chunk.data(), static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    return answer;
}

}  // namespace tidewell::standin
