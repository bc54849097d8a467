// DoctorTests.cpp: Scripts/doctor in every situation that it tells apart: what it finds, and its exit status.
#include "Support/Process.hpp"
#include "Support/ScriptedHost.hpp"
#include "Support/TemporaryFolder.hpp"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace tidewell::test {
namespace {

namespace fs = std::filesystem;

using Environment = std::map<std::string, std::string>;

Finished examine(const Environment& environment, std::vector<std::string> arguments = {TIDEWELL_MCP_PATH},
                 const std::string& doctor = DOCTOR_PATH) {
    Process::Options options;
    options.program = doctor;
    options.arguments = std::move(arguments);
    options.environment = environment;
    return runProcess(options, "");
}

bool has(const Finished& finished, const std::string& text) {
    return finished.output.find(text) != std::string::npos;
}

/// Each ✗ and each ! is followed by a line that says what to do.
void expectAdviceForEveryFinding(const std::string& output) {
    std::size_t at = 0;
    while (at < output.size()) {
        const std::size_t end = std::min(output.find('\n', at), output.size());
        const std::string line = output.substr(at, end - at);
        if (line.starts_with("  ✗") || line.starts_with("  !")) {
            EXPECT_TRUE(output.substr(end + 1).starts_with("      → ")) << line;
        }
        at = end + 1;
    }
}

/// A socket file whose listener has gone without removing it.
std::string staleSocket(const TemporaryFolder& folder) {
    std::string path = folder / "agent.sock";
    const int listener = ::socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    EXPECT_EQ(::bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    ::close(listener);
    return path;
}

/// What a situation leaves for the doctor to look at: a path, and a host that a test may have set up there.
struct Situation {
    const char* name;
    std::function<std::string(const TemporaryFolder&, ScriptedHost&)> socketPath;
    std::vector<std::string> findings;  ///< each marked as it has to be
    int status;
};

class DoctorTest : public testing::TestWithParam<Situation> {};

TEST_P(DoctorTest, FindsIt) {
    const TemporaryFolder folder;
    ScriptedHost host;
    const Finished finished = examine(environmentFor(GetParam().socketPath(folder, host)));
    for (const std::string& finding : GetParam().findings) EXPECT_TRUE(has(finished, finding)) << finding;
    EXPECT_EQ(finished.status, GetParam().status);
    EXPECT_EQ(finished.errors, "");
    EXPECT_EQ(has(finished, "All is well"), finished.status == 0);
    expectAdviceForEveryFinding(finished.output);
    if (HasFailure()) ADD_FAILURE() << finished.output;
}

std::string saying(ScriptedHost& host, const std::string& reply) { return host.replies(reply).socketPath(); }

const std::string success = R"({"ok":true,"result":{"repositories":[]}})";
const std::string nobody = "✗ Nobody listens there";

const std::vector<Situation> situations = {
    {"ListeningAndWell",
     [](auto&, auto& host) { return saying(host, success); },
     {"✓ It is a socket (owner ", "✓ Tidewell listens, and answered list_local_repositories with "},
     0},
    {"AResultThatLooksLikeAnError",
     [](auto&, auto& host) {
         return saying(host, R"({"ok":true,"result":"\"isError\":true,{\"code\":\"app_not_running\"}"})");
     },
     {"✓ Tidewell listens"},
     0},
    {"NoSocket",
     [](const TemporaryFolder& folder, auto&) { return folder / "none.sock"; },
     {"none.sock is missing.", nobody},
     1},
    {"NoFolder",
     [](const TemporaryFolder& folder, auto&) { return folder / "a/b/none.sock"; },
     {"/a is missing.", nobody},
     1},
    {"AFileWhereAFolderShouldBe",
     [](const TemporaryFolder& folder, auto&) { return folder.write("file", "") + "/agent.sock"; },
     {"/file is no folder", nobody},
     1},
    {"ALinkThatLeadsNowhere",
     [](const TemporaryFolder& folder, auto&) {
         fs::create_symlink("gone", folder / "link.sock");
         return folder / "link.sock";
     },
     {"link.sock is a link that leads nowhere", nobody},
     1},
    {"APlainFile",
     [](const TemporaryFolder& folder, auto&) { return folder.write("plain.sock", "text"); },
     {"✗ It is no socket but a plain file.", nobody},
     1},
    {"AFolder",
     [](const TemporaryFolder& folder, auto&) { return folder.path(); },
     {"✗ It is no socket but a folder.", nobody},
     1},
    {"AStaleSocket",
     [](const TemporaryFolder& folder, auto&) { return staleSocket(folder); },
     {"✓ It is a socket", "✗ Nobody listens there: the socket was left behind"},
     1},
    {"ASocketForEverybody",
     [](auto&, auto& host) {
         ::chmod(host.socketPath().c_str(), 0666);
         return saying(host, success);
     },
     {"! Other users may write to it too", "✓ Tidewell listens"},
     0},
    {"ListeningButSilent",
     [](auto&, auto& host) { return host.staysSilent().socketPath(); },
     {"✗ Somebody listens, but no answer came within 5 seconds (the server itself waits for 120)"},
     1},
    {"ListeningButHangingUp",
     [](auto&, auto& host) { return host.closesUnanswered().closesUnanswered().socketPath(); },
     {"✗ Somebody listens, but hangs up without an answer."},
     1},
    {"HangingUpAndThenSilent",
     [](auto&, auto& host) { return host.closesUnanswered().staysSilent().socketPath(); },
     {"✗ Somebody listens, but no answer came"},
     1},
    {"AGarbageReply",
     [](auto&, auto& host) { return saying(host, "SSH-2.0-other"); },
     {"✗ Somebody listens, but the answer is none that Tidewell gives: invalid JSON"},
     1},
    {"JSONOfAnotherProgram",
     [](auto&, auto& host) { return saying(host, "[]"); },
     {"✗ Tidewell listens and answers, with an error: error: unknown error."},
     1},
    {"AnErrorOfTheApp",
     [](auto&, auto& host) {
         return saying(host, R"({"ok":false,"error":{"code":"locked","message":"the app is locked"}})");
     },
     {"✗ Tidewell listens and answers, with an error: locked: the app is locked."},
     1},
    {"ATooLongPath",
     [](const TemporaryFolder& folder, auto&) { return folder / std::string(200, 'x'); },
     {"✗ The path has ", "bytes; a socket's may have ", nobody},
     1},
    {"ATilde",
     [](auto&, auto&) { return "~/agent.sock"; },
     {"✗ The server takes \"~\" literally", nobody},
     1},
    {"AVariable",
     [](auto&, auto&) { return "$HOME/agent.sock"; },
     {"✗ The server takes \"$HOME\" literally", nobody},
     1},
    {"ARelativePath", [](auto&, auto&) { return "run/agent.sock"; }, {"✗ The path is relative", nobody}, 1},
    {"ABlankAtTheEnd",
     [](auto&, auto& host) { return host.socketPath() + " "; },
     {"✗ The path begins or ends with a quote or a blank", nobody},
     1},
    {"AQuoteAtTheBeginning",
     [](auto&, auto& host) { return "\"" + host.socketPath(); },
     {"✗ The path begins or ends with a quote or a blank", nobody},
     1},
};

INSTANTIATE_TEST_SUITE_P(Doctor, DoctorTest, testing::ValuesIn(situations),
                         [](const auto& row) { return std::string(row.param.name); });

TEST(Doctor, TheLongestPathIsFineAndOneByteMoreIsNot) {
    const TemporaryFolder folder;
    constexpr std::size_t most = sizeof(sockaddr_un::sun_path) - 1;
    for (const auto& [length, fault] : {std::pair{most, false}, {most + 1, true}}) {
        const std::string path = folder / std::string(length - folder.path().size() - 1, 'x');
        EXPECT_EQ(has(examine(environmentFor(path)), "✗ The path has "), fault) << length;
    }
}

TEST(Doctor, TimeIsBoundedEvenThoughTheServerWouldWaitForMinutes) {
    ScriptedHost host;
    host.staysSilent();
    const auto begin = std::chrono::steady_clock::now();
    examine(environmentFor(host.socketPath()));
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(30));
}

