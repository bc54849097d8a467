// ProgramTests.cpp: the real program as a whole: switches, exit status, signals, the version it reports.
#include "Support/ExactJSON.hpp"
#include "Support/Process.hpp"
#include "Support/ScriptedHost.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <filesystem>
#include <future>
#include <string>
#include <thread>

namespace tidewell::test {
namespace {

using nlohmann::json;

Process::Options options(std::vector<std::string> arguments = {},
                         const std::string& socketPath = "/nonexistent/host.sock") {
    return {.arguments = std::move(arguments), .environment = environmentFor(socketPath)};
}

/// A run with switches while its input stays open: it must not wait for input.
Finished runWithSwitches(std::vector<std::string> arguments) {
    Process process(options(std::move(arguments)));
    std::string output = process.readAll();
    const ExitStatus status = process.wait();
    return {std::move(output), process.errors(), status};
}

const std::string toolCall = R"({"id":1,"method":"tools/call","params":{"name":"x"}})";
const std::string versionLine = "Tidewell " TIDEWELL_VERSION " (protocol 2025-11-25)\n";

TEST(Switches, VersionPrintsOneLineAndReadsNoInput) {
    const Finished finished = runWithSwitches({"--version"});
    EXPECT_EQ(finished.output, versionLine);
    EXPECT_EQ(finished.status, 0);
}

TEST(Switches, VersionWinsAtAnyPosition) {
    for (const auto& arguments :
         std::vector<std::vector<std::string>>{{"--selftest", "--version"},
                                               {"--version", "--selftest"},
                                               {"x", "--unknown", "--version", "y"}}) {
        EXPECT_EQ(runWithSwitches(arguments).output, versionLine);
    }
}

TEST(Switches, SelftestPrintsTheInitializeResultAndTheToolTable) {
    const Finished finished = runWithSwitches({"--selftest"});
    EXPECT_EQ(finished.status, 0);
    // The reference is what a client gets for the two requests; those replies are pinned elsewhere.
    const Finished asked = runProcess(options(), "{\"id\":1,\"method\":\"initialize\",\"params\":{}}\n"
                                                 "{\"id\":2,\"method\":\"tools/list\"}\n");
    const auto replies = exactLines(asked.output);
    ASSERT_EQ(replies.size(), 2U);
    EXPECT_EQ(json::parse(replies[0])["result"]["serverInfo"]["version"], TIDEWELL_VERSION);
    EXPECT_EQ(exactLines(finished.output), replies);
}

TEST(Switches, AnythingElseIsIgnored) {
    for (const auto& arguments : std::vector<std::vector<std::string>>{
             {"--help"}, {"--Version"}, {"--version=1"}, {"-version"}, {"version"}, {""}, {"--selftests"}}) {
        const Finished finished = runProcess(options(arguments), "{\"id\":1,\"method\":\"ping\"}\n");
        EXPECT_EQ(finished.output, "{\"jsonrpc\":\"2.0\",\"id\":1,\"result\":{}}\n");
        EXPECT_EQ(finished.status, 0);
    }
}

TEST(Program, EmptyInputGivesNoOutputAndStatusZero) {
    const Finished finished = runProcess(options(), "");
    EXPECT_EQ(finished.output, "");
    EXPECT_EQ(finished.status, 0);
}

TEST(Program, AnUnfinishedLastLineIsNotAnswered) {
    const Finished finished = runProcess(options(), "{\"id\":1,\"method\":\"ping\"}");
    EXPECT_EQ(finished.output, "");
    EXPECT_EQ(finished.status, 0);
}

TEST(Program, AReplyIsOutBeforeTheNextRequestIsRead) {
    Process process(options());
    for (int id = 1; id <= 3; ++id) {
        process.writeLine("{\"id\":" + std::to_string(id) + ",\"method\":\"ping\"}");
        const auto line = process.readLine();
        ASSERT_TRUE(line.has_value());
        EXPECT_EQ(json::parse(*line)["id"], id);
    }
    process.closeInput();
    EXPECT_EQ(process.wait(), 0);
}

TEST(Program, ARequestMayArriveByteByByte) {
    Process process(options());
    for (const char byte : std::string("{\"id\":\"é—\",\"method\":\"ping\"}\n")) process.write({&byte, 1});
    EXPECT_EQ(process.readLine(), "{\"jsonrpc\":\"2.0\",\"id\":\"é—\",\"result\":{}}");
}

TEST(Program, ExitEndsItAtOnceThoughItsInputStaysOpen) {
    Process process(options());
    process.writeLine("{\"id\":6,\"method\":\"exit\"}");
    EXPECT_EQ(process.readAll(), "");
    EXPECT_EQ(process.wait(), 0);
}

TEST(Program, ExitEndsItAlsoAfterACall) {
    ScriptedHost host;
    Process process(options({}, host.socketPath()));
    process.writeLine(toolCall);
    EXPECT_TRUE(process.readLine().has_value());
    process.writeLine("{\"method\":\"exit\"}");
    EXPECT_EQ(process.wait(), 0);
}

TEST(Program, AnIdOutside64BitsEndsItByAFatalErrorWithNothingWritten) {
    for (const std::string id : {"1e300", "-1e300", "9223372036854775808", "-9223372036854775809", "1e19"}) {
        const Finished finished = runProcess(
            options(), "{\"id\":" + id + ",\"method\":\"ping\"}\n{\"id\":1,\"method\":\"ping\"}\n");
        EXPECT_EQ(finished.output, "") << id;
        EXPECT_EQ(finished.status, -SIGABRT) << id;
    }
}

TEST(Program, AnIdOutside64BitsEndsItOnlyAfterTheHostCall) {
    for (const std::string id : {"9223372036854775808", "-9223372036854775809", "1e300"}) {
        for (const std::string call : {R"("method":"tools/call","params":{"name":"x"})",
                                       R"("method":"resources/read","params":{"uri":"x"})"}) {
            ScriptedHost host;
            const Finished finished =
                runProcess(options({}, host.socketPath()), "{\"id\":" + id + "," + call + "}\n");
            EXPECT_EQ(finished.output, "") << id;
            EXPECT_EQ(finished.status, -SIGABRT) << id;
            EXPECT_EQ(host.exactEnvelopes().size(), 1U) << id;
        }
    }
}

TEST(Program, AnIdOutside64BitsDoesNoHarmWhereNothingIsAnswered) {
    const Finished finished =
        runProcess(options(), "{\"id\":1e300,\"method\":\"notifications/initialized\"}\n"
                              "{\"id\":1,\"method\":\"ping\"}\n");
    EXPECT_EQ(finished.output, "{\"jsonrpc\":\"2.0\",\"id\":1,\"result\":{}}\n");
    EXPECT_EQ(finished.status, 0);
}

TEST(Program, WhenTheClientClosedItsEndTheCallIsStillMadeAndTheReplyEndsTheProcess) {
    ScriptedHost host;
    Process process(options({}, host.socketPath()));
    process.closeOutput();
    process.writeLine("{\"id\":1,\"method\":\"tools/call\",\"params\":{\"name\":\"rescan_now\"}}");
    EXPECT_EQ(process.wait(), -SIGPIPE);
    ASSERT_EQ(host.received().size(), 1U);
    EXPECT_EQ(host.received()[0]["tool"], "rescan_now");
}

TEST(Program, AHostThatHungUpDoesNotEndIt) {
    ScriptedHost host;
    host.closesAtOnce();
    Process process(options({}, host.socketPath()));
    process.writeLine(R"({"id":1,"method":"tools/call","params":{"name":"x","arguments":{"a":")" +
                      std::string(4'000'000, 'x') + "\"}}}");
    const auto line = process.readLine();
    ASSERT_TRUE(line.has_value());
    EXPECT_EQ(json::parse(*line)["result"]["isError"], true);
    process.writeLine("{\"id\":2,\"method\":\"ping\"}");
    EXPECT_TRUE(process.readLine().has_value());
}

TEST(Program, SignalsEndItAtOnceAlsoInTheMiddleOfACall) {
    for (const int signal : {SIGTERM, SIGINT, SIGKILL}) {
        ScriptedHost host;
        host.staysSilent();
        Process process(options({}, host.socketPath()));
        process.writeLine(toolCall);
        while (host.received().empty()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
        ::kill(process.id(), signal);
        EXPECT_EQ(process.wait(), -signal);
    }
}

TEST(Program, AClientThatDiesInTheMiddleOfACallIsNoticedWhenTheExchangeEnds) {
    std::promise<void> clientIsGone;
    ScriptedHost host;
    host.then([gone = clientIsGone.get_future().share()](const HostConnection& connection) {
        connection.readEnvelope();
        gone.wait();
        connection.write("{\"ok\":true}\n");
    });
    Process process(options({}, host.socketPath()));
    process.writeLine(toolCall);
    while (host.connections() == 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    process.closeInput();
    process.closeOutput();
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_TRUE(process.isRunning());
    clientIsGone.set_value();
    EXPECT_EQ(process.wait(), -SIGPIPE);
}

TEST(Program, AClientThatClosesItsInputInTheMiddleOfACallStillGetsTheReply) {
    ScriptedHost host;
    host.repliesSlowly("{\"ok\":true}", 10);
    Process process(options({}, host.socketPath()));
    process.writeLine(toolCall);
    process.closeInput();
    EXPECT_EQ(json::parse(process.readLine().value_or("{}"))["result"]["isError"], false);
    EXPECT_EQ(process.wait(), 0);
}

TEST(Program, NothingIsLeftBehindHoweverItEnds) {
    TemporaryFolder home;
    for (const int signal : {0, SIGTERM, SIGKILL}) {
        ScriptedHost host;
        host.replies("{\"ok\":true}").staysSilent();
        Process::Options homely = options({}, host.socketPath());
        for (const char* const name : {"HOME", "TMPDIR", "XDG_RUNTIME_DIR", "XDG_CACHE_HOME"})
            homely.environment[name] = home.path();
        Process process(homely);
        process.writeLine(toolCall);
        EXPECT_TRUE(process.readLine().has_value());
        if (signal == 0) {
            process.closeInput();
        } else {
            process.writeLine("{\"id\":2,\"method\":\"tools/call\",\"params\":{\"name\":\"x\"}}");
            while (host.received().size() < 2) std::this_thread::sleep_for(std::chrono::milliseconds(1));
            ::kill(process.id(), signal);
        }
        EXPECT_EQ(process.wait(), -signal);
        EXPECT_TRUE(std::filesystem::is_empty(home.path()));
        const auto besideTheSocket = std::filesystem::path(host.socketPath()).parent_path();
        EXPECT_EQ(std::distance(std::filesystem::directory_iterator(besideTheSocket), {}), 1);
    }
}

TEST(Program, AnInterruptedExchangeGoesOn) {
    // On Linux, stopping and continuing a process interrupts a wait that has a time limit.
    ScriptedHost host;
    host.then([](const HostConnection& connection) {
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        connection.readEnvelope();
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        connection.write("{\"ok\":true}\n");
    });
    Process process(options({}, host.socketPath()));
    process.writeLine(R"({"id":1,"method":"tools/call","params":{"name":"x","arguments":{"a":")" +
                      std::string(1'000'000, 'x') + "\"}}}");
    for (int round = 0; round < 10; ++round) {
        std::this_thread::sleep_for(std::chrono::milliseconds(30));
        ::kill(process.id(), SIGSTOP);
        ::kill(process.id(), SIGCONT);
    }
    EXPECT_EQ(json::parse(process.readLine().value_or("{}"))["result"]["isError"], false);
}

TEST(Program, AFullDiskBehindItsOutputIsNotItsEnd) {
    ScriptedHost host;
    Process::Options full = options({}, host.socketPath());
    full.output = ::open("/dev/full", O_WRONLY | O_CLOEXEC);
    if (full.output < 0) GTEST_SKIP() << "no /dev/full here";
    Process process(full);
    ::close(full.output);
    for (int call = 0; call < 2; ++call) process.writeLine(toolCall);
    process.closeInput();
    EXPECT_EQ(process.wait(), 0);
    EXPECT_EQ(host.received().size(), 2U);
}

TEST(Program, WaitingForAFullOutputTakesNoProcessorTime) {
    std::array<int, 2> ends{};
    ASSERT_EQ(::pipe(ends.data()), 0);
    for (const int end : ends) ::fcntl(end, F_SETFD, FD_CLOEXEC);
    ::fcntl(ends[1], F_SETFL, O_NONBLOCK);
    Process::Options slow = options();
    slow.output = ends[1];
    Process process(slow);
    ::close(ends[1]);
    for (int request = 0; request < 10; ++request) process.writeLine("{\"id\":1,\"method\":\"tools/list\"}");
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    process.closeInput();
    std::size_t received = 0;
    std::array<char, 4096> chunk{};
    for (ssize_t count = 0; (count = ::read(ends[0], chunk.data(), chunk.size())) > 0;)
        received += static_cast<std::size_t>(count);
    ::close(ends[0]);
    EXPECT_EQ(process.wait(), 0);
    EXPECT_GT(received, 150'000U);
    EXPECT_LT(process.processorSeconds(), 0.75) << "half of the time it had to wait";
}

/// The program, started by a shell that first prepares the environment; `preparation` ends with the command that
/// starts the program.
Process::Options behind(const std::string& preparation,
                        const std::string& socketPath = "/nonexistent/host.sock") {
    Process::Options result = options({"-c", preparation, programUnderTest()}, socketPath);
    result.program = "/bin/sh";
    return result;
}

TEST(Program, ClosedDescriptorsAtItsStartAreNoTrouble) {
    const std::string ping = "{\"id\":1,\"method\":\"ping\"}\n";
    EXPECT_EQ(runProcess(behind("exec \"$0\" <&-"), ping).status, 0);
    EXPECT_EQ(runProcess(behind("exec \"$0\" < /"), ping).status, 0) << "a folder as input";
    EXPECT_EQ(runProcess(behind("exec \"$0\" >&-"), ping).status, 0);

    // The connection to the host app gets the number of the missing output; no reply may go there.
    ScriptedHost host;
    EXPECT_EQ(
        runProcess(behind("exec \"$0\" >&-", host.socketPath()), toolCall + "\n" + toolCall + "\n").status,
        0);
    ASSERT_EQ(host.received().size(), 2U);
    EXPECT_EQ(host.received()[1]["tool"], "x");
}

TEST(Program, WithoutAThreadToBeHadTheCallIsMadeAllTheSame) {
    if (TIDEWELL_SANITIZED) GTEST_SKIP() << "sanitizers need all the address space there is";
    ScriptedHost host;
    // A thread's stack is as large as the first limit, which is more than the second allows in all.
    const Finished finished = runProcess(
        behind("ulimit -s 400000 && ulimit -v 100000 && exec \"$0\"", host.socketPath()), toolCall + "\n");
    EXPECT_EQ(json::parse(finished.output)["result"]["isError"], false);
    EXPECT_EQ(finished.status, 0);
}

TEST(Program, TheDeepestAndLargestMessagesNeedLittleStack) {
    if (TIDEWELL_SANITIZED) GTEST_SKIP() << "sanitizers need stack of their own";
    // Half of what musl gives a thread. glibc gives it what the limit says; macOS gives it 512 KiB.
    constexpr const char* small = "ulimit -s 64 && exec \"$0\"";
    const auto nested = [](std::size_t depth) {
        return std::string(depth, '[') + "1e-300" + std::string(depth, ']');
    };
    const std::string large = "\"" + std::string(3'000'000, 'x') + "\\n\"";
    std::string manyMembers = "{\"key\":1";
    for (int number = 0; number < 20'000; ++number) manyMembers += ",\"" + std::to_string(number) + "\":[]";
    manyMembers += ",\"key\":2}";

    ScriptedHost host;
    std::string input;
    int requests = 0;
    const auto ask = [&](const std::string& arguments, const std::string& reply) {
        for (const char* const method : {"tools/call", "resources/read"}) {
            host.replies(reply);
            input += R"({"id":)" + std::to_string(requests++) + R"(,"method":")" + method +
                     R"(","params":{"name":"x","uri":"y","arguments":)" + arguments + "}}\n";
        }
    };
    for (const std::string& value : {nested(510), large, manyMembers})
        ask(value, R"({"ok":true,"result":)" + value + "}");
    ask("{}", R"({"ok":false,"error":{"code":"c","message":)" + large + R"(,"hint":)" + large + "}}");
    ask("{}", nested(513));  // refused by an exception
    ask("{}", "nonsense");

    const Finished finished = runProcess(behind(small, host.socketPath()), input);
    EXPECT_EQ(finished.status, 0);
    EXPECT_EQ(std::ranges::count(finished.output, '\n'), requests);
    EXPECT_EQ(host.connections(), requests);
}

TEST(Program, ALineThatMemoryCannotHoldIsAnsweredAndTheNextOneCounts) {
    if (TIDEWELL_SANITIZED) GTEST_SKIP() << "sanitizers need all the address space there is";
    const std::string huge =
        "{\"id\":1,\"method\":\"ping\",\"padding\":\"" + std::string(100'000'000, 'x') + "\"}\n";
    const Finished finished =
        runProcess(behind("ulimit -v 100000 && exec \"$0\""), huge + "{\"id\":2,\"method\":\"ping\"}\n");
    EXPECT_EQ(finished.output, "{\"jsonrpc\":\"2.0\",\"id\":null,\"error\":{\"code\":-32603,\"message\":"
                               "\"Internal error: std::bad_alloc\"}}\n"
                               "{\"jsonrpc\":\"2.0\",\"id\":2,\"result\":{}}\n");
    EXPECT_EQ(finished.status, 0);
}

TEST(Program, OneSocketMayBeBothItsInputAndItsOutput) {
    std::array<int, 2> ends{};
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, ends.data()), 0);
    ::fcntl(ends[0], F_SETFD, FD_CLOEXEC);  // or the child would keep its own input open
    Process::Options both = options();
    both.input = ends[1];
    both.output = ends[1];
    Process process(both);
    ::close(ends[1]);
    ASSERT_EQ(::send(ends[0], "{\"id\":1,\"method\":\"ping\"}\n", 25, 0), 25);
    std::array<char, 256> reply{};
    const ssize_t count = ::recv(ends[0], reply.data(), reply.size(), 0);
    EXPECT_EQ(std::string(reply.data(), static_cast<std::size_t>(count)),
              "{\"jsonrpc\":\"2.0\",\"id\":1,\"result\":{}}\n");
    ::close(ends[0]);
    EXPECT_EQ(process.wait(), 0);
}

