// Process.hpp: the real program as a child, as an MCP client would start it.
#pragma once

#include <sys/types.h>

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tidewell::test {

/// What became of a child: its exit status, or minus the signal that ended it.
using ExitStatus = int;

/// The program under test: the one that was built along with the tests, or what TIDEWELL_MCP_PROGRAM names.
std::string programUnderTest();

class Process {
public:
    struct Options {
        std::vector<std::string> arguments = {};
        /// The whole environment of the child.
        std::map<std::string, std::string> environment = {};
        std::string program = programUnderTest();
        /// Descriptors to hand over instead of pipes of our own; -1 for a pipe.
        int input = -1;
        int output = -1;
        /// The server never uses standard error, so a test fails if its child did; other programs may.
        bool mayUseErrors = false;
    };

    explicit Process(const Options& options);
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;
    /// Kills a child that is still running.
    ~Process();

    pid_t id() const { return id_; }
    void write(std::string_view bytes) const;
    void writeLine(std::string_view line) const { write(std::string(line) + "\n"); }
    /// The next line of output without its line feed; nothing at the end of output or when none comes for long.
    std::optional<std::string> readLine();
    /// All that is still to come until the end of output.
    std::string readAll();
    void closeInput();
    void closeOutput();
    /// Waits for the end; the child is killed after `timeoutSeconds`, and the result is then -9.
    ExitStatus wait(int timeoutSeconds = 60);
    bool isRunning();
    /// What came on standard error until now.
    std::string errors() const;
    /// The processor time that the child took, once it has ended.
    double processorSeconds() const { return processorSeconds_; }

private:
    bool readMore(int timeoutMilliseconds);

    pid_t id_ = -1;
    int input_ = -1;
    int output_ = -1;
    int errors_ = -1;
    bool mayUseErrors_;
    std::size_t scanned_ = 0;  // this much of what was received has no line feed
    std::string received_;
    std::optional<ExitStatus> status_;
    double processorSeconds_ = 0;
};

/// Runs a child that gets all of `input` and then end of file.
struct Finished {
    std::string output;
    std::string errors;
    ExitStatus status;
};
Finished runProcess(const Process::Options& options, std::string_view input);

/// An environment in which no host app can be found by accident.
std::map<std::string, std::string> environmentFor(const std::string& socketPath);

}  // namespace tidewell::test