TEST(Doctor, OneCallIsMadeAndItOnlyReads) {
    ScriptedHost host;
    host.replies(success);
    examine(environmentFor(host.socketPath()));
    ASSERT_EQ(host.received().size(), 1U);
    EXPECT_EQ(host.received()[0]["tool"], "list_local_repositories");
}

/// The path that the server itself names when it cannot connect.
std::string pathAccordingToServer(const Environment& environment) {
    Process::Options options;
    options.environment = environment;
    const std::string said = runProcess(options, R"({"id":1,"method":"resources/read","params":{"uri":"x"}})"
                                                 "\n")
                                 .output;
    const std::string before = " at ";
    const std::size_t begin = said.find(before) + before.size();
    return said.substr(begin, said.find(" — ") - begin);
}

TEST(Doctor, ThePathInForceIsTheServersOwnAndTheReasonIsGiven) {
    const std::string unset = "because TIDEWELL_SOCKET_PATH is not set";
    const std::string empty = "because TIDEWELL_SOCKET_PATH is set but empty";
    const std::string path = "/usr/bin:/bin";
    const std::vector<std::pair<Environment, std::string>> rows = {
        {{{"PATH", path}, {"HOME", "/nonexistent/ada"}}, unset},
        {{{"PATH", path}, {"HOME", "/nonexistent/ada"}, {"TIDEWELL_SOCKET_PATH", ""}}, empty},
        {{{"PATH", path}, {"HOME", ""}}, unset},
        {{{"PATH", path}}, unset},
        {{{"PATH", path}, {"TIDEWELL_SOCKET_PATH", "/nonexistent/x y.sock"}},
         "because TIDEWELL_SOCKET_PATH says so"},
    };
    for (const auto& [environment, reason] : rows) {
        const Finished finished = examine(environment);
        EXPECT_TRUE(has(finished, "✓ " + pathAccordingToServer(environment) + "\n")) << finished.output;
        EXPECT_TRUE(has(finished, reason)) << finished.output;
    }
}