// The version that is reported.

std::string versionFile(const std::string& version) {
    return R"(<?xml version="1.0" encoding="UTF-8"?><plist version="1.0"><dict><key>CFBundleShortVersionString</key><string>)" +
           version + "</string></dict></plist>\n";
}

std::string versionOf(const std::string& program) {
    return runProcess({.arguments = {"--version"}, .environment = environmentFor(""), .program = program}, "")
        .output;
}

/// A copy of the program in a folder of its own, as an installation would lay it out.
class Installed {
public:
    Installed() {
        std::filesystem::create_directories(folder_ / "App.app/Contents/MacOS");
        std::filesystem::copy_file(programUnderTest(), program());
    }
    std::string program() const { return folder_ / "App.app/Contents/MacOS/tool"; }
    void writeVersionFile(const std::string& content) const {
        folder_.write("App.app/Contents/Info.plist", content);
    }
    std::string version() const { return versionOf(program()); }
    const TemporaryFolder& folder() const { return folder_; }

private:
    TemporaryFolder folder_;
};

TEST(ReportedVersion, ComesFromTheFileOneLevelAboveTheExecutablesFolder) {
    const Installed installed;
    installed.writeVersionFile(versionFile("2.3.1"));
    EXPECT_EQ(installed.version(), "Tidewell 2.3.1 (protocol 2025-11-25)\n");
}

