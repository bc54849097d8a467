#include "Process.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <stdexcept>
#include <thread>
#include <utility>

namespace tidewell::test {

namespace {

constexpr int mostSilence = 150'000;  // in milliseconds: longer than the longest wait for a host app

std::array<int, 2> makePipe() {
    std::array<int, 2> ends{};
    if (::pipe(ends.data()) != 0) throw std::runtime_error("pipe failed");
    for (const int end : ends) ::fcntl(end, F_SETFD, FD_CLOEXEC);
    return ends;
}

/// For posix_spawn: pointers into strings that outlive the call.
std::vector<char*> pointers(std::vector<std::string>& texts) {
    std::vector<char*> result;
    for (std::string& text : texts) result.push_back(text.data());
    result.push_back(nullptr);
    return result;
}

}  // namespace

std::string programUnderTest() {
    const char* const other = std::getenv("TIDEWELL_MCP_PROGRAM");
    return other == nullptr ? TIDEWELL_MCP_PATH : other;
}

Process::Process(const Options& options) : mayUseErrors_(options.mayUseErrors) {
    ::signal(SIGPIPE, SIG_IGN);  // a child that exits early must not kill the tests

    std::array<int, 2> in = {options.input, -1};
    std::array<int, 2> out = {-1, options.output};
    if (options.input < 0) in = makePipe();
    if (options.output < 0) out = makePipe();

    // A file, not a pipe, so that nobody has to read it meanwhile.
    std::string pattern = "/tmp/tidewell-test-errors-XXXXXX";
    errors_ = ::mkstemp(pattern.data());
    ::unlink(pattern.c_str());
    ::fcntl(errors_, F_SETFD, FD_CLOEXEC);

    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_adddup2(&actions, in[0], STDIN_FILENO);
    ::posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    ::posix_spawn_file_actions_adddup2(&actions, errors_, STDERR_FILENO);
    posix_spawnattr_t attributes;
    ::posix_spawnattr_init(&attributes);
    sigset_t reset;
    ::sigemptyset(&reset);
    // The parent of the tests may ignore these; a shell ignores SIGINT for a background job.
    ::sigaddset(&reset, SIGPIPE);
    ::sigaddset(&reset, SIGINT);
    ::posix_spawnattr_setsigdefault(&attributes, &reset);
    ::posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);

    std::vector<std::string> arguments = {options.program};
    arguments.insert(arguments.end(), options.arguments.begin(), options.arguments.end());
    std::vector<std::string> environment;
    for (const auto& [name, value] : options.environment) environment.push_back(name + "=" + value);
    const int failure = ::posix_spawn(&id_, options.program.c_str(), &actions, &attributes,
                                      pointers(arguments).data(), pointers(environment).data());
    ::posix_spawn_file_actions_destroy(&actions);
    ::posix_spawnattr_destroy(&attributes);
    if (options.input < 0) ::close(in[0]);
    if (options.output < 0) ::close(out[1]);
    input_ = in[1];
    output_ = out[0];
    if (failure != 0) throw std::runtime_error("cannot start " + options.program);
}

Process::~Process() {
    closeInput();
    closeOutput();
    if (!status_) wait(0);
    if (!mayUseErrors_ && !errors().empty()) ADD_FAILURE() << "on standard error: " << errors();
    ::close(errors_);
}

void Process::write(std::string_view bytes) const {
    while (!bytes.empty()) {
        const ssize_t count = ::write(input_, bytes.data(), bytes.size());
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) return;
        bytes.remove_prefix(static_cast<std::size_t>(count));
    }
}

bool Process::readMore(int timeoutMilliseconds) {
    pollfd wanted{.fd = output_, .events = POLLIN, .revents = 0};
    if (::poll(&wanted, 1, timeoutMilliseconds) <= 0) return false;
    std::array<char, 65536> chunk{};
    const ssize_t count = ::read(output_, chunk.data(), chunk.size());
    if (count <= 0) return false;
    received_.append(chunk.data(), static_cast<std::size_t>(count));
    return true;
}

std::optional<std::string> Process::readLine() {
    for (;;) {
        if (const auto end = received_.find('\n', scanned_); end != std::string::npos) {
            std::string line = received_.substr(0, end);
            received_.erase(0, end + 1);
            scanned_ = 0;
            return line;
        }
        scanned_ = received_.size();
        if (!readMore(mostSilence)) return std::nullopt;
    }
}

std::string Process::readAll() {
    while (readMore(mostSilence)) {
    }
    scanned_ = 0;
    return std::exchange(received_, {});
}

void Process::closeInput() {
    if (input_ >= 0) ::close(std::exchange(input_, -1));
}

void Process::closeOutput() {
    if (output_ >= 0) ::close(std::exchange(output_, -1));
}

bool Process::isRunning() {
    if (status_) return false;
    int state = 0;
    rusage usage{};
    if (::wait4(id_, &state, WNOHANG, &usage) == 0) return true;
    for (const timeval& time : {usage.ru_utime, usage.ru_stime}) {
        processorSeconds_ += static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
    }
    status_ = WIFSIGNALED(state) ? -WTERMSIG(state) : WEXITSTATUS(state);
    return false;
}

ExitStatus Process::wait(int timeoutSeconds) {
    using Clock = std::chrono::steady_clock;
    const auto deadline = Clock::now() + std::chrono::seconds(timeoutSeconds);
    while (isRunning()) {
        if (Clock::now() >= deadline) ::kill(id_, SIGKILL);
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return *status_;
}

std::string Process::errors() const {
    std::string text(static_cast<std::size_t>(::lseek(errors_, 0, SEEK_END)), '\0');
    const ssize_t count = ::pread(errors_, text.data(), text.size(), 0);
    text.resize(static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    return text;
}

Finished runProcess(const Process::Options& options, std::string_view input) {
    Process process(options);
    // On a thread of its own, so that a long input and a long output cannot wait for each other.
    std::thread writer([&] {
        process.write(input);
        process.closeInput();
    });
    std::string output = process.readAll();
    writer.join();
    const ExitStatus status = process.wait();
    return {std::move(output), process.errors(), status};
}

std::map<std::string, std::string> environmentFor(const std::string& socketPath) {
    return {{"HOME", "/nonexistent"}, {"PATH", "/usr/bin:/bin"}, {"TIDEWELL_SOCKET_PATH", socketPath}};
}

}  // namespace tidewell::test