TEST(Doctor, ItSaysThatAClientMayPassAnotherEnvironment) {
    EXPECT_TRUE(has(examine(environmentFor("/nonexistent/agent.sock")),
                    "! Your MCP client may pass another environment than this terminal does."));
}

struct ProgramRow {
    std::string program;
    std::string finding;
};

TEST(Doctor, AProgramThatIsNoneIsFoundOutAndNothingElseIsTried) {
    const TemporaryFolder folder;
    const auto script = [&](const char* name, const std::string& text, mode_t mode = 0755) {
        std::string path = folder.write(name, text);
        ::chmod(path.c_str(), mode);
        return path;
    };
    const std::vector<ProgramRow> rows = {
        {folder / "none", "✗ There is no program "},
        {"NoSuchProgramOnThePath", "✗ There is no program "},
        {folder.path(), " is a folder."},
        {script("notes", "text", 0644), " may not be executed by you."},
        {script("foreign", std::string("\x7F") + "ELF of another processor"), "✗ The system cannot run it"},
        {script("other", "#!/bin/sh\necho 1.0\n"), "✗ It answers --version with: 1.0"},
        {script("mute", "#!/bin/sh\n"), "✗ It answers --version with: (nothing)"},
        {script("dying", "#!/bin/sh\nexit 9\n"), "✗ It ends with status 9"},
        {script("waiting", "#!/bin/sh\ntrap '' TERM\nwhile :; do sleep 1; done\n"),
         "✗ It does not answer --version within 5 seconds"},
    };
    for (const ProgramRow& row : rows) {
        // Root may execute only what somebody may, so 0644 is refused to root too.
        const Finished finished = examine(environmentFor("/nonexistent/agent.sock"), {row.program});
        EXPECT_TRUE(has(finished, row.finding)) << finished.output;
        EXPECT_FALSE(has(finished, "The socket")) << finished.output;
        EXPECT_EQ(finished.errors, "");
        EXPECT_EQ(finished.status, 1);
        expectAdviceForEveryFinding(finished.output);
    }
}

/// The doctor in a checkout of its own, in which nothing was built.
std::string bareCheckout(const TemporaryFolder& folder) {
    fs::create_directories(folder / "checkout/Scripts");
    fs::copy(DOCTOR_PATH, folder / "checkout/Scripts/doctor");
    return folder / "checkout/Scripts/doctor";
}