TEST(ReportedVersion, AnEmptyOrMissingOneIsTheFallback) {
    const Installed installed;
    EXPECT_EQ(installed.version(), "Tidewell 0.0.0-dev (protocol 2025-11-25)\n");
    installed.writeVersionFile(versionFile(""));
    EXPECT_EQ(installed.version(), "Tidewell 0.0.0-dev (protocol 2025-11-25)\n");
}

TEST(ReportedVersion, IsFoundThroughALinkToTheProgram) {
    const Installed installed;
    installed.writeVersionFile(versionFile("2.3.1"));
    const std::string link = installed.folder() / "link";
    std::filesystem::create_symlink(installed.program(), link);
    EXPECT_EQ(versionOf(link), "Tidewell 2.3.1 (protocol 2025-11-25)\n");
}

TEST(ReportedVersion, IsReadOnceAndNoLaterChangeShows) {
    const Installed installed;
    installed.writeVersionFile(versionFile("2.3.1"));
    Process process({.environment = environmentFor(""), .program = installed.program()});
    const auto version = [&] {
        process.writeLine("{\"id\":1,\"method\":\"initialize\"}");
        return json::parse(process.readLine().value_or("{}"))["result"]["serverInfo"]["version"];
    };
    EXPECT_EQ(version(), "2.3.1");
    installed.writeVersionFile(versionFile("9.9.9"));
    EXPECT_EQ(version(), "2.3.1");
}

}  // namespace
}  // namespace tidewell::test
