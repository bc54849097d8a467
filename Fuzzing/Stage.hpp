// Stage.hpp: a bridge between files in place of a client's pipes, and quick at it.
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

/// One unnamed file, filled anew for each run. Any failure of the system ends the process.
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

    /// Everything that the bridge writes for what `descriptor` gives.
    std::string outputFrom(int descriptor) const {
        output_.fill({});
        StdioBridge(SocketClient(socketPath_), descriptor, output_.descriptor()).run();
        return output_.content();
    }

private:
    /// The fuzzer wakes up every few seconds to look at the clock. On purpose the read loop takes an
    /// interrupted read for the end of the input; so here reads go on after an alarm.
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