TEST(Doctor, WithoutAnArgumentThePathCountsFirstAndThenTheBuild) {
    const TemporaryFolder folder;
    const std::string doctor = bareCheckout(folder);
    Environment environment = environmentFor("/nonexistent/agent.sock");
    EXPECT_TRUE(has(examine(environment, {}, doctor),
                    "✗ There is no TidewellMCP on the PATH, and none was built in this checkout."));

    fs::create_directories(folder / "checkout/build/release/bin");
    fs::copy(TIDEWELL_MCP_PATH, folder / "checkout/build/release/bin/TidewellMCP");
    EXPECT_TRUE(has(examine(environment, {}, doctor), "TidewellMCP, built in this checkout"));

    environment["PATH"] = fs::path(TIDEWELL_MCP_PATH).parent_path().string() + ":/usr/bin:/bin";
    EXPECT_TRUE(has(examine(environment, {}, doctor), TIDEWELL_MCP_PATH ", the first one on the PATH"));
}

TEST(Doctor, AVersionFileThatWasLeftBehindIsNotedButNoFault) {
    const TemporaryFolder folder;
    fs::create_directories(folder / "bin");
    fs::copy(TIDEWELL_MCP_PATH, folder / "bin/TidewellMCP");
    ScriptedHost host;
    host.replies(success);
    const Finished finished = examine(environmentFor(host.socketPath()), {folder / "bin/TidewellMCP"});
    EXPECT_TRUE(has(finished, "! It answers with no real version: Tidewell 0.0.0-dev")) << finished.output;
    EXPECT_EQ(finished.status, 0);
}

/// Runs the doctor as somebody who is not root, with a program that everybody may read. Nothing where root
/// cannot become somebody else.
std::optional<Finished> examineUnprivileged(const TemporaryFolder& folder, const Environment& environment) {
    const std::string program = folder / "TidewellMCP";
    fs::copy(TIDEWELL_MCP_PATH, program);
    const std::string doctor = folder / "doctor";
    fs::copy(DOCTOR_PATH, doctor);
    ::chmod(folder.path().c_str(), 0755);
    if (::geteuid() != 0) return examine(environment, {program}, doctor);
    const std::string setpriv = "/usr/bin/setpriv";
    if (!fs::exists(setpriv)) return std::nullopt;
    return examine(environment, {"--reuid=65534", "--regid=65534", "--clear-groups", doctor, program},
                   setpriv);
}

TEST(Doctor, AForbiddenFolderIsToldFromAMissingOne) {
    const TemporaryFolder folder;
    const TemporaryFolder hidden;
    const std::string path = staleSocket(hidden);
    ::chmod(hidden.path().c_str(), 0);
    const auto finished = examineUnprivileged(folder, environmentFor(path));
    ::chmod(hidden.path().c_str(), 0700);
    if (!finished) GTEST_SKIP() << "root sees everything";
    EXPECT_TRUE(has(*finished, "✗ You may not look into " + hidden.path())) << finished->output;
    EXPECT_TRUE(has(*finished, "permissions d---------")) << finished->output;
    EXPECT_EQ(finished->status, 1);
}

TEST(Doctor, ASocketThatMayNotBeWrittenToIsForbidden) {
    const TemporaryFolder folder;
    const ScriptedHost host(folder / "agent.sock");
    ::chmod(host.socketPath().c_str(), 0400);
    const auto finished = examineUnprivileged(folder, environmentFor(host.socketPath()));
    if (!finished) GTEST_SKIP() << "root may write to everything";
    EXPECT_TRUE(has(*finished, "may not write to it, so you cannot connect.")) << finished->output;
    EXPECT_TRUE(has(*finished, nobody)) << finished->output;
    EXPECT_EQ(finished->status, 1);
}

TEST(Doctor, TheStandInIsFoundWell) {
    const TemporaryFolder folder;
    Process::Options options;
    options.program = HOST_STAND_IN_PATH;
    options.arguments = {"--root", folder.path(), "--socket", folder / "agent.sock"};
    options.environment = environmentFor("");
    Process host(options);
    ASSERT_TRUE(host.readLine().has_value()) << "it says when it listens";
    const Finished finished = examine(environmentFor(folder / "agent.sock"));
    EXPECT_EQ(finished.status, 0) << finished.output;
    EXPECT_TRUE(has(finished, "permissions srw-------)")) << finished.output;
}

TEST(Doctor, MoreThanOneArgumentIsRefused) { EXPECT_EQ(examine(environmentFor(""), {"a", "b"}).status, 2); }

}  // namespace
}  // namespace tidewell::test
