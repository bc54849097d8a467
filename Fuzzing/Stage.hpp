// Stage.hpp: a bridge that reads and writes files instead of a client's pipes, which is faster.
#pragma once

#include "Server/StdioBridge.hpp"

#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <utility>

namespace tidewell::fuzzing {

/// One unnamed file, filled anew for each run. If a system call fails, the process ends.
class ReusableFile {
public:
    ReusableFile() : file_(std::tmpfile()) { check(file_ != nullptr); }
    ReusableFile(const ReusableFile&) = delete;
    ReusableFile& operator=(const ReusableFile&) = delete;
    ~ReusableFile() { std::fclose(file_); }

    int descriptor() const { return ::fileno(file_); }

    /// Now holds `bytes` alone, with the next read or write at its start.
    void fill(std::string_view bytes) const {
        check(::ftruncate(descriptor(), 0) == 0);
        check(::pwrite(descriptor(), bytes.data(), bytes.size(), 0) == static_cast<ssize_t>(bytes.size()));
        check(::lseek(descriptor(), 0, SEEK_SET) == 0);
    }

    std::string content() const {
        std::string bytes(static_cast<std::size_t>(::lseek(descriptor(), 0, SEEK_END)), '\0');
        check(::pread(descriptor(), bytes.data(), bytes.size(), 0) == static_cast<ssize_t>(bytes.size()));
        return bytes;
    }

private:
    static void check(bool isDone) {
        if (isDone) return;
        std::perror("a temporary file");
        std::abort();
    }

    std::FILE* file_;
};

class Stage {
public:
    /// Host calls go to `socketPath`.
    explicit Stage(std::string socketPath) : socketPath_(std::move(socketPath)) { outliveAlarms(); }

    /// Everything that the bridge writes for this input.
    std::string outputFor(std::string_view input) const {
        input_.fill(input);
        return outputFrom(input_.descriptor());
    }

    /// Everything that the bridge writes for what it reads from `descriptor`.
    std::string outputFrom(int descriptor) const {
        output_.fill({});
        StdioBridge(SocketClient(socketPath_), descriptor, output_.descriptor()).run();
        return output_.content();
    }

private:
    /// The fuzzer sets an alarm every few seconds to check the time. The read loop deliberately treats an
    /// interrupted read as the end of input, so here an alarm restarts reads instead.
    static void outliveAlarms() {
        struct sigaction alarm {};
        if (::sigaction(SIGALRM, nullptr, &alarm) != 0) return;
        alarm.sa_flags |= SA_RESTART;
        ::sigaction(SIGALRM, &alarm, nullptr);
    }

    std::string socketPath_;
    ReusableFile input_;
    ReusableFile output_;
};

}  // namespace tidewell::fuzzing
