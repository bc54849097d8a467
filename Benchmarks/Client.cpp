#include "Client.hpp"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <thread>

namespace tidewell::bench {

namespace {

constexpr int pipeSize = 1 << 20;  // the default limit for unprivileged users

std::array<int, 2> makePipe() {
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
    if (::fcntl(ends[1], F_SETPIPE_SZ, pipeSize) < pipeSize)
        throw std::runtime_error("no pipe of a megabyte");
    return ends;
}

/// For posix_spawnp, which takes non-const pointers but does not write through them.
std::vector<char*> pointers(const std::vector<std::string>& texts) {
    std::vector<char*> result;
    for (const std::string& text : texts) result.push_back(const_cast<char*>(text.c_str()));
    result.push_back(nullptr);
    return result;
}

void writeAll(int descriptor, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t count = ::write(descriptor, bytes.data(), bytes.size());
        if (count <= 0) throw std::runtime_error("the program has gone");
        bytes.remove_prefix(static_cast<std::size_t>(count));
    }
}

}  // namespace

Client::Client(const Command& command, std::string_view firstInput) : chunk_(pipeSize) {
    const auto in = makePipe();
    const auto out = makePipe();
    input_ = in[1];
    output_ = out[0];
    if (!firstInput.empty()) writeAll(input_, firstInput);

    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_adddup2(&actions, in[0], STDIN_FILENO);
    ::posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    const auto arguments = pointers(command.arguments);
    const auto environment = pointers(command.environment);
    const int failure =
        ::posix_spawnp(&id_, arguments[0], &actions, nullptr, arguments.data(), environment.data());
    ::posix_spawn_file_actions_destroy(&actions);
    ::close(in[0]);
    ::close(out[1]);
    if (failure != 0) throw std::runtime_error("cannot start " + command.arguments[0]);
}

Client::~Client() {
    if (id_ > 0) finish();
}

double Client::finish() {
    ::close(input_);
    ::close(output_);
    rusage usage{};
    while (::wait4(id_, nullptr, 0, &usage) < 0 && errno == EINTR) continue;
    id_ = -1;
    const auto seconds = [](const timeval& time) {
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

void Client::write(std::string_view requests) const { writeAll(input_, requests); }

std::size_t Client::readSome() {
    const ssize_t count = ::read(output_, chunk_.data(), chunk_.size());
    if (count <= 0) throw std::runtime_error("the program has ended");
    if (keeps_) kept_.append(chunk_.data(), static_cast<std::size_t>(count));
    return static_cast<std::size_t>(count);
}

bool Client::waitForOutput(int seconds) {
    pollfd waiting{.fd = output_, .events = POLLIN, .revents = 0};
    if (::poll(&waiting, 1, seconds * 1000) > 0) return true;
    ::kill(id_, SIGKILL);
    return false;
}

std::size_t Client::readReply() {
    kept_.clear();
    for (std::size_t size = 0;;) {
        const std::size_t count = readSome();
        size += count;
        if (chunk_[count - 1] == '\n') return size;
    }
}

bool Client::readReplies(std::size_t size) {
    using Clock = std::chrono::steady_clock;
    const auto deadline = Clock::now() + std::chrono::seconds(30);
    kept_.clear();
    int gathered = 0;
    for (;;) {
        if (::ioctl(output_, FIONREAD, &gathered) != 0) return false;
        if (static_cast<std::size_t>(gathered) >= size) break;
        if (Clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::microseconds(20));
    }
    std::size_t count = 0;
    while (count < size) count += readSome();
    return count == size;
}

std::size_t Client::memory(std::string_view name) const {
    std::ifstream status("/proc/" + std::to_string(id_) + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with(std::string(name) + ':')) return std::stoul(line.substr(name.size() + 1)) * 1024;
    }
    throw std::runtime_error("no such figure in /proc: " + std::string(name));
}

double Client::processorSeconds() const {
    double nanoseconds = 0;
    for (const auto& thread : std::filesystem::directory_iterator("/proc/" + std::to_string(id_) + "/task")) {
        double passed = 0;
        std::ifstream(thread.path() / "schedstat") >> passed;
        nanoseconds += passed;
    }
    return nanoseconds / 1e9;
}

}  // namespace tidewell::bench
