// DoctorTests.cpp: Scripts/doctor in every situation that it distinguishes: what it finds, and its exit status.
#include "Support/Process.hpp"
#include "Support/ScriptedHost.hpp"
#include "Support/TemporaryFolder.hpp"
#include "Support/TestNames.hpp"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace tidewell::test {
namespace {

namespace fs = std::filesystem;

using Environment = std::map<std::string, std::string>;

Finished examine(const Environment& environment, std::vector<std::string> arguments = {TIDEWELL_MCP_PATH},
                 const std::string& doctor = DOCTOR_PATH) {
    return runProcess({.arguments = std::move(arguments),
                       .environment = environment,
                       .program = doctor,
                       .mayUseErrors = true},
                      "");
}

bool has(const Finished& finished, const std::string& text) {
    return finished.output.find(text) != std::string::npos;
}

/// The advice for the first note or, by default, the fault: the line after it.
std::string adviceFor(const std::string& output, bool note = false) {
    const std::string arrow = "\n      → ";
    const std::size_t finding = output.find(note ? "\n  ! " : "\n  ✗ ");
    if (finding == std::string::npos) return {};
    const std::size_t end = output.find('\n', finding + 1);
    if (output.compare(end, arrow.size(), arrow) != 0) return {};
    const std::size_t begin = end + arrow.size();
    return output.substr(begin, output.find('\n', begin) - begin);
}

/// Either all is well, or there is one fault with one remedy and nothing after that.
void expectOneVerdict(const Finished& finished) {
    const std::size_t fault = finished.output.find("\n  ✗ ");
    EXPECT_EQ(finished.errors, "");
    EXPECT_EQ(finished.status, fault == std::string::npos ? 0 : 1);
    EXPECT_EQ(has(finished, "All is well."), finished.status == 0);
    if (fault == std::string::npos) return;
    EXPECT_EQ(std::ranges::count(finished.output.substr(fault + 1), '\n'), 2);
    EXPECT_NE(adviceFor(finished.output), "");
}

std::string writeScript(const TemporaryFolder& folder, std::string_view name, const std::string& text) {
    std::string path = folder.write(name, "#!/bin/sh\n" + text);
    ::chmod(path.c_str(), 0755);
    return path;
}

/// A socket file whose listener ended without removing it.
std::string staleSocket(const TemporaryFolder& folder, std::string_view name = "agent.sock") {
    std::string path = folder / name;
    ::close(socketAt(path, ::bind));
    return path;
}

constexpr std::string_view usualPlace = "Library/Application Support/Tidewell/tidewell-agent.sock";

const std::string success = R"({"ok":true,"result":{"repositories":[]}})";

enum class App { elsewhere, atUsualPlace };

using SocketPath = std::function<std::string(const TemporaryFolder&, ScriptedHost&)>;

/// A situation to diagnose, and the verdict that it must get.
struct Situation {
    const char* name;
    /// The configured path, where a test may have set up a host.
    SocketPath socketPath;
    std::string finding;
    std::string remedy;  ///< for a fault, or for a note when the finding is one
    App app = App::elsewhere;
    std::string processes = {};  ///< what ps says
};

class DoctorTest : public testing::TestWithParam<Situation> {};

TEST_P(DoctorTest, FindsItAndNamesTheRemedy) {
    const Situation& situation = GetParam();
    const TemporaryFolder folder;
    ScriptedHost host;
    fs::create_directories(fs::path(folder / usualPlace).parent_path());
    std::optional<ScriptedHost> app;
    if (situation.app == App::atUsualPlace) app.emplace(folder / usualPlace);
    writeScript(folder, "bin/ps", "cat <<END\n" + situation.processes + "END\n");

    Environment environment = environmentFor(situation.socketPath(folder, host));
    environment["HOME"] = folder.path();
    environment["PATH"] = folder / "bin" + ":/usr/bin:/bin";
    const Finished finished = examine(environment);
    EXPECT_TRUE(has(finished, situation.finding)) << situation.finding;
    EXPECT_NE(adviceFor(finished.output, situation.finding.starts_with('!')).find(situation.remedy),
              std::string::npos)
        << situation.remedy;
    expectOneVerdict(finished);
    if (HasFailure()) ADD_FAILURE() << finished.output;
}

SocketPath text(std::string path) {
    return [=](auto&, auto&) { return path; };
}
SocketPath below(std::string name) {
    return [=](auto& folder, auto&) { return folder / name; };
}
SocketPath file(std::string_view name) {
    return [=](auto& folder, auto&) { return folder.write(name, "text"); };
}
SocketPath saying(std::string reply) {
    return [=](auto&, auto& host) { return host.replies(reply).socketPath(); };
}
/// The socket of a healthy host, with these permissions.
SocketPath open(mode_t mode) {
    return [=](auto&, auto& host) {
        ::chmod(host.socketPath().c_str(), mode);
        return host.replies(success).socketPath();
    };
}

const std::string unsetOrCorrect = "Unset TIDEWELL_SOCKET_PATH, or correct it.";
const std::string quitAndStart = "Quit Tidewell and start it again.";
const std::string startIt = "Start Tidewell.";
const std::string orRemove = "Correct TIDEWELL_SOCKET_PATH, or remove this";
const std::string oddEnd = " begins or ends with a quote or a blank";
const std::string writeInFull = "Write the path out in full, from / on.";
const std::string notTidewell = "✗ A program listens, but does not answer as Tidewell does (";
const std::string endThatProgram = "End that program and start Tidewell";

const std::vector<Situation> situations = {
    {"ListeningAndWell", saying(success), "✓ Tidewell listens, and answered list_local_repositories with ",
     ""},
    {"AResultThatLooksLikeAnError",
     saying(R"({"ok":true,"result":"\"isError\":true,{\"code\":\"app_not_running\"}"})"),
     "✓ Tidewell listens", ""},
    {"AnEmptyVariableMeansTheUsualPlace", text(""), "✓ Tidewell listens", "", App::atUsualPlace},

    // The path leads nowhere.
    {"NoSocket", below("none.sock"), "none.sock does not exist.", startIt},
    {"NoSocketAtTheUsualPlace", text(""), "tidewell-agent.sock does not exist.", startIt},
    {"NoFolder", below("a/b/none.sock"), "/a does not exist.", startIt},
    {"NoSocketWhileTheAppRuns", below("none.sock"),
     "none.sock does not exist, although Tidewell runs (process 42).", quitAndStart, App::elsewhere,
     "   41 Tidewell Helper\n   42 /Applications/Tidewell.app/Contents/MacOS/Tidewell\n"},
    {"AProgramWithALongerNameIsNotTheApp", below("none.sock"), "none.sock does not exist.", startIt,
     App::elsewhere, "   41 Tidewell Helper\n   42 NotTidewell\n   43 TidewellMCP\n"},
    {"AWrongPathWhileTheAppAnswersAtTheUsualPlace", below("none.sock"),
     "none.sock does not exist. Tidewell answers at the usual place, /", unsetOrCorrect, App::atUsualPlace},
    {"AFileWhereAFolderShouldBe",
     [](auto& folder, auto&) { return folder.write("file", "") + "/agent.sock"; },
     "✗ This is not a folder: /", orRemove},
    {"ALinkThatLeadsNowhere",
     [](auto& folder, auto&) {
         fs::create_symlink("gone", folder / "link.sock");
         return folder / "link.sock";
     },
     "✗ This is a link that leads nowhere: /", orRemove},
    {"ARegularFile", file("plain.sock"), "✗ This is a regular file, not a socket.", orRemove},
    {"ARegularFileAtTheUsualPlace", [](auto& folder, auto&) { return folder.write(usualPlace, "text"), ""; },
     "✗ This is a regular file, not a socket.", "Remove it and start Tidewell."},
    {"ARegularFileWhileTheAppAnswersAtTheUsualPlace", file("plain.sock"),
     "✗ This is a regular file, not a socket. Tidewell answers at the usual place", unsetOrCorrect,
     App::atUsualPlace},
    {"AFolder", [](auto& folder, auto&) { return folder.path(); }, "✗ This is a folder, not a socket.",
     orRemove},
    {"APipe",
     [](auto& folder, auto&) {
         ::mkfifo((folder / "pipe").c_str(), 0600);
         return folder / "pipe";
     },
     "✗ This is a device or a pipe, not a socket.", orRemove},

    // Nobody, or somebody else, answers.
    {"AStaleSocket", [](auto& folder, auto&) { return staleSocket(folder); },
     "✗ Nobody listens on this socket.", startIt},
    {"AStaleSocketWhileTheAppRuns",
     [](auto& folder, auto&) {
         staleSocket(folder, usualPlace);
         return "";
     },
     "✗ Nobody listens on this socket, although Tidewell runs (process 7).", quitAndStart, App::elsewhere,
     "    7 Tidewell\n"},
    {"AStaleSocketWhileTheAppAnswersAtTheUsualPlace", [](auto& folder, auto&) { return staleSocket(folder); },
     "✗ Nobody listens on this socket, although Tidewell runs (process 7). Tidewell answers at the usual "
     "place",
     unsetOrCorrect, App::atUsualPlace, "    7 Tidewell\n"},
    {"ListeningButSilent", [](auto&, auto& host) { return host.staysSilent().socketPath(); },
     "✗ A program listens, but does not answer within 5 seconds.", "Wait a minute and run this again."},
    {"ListeningButHangingUp",
     [](auto&, auto& host) { return host.closesUnanswered().closesUnanswered().socketPath(); },
     "✗ A program listens, but hangs up without an answer.", quitAndStart},
    {"HangingUpAndThenSilent",
     [](auto&, auto& host) { return host.closesUnanswered().staysSilent().socketPath(); },
     "✗ A program listens, but does not answer within 5 seconds.", "Wait a minute"},
    {"HangingUpAndThenAnswering", [](auto&, auto& host) { return host.closesUnanswered().socketPath(); },
     "✗ The first call failed, the second was answered.", "Run this again."},
    {"AGreetingOfAnotherProgram", saying("SSH-2.0-other"), notTidewell + "invalid JSON", endThatProgram},
    {"AnotherProgramSaysDone", saying("\"done\""), notTidewell, endThatProgram},
    {"AnotherProgramEchoes",
     [](auto&, auto& host) {
         return host.then([](const HostConnection& it) { it.write(it.readEnvelope() + "\n"); }).socketPath();
     },
     notTidewell, endThatProgram},
    {"AnotherProgramWhileTheAppAnswersAtTheUsualPlace", saying("[]"), "Tidewell answers at the usual place",
     unsetOrCorrect, App::atUsualPlace},

    // The app refuses.
    {"ARefusal", saying(R"({"ok":false,"error":{"code":"locked","message":"the app is locked"}})"),
     "✗ Tidewell listens, but refuses the call: the app is locked (locked)", "Look into Tidewell."},
    {"ARefusalWithAHint",
     saying(R"({"ok":false,"error":{"code":"locked","message":"say \"Ada\"",)"
            R"("hint":"open \"Settings\"\nand \u001b[1munlock C:\\ it"}})"),
     "✗ Tidewell listens, but refuses the call: say \"Ada\" (locked)", "open \"Settings\" and "},

    // The path's text.
    {"ATooLongPath", below(std::string(200, 'x')), " bytes; a socket's may have ",
     "Let Tidewell listen at a shorter path"},
    {"ATooLongPathWhileTheAppAnswersAtTheUsualPlace", below(std::string(200, 'x')),
     " bytes; a socket's may have ", "Let Tidewell listen at a shorter path", App::atUsualPlace},
    {"ATilde", text("~/agent.sock"),
     "✗ TIDEWELL_SOCKET_PATH in this terminal begins with ~, which is not replaced everywhere.", writeInFull},
    {"AVariable", text("$HOME/agent.sock"), "✗ TIDEWELL_SOCKET_PATH in this terminal begins with $HOME, ",
     writeInFull},
    {"ARelativePath", text("run/agent.sock"),
     "✗ TIDEWELL_SOCKET_PATH in this terminal is relative: run/agent.sock", writeInFull},
    {"ABlankAtTheBeginning", [](auto&, auto& host) { return " " + host.socketPath(); }, oddEnd,
     "Remove that character."},
    {"ABlankAtTheEnd", [](auto&, auto& host) { return host.socketPath() + "\t"; }, oddEnd,
     "Remove that character."},
    {"AQuotedPath", [](auto&, auto& host) { return "\"" + host.socketPath() + "\""; }, oddEnd,
     "Remove that character."},

    // Notes.
    {"ASocketForTheGroup", open(0660), "! Other users may connect too", "chmod 600 /"},
    {"ASocketForEverybody", open(0602), "! Other users may connect too", "chmod 600 /"},
};

INSTANTIATE_TEST_SUITE_P(Doctor, DoctorTest, testing::ValuesIn(situations), nameOf);

Process::Options standIn(std::string program, const TemporaryFolder& folder) {
    return {.arguments = {"--root", folder.path(), "--socket", folder / "host.sock"},
            .environment = environmentFor(""),
            .program = std::move(program)};
}

TEST(Doctor, ItFindsARunningAppByItself) {
    if (!fs::exists("/bin/ps")) GTEST_SKIP() << "this system has no ps";
    const TemporaryFolder folder;
    fs::copy(HOST_STAND_IN_PATH, folder / "Tidewell");
    Process app(standIn(folder / "Tidewell", folder));
    ASSERT_TRUE(app.readLine().has_value()) << "it says when it listens";
    const Finished finished = examine(environmentFor(staleSocket(folder)));
    EXPECT_TRUE(has(finished, "✗ Nobody listens on this socket, although Tidewell runs (process "))
        << finished.output;
    expectOneVerdict(finished);
}

TEST(Doctor, TheLongestPathIsFineAndOneByteMoreIsNot) {
    const TemporaryFolder folder;
    constexpr std::size_t most = sizeof(sockaddr_un::sun_path) - 1;
    for (const auto& [length, fault] : {std::pair{most, false}, {most + 1, true}}) {
        const std::string path = folder / std::string(length - folder.path().size() - 1, 'x');
        EXPECT_EQ(has(examine(environmentFor(path)), " bytes; a socket's may have "), fault) << length;
    }
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
    const std::string said =
        runProcess({.environment = environment},
                   "{\"id\":1,\"method\":\"resources/read\",\"params\":{\"uri\":\"x\"}}\n")
            .output;
    const std::string before = " at ";
    const std::size_t begin = said.find(before) + before.size();
    return said.substr(begin, said.find(" — ") - begin);
}

TEST(Doctor, ThePathInForceIsTheServersOwnAndTheReasonIsGiven) {
    const std::string unset = ", the usual place: no TIDEWELL_SOCKET_PATH in this terminal";
    const std::string path = "/usr/bin:/bin";
    const std::vector<std::pair<Environment, std::string>> rows = {
        {{{"PATH", path}, {"HOME", "/nonexistent/ada"}}, unset},
        {{{"PATH", path}, {"HOME", "/nonexistent/ada"}, {"TIDEWELL_SOCKET_PATH", ""}}, unset},
        {{{"PATH", path}, {"HOME", ""}}, unset},
        {{{"PATH", path}}, unset},
        {{{"PATH", path}, {"TIDEWELL_SOCKET_PATH", "/nonexistent/x y.sock"}},
         ", TIDEWELL_SOCKET_PATH in this terminal"},
    };
    for (const auto& [environment, reason] : rows) {
        const Finished finished = examine(environment);
        EXPECT_TRUE(has(finished, "✓ " + pathAccordingToServer(environment) + reason + "\n"))
            << finished.output;
    }
}

TEST(Doctor, AProgramThatIsNoneIsFoundOutAndNothingElseIsTried) {
    const TemporaryFolder folder;
    const std::string notes = folder.write("notes", "text");
    ::chmod(notes.c_str(), 0644);  // root may execute a file only if it has some execute bit
    const std::vector<std::pair<std::string, std::string>> rows = {
        {folder / "none", "✗ There is no program "},
        {"NoSuchProgramOnThePath", "✗ There is no program NoSuchProgramOnThePath."},
        {folder.path(), " is a folder, not a program."},
        {notes, "✗ You may not execute "},
        {writeScript(folder, "foreign", "exit 126"), "✗ The system cannot run it"},
        {writeScript(folder, "other", "echo 1.0"), "✗ It answers initialize with: 1.0"},
        {writeScript(folder, "echo", "cat"),
         "✗ It answers initialize with: {\"jsonrpc\":\"2.0\",\"id\":1,\"method\""},
        {writeScript(folder, "mute", ""), "✗ It answers initialize with: (nothing)"},
        {writeScript(folder, "dying", "exit 9"), "✗ It ends with status 9"},
        {writeScript(folder, "waiting", "trap '' TERM\nwhile :; do sleep 1; done"),
         "✗ It does not answer initialize within 5 seconds"},
        {writeScript(folder, "empty", "exec '" TIDEWELL_MCP_PATH "' | sed 's/\"inputSchema\"/\"schema\"/g'"),
         "✗ It answers tools/list without a tool."},
    };
    for (const auto& [program, finding] : rows) {
        const Finished finished = examine(environmentFor("/nonexistent/agent.sock"), {program});
        EXPECT_TRUE(has(finished, finding)) << finding;
        EXPECT_FALSE(has(finished, "The socket"));
        EXPECT_EQ(finished.status, 1);
        expectOneVerdict(finished);
        if (HasFailure()) FAIL() << finished.output;
    }
}

TEST(Doctor, WithoutAnArgumentThePathCountsFirstThenTheDoctorsFolderThenTheBuild) {
    const TemporaryFolder folder;
    const std::string doctor = folder / "checkout/Scripts/tidewell-mcp-doctor";
    fs::create_directories(folder / "checkout/Scripts");
    fs::copy(DOCTOR_PATH, doctor);
    Environment environment = environmentFor("/nonexistent/agent.sock");
    const auto finds = [&](const std::string& what) {
        const Finished finished = examine(environment, {}, doctor);
        return has(finished, what) ? "" : finished.output;
    };
    EXPECT_EQ(finds("✗ There is no TidewellMCP on the PATH, beside this script or built in this checkout."),
              "");

    fs::create_directories(folder / "checkout/build/release/bin");
    fs::copy(TIDEWELL_MCP_PATH, folder / "checkout/build/release/bin/TidewellMCP");
    EXPECT_EQ(finds("TidewellMCP, built in this checkout"), "");

    fs::copy(TIDEWELL_MCP_PATH, folder / "checkout/Scripts/TidewellMCP");
    EXPECT_EQ(finds("checkout/Scripts/TidewellMCP, beside this script"), "");

    environment["PATH"] = fs::path(TIDEWELL_MCP_PATH).parent_path().string() + ":/usr/bin:/bin";
    EXPECT_EQ(finds(TIDEWELL_MCP_PATH ", the first one on the PATH"), "");
}

TEST(Doctor, AVersionFileThatWasLeftBehindIsNotedButNoFault) {
    const TemporaryFolder folder;
    fs::create_directories(folder / "bin");
    fs::copy(TIDEWELL_MCP_PATH, folder / "bin/TidewellMCP");
    ScriptedHost host;
    host.replies(success);
    const Finished finished = examine(environmentFor(host.socketPath()), {folder / "bin/TidewellMCP"});
    EXPECT_TRUE(has(finished, "! It does not know its version.")) << finished.output;
    expectOneVerdict(finished);
}

// --- permissions ----------------------------------------------------------------------------------------------

constexpr uid_t nobody = 65534;

struct PermissionRow {
    const char* name;
    bool own;  ///< the doctor's user owns the socket and its folder
    mode_t folderMode;
    mode_t socketMode;
    std::string finding;
    std::string remedy;
    App app = App::elsewhere;
};

class DoctorPermissionTest : public testing::TestWithParam<PermissionRow> {};

/// Root may do everything, so the doctor runs as another user if the tests run as root.
TEST_P(DoctorPermissionTest, IsToldFromAbsence) {
    const PermissionRow& row = GetParam();
    const bool root = ::geteuid() == 0;
    const std::string setpriv = "/usr/bin/setpriv";
    if (root && !fs::exists(setpriv)) GTEST_SKIP() << "root needs setpriv to become somebody else";
    if (!root && !row.own) GTEST_SKIP() << "only root can give a file to another user";

    const TemporaryFolder tools;
    fs::copy(TIDEWELL_MCP_PATH, tools / "TidewellMCP");
    fs::copy(DOCTOR_PATH, tools / "doctor");
    ::chmod(tools.path().c_str(), 0755);
    const TemporaryFolder folder;
    const ScriptedHost host(folder / "agent.sock");
    fs::create_directories(fs::path(tools / usualPlace).parent_path());
    std::optional<ScriptedHost> app;
    if (row.app == App::atUsualPlace) {
        app.emplace(tools / usualPlace);
        ::chmod(app->socketPath().c_str(), 0666);
    }
    if (root && row.own) {
        for (const std::string& path : {host.socketPath(), folder.path()}) {
            ASSERT_EQ(::chown(path.c_str(), nobody, nobody), 0);
        }
    }
    ::chmod(host.socketPath().c_str(), row.socketMode);
    ::chmod(folder.path().c_str(), row.folderMode);

    std::vector<std::string> arguments = {tools / "TidewellMCP"};
    std::string program = tools / "doctor";
    if (root) {
        const std::string id = std::to_string(nobody);
        arguments = {"--reuid=" + id, "--regid=" + id, "--clear-groups", program, arguments[0]};
        program = setpriv;
    }
    Environment environment = environmentFor(host.socketPath());
    environment["HOME"] = tools.path();
    const Finished finished = examine(environment, arguments, program);
    ::chmod(folder.path().c_str(), 0700);
    EXPECT_TRUE(has(finished, row.finding)) << finished.output;
    EXPECT_NE(adviceFor(finished.output).find(row.remedy), std::string::npos) << finished.output;
    EXPECT_EQ(host.connections(), 0);
    EXPECT_EQ(finished.status, 1);
    expectOneVerdict(finished);
}

const std::string mayNotConnect = ") may not connect to /";
const std::string runAsThatUser = "Run the client as the user who runs Tidewell";

INSTANTIATE_TEST_SUITE_P(Doctor, DoctorPermissionTest,
                         testing::ValuesIn(std::vector<PermissionRow>{
                             {"OnesOwnSocketWithoutAnyPermission", true, 0700, 0000, mayNotConnect,
                              "It is yours: chmod 600 /"},
                             {"OnesOwnFolderWithoutAnyPermission", true, 0000, 0600, ") may not look into /",
                              "It is yours: chmod 700 /"},
                             {"AnothersSocket", false, 0755, 0600, mayNotConnect, runAsThatUser},
                             {"AnothersFolder", false, 0700, 0666, ") may not look into /", runAsThatUser},
                             {"AnothersSocketWhileOnesOwnIsAtTheUsualPlace", false, 0755, 0600, mayNotConnect,
                              unsetOrCorrect, App::atUsualPlace},
                         }),
                         nameOf);

// --- a client's configuration ----------------------------------------------------------------------------------

struct ClientRow {
    const char* name;
    std::string file;
    std::string text;  ///< with <P> for the program's path and <S> for the socket's
    std::string finding;
    std::string remedy = {};
};

std::string filledIn(std::string text, const std::string& mark, const std::string& value) {
    for (std::size_t at = 0; (at = text.find(mark, at)) != std::string::npos; at += value.size()) {
        text.replace(at, mark.size(), value);
    }
    return text;
}

class DoctorClientTest : public testing::TestWithParam<ClientRow> {};

TEST_P(DoctorClientTest, IsReadAsTheClientReadsIt) {
    const ClientRow& row = GetParam();
    const TemporaryFolder folder;
    ScriptedHost host;
    host.replies(success);
    const std::string text = filledIn(filledIn(row.text, "<P>", TIDEWELL_MCP_PATH), "<S>", host.socketPath());
    const std::string file = folder.write(row.file, text);
    Environment environment = environmentFor("/nowhere/terminal.sock");
    environment["PATH"] = fs::path(TIDEWELL_MCP_PATH).parent_path().string() + ":/usr/bin:/bin";
    const Finished finished = examine(environment, {"--client", file});
    const std::string finding = filledIn(row.finding, "<FILE>", file);
    EXPECT_TRUE(has(finished, finding)) << finding;
    EXPECT_NE(adviceFor(finished.output, finding.starts_with('!')).find(row.remedy), std::string::npos)
        << row.remedy;
    EXPECT_EQ(host.connections(), finished.status == 0 ? 1 : 0);
    expectOneVerdict(finished);
    if (HasFailure()) ADD_FAILURE() << finished.output;
}

const std::string listens = "✓ Tidewell listens";
const std::string missing = "Add the bracket, brace or value that is missing.";
const std::string correctCommand = "Correct the command in /";

const std::vector<ClientRow> clientRows = {
    // Each form, with its neighbours in a real file.
    {"CommonForm", "mcp.json",
     R"({"mcpServers":{"other":{"command":"npx","args":["-y","x"]},)"
     R"("tidewell":{"command":"<P>","args":[],"env":{"TIDEWELL_SOCKET_PATH":"<S>"}}}})",
     listens},
    {"CommonFormInsideOtherSettings", "claude.json",
     R"({"starts": 1.5e3, "projects": {"/home/ada": {"history": ["\u001b {", "\\"], "none": null, "mcpServers": {
         "mine": {"type": "stdio", "command": "<P>", "env": {"TIDEWELL_SOCKET_PATH": "<S>"}}}}}})",
     listens},
    {"EscapesInJSON", "mcp.json",
     R"({"mcpServers":{"tidewell":{"command":"<P>","args":["\"a\\"],"env":{"X":"\/","TIDEWELL_SOCKET_PATH":"<S>"}}}})",
     "TidewellMCP \"a\\, as the client starts it"},
    {"GeminiMayHaveComments", ".gemini/settings.json",
     "// mine\n"
     R"({"mcpServers":{"tidewell":{"command":"<P>","env":{"TIDEWELL_SOCKET_PATH":"<S>"}}}})",
     listens},
    {"VisualStudioCodeWithComments", ".vscode/mcp.json",
     "// mine\n{\"servers\": /* all\n of them */ {\"tidewell\": {\"type\": \"stdio\", \"command\": \"<P>\", "
     "// this\n"
     "\"env\": {\"TIDEWELL_SOCKET_PATH\": \"<S>\",},},},}\n",
     listens},
    {"ZedWithComments", "settings.json",
     "{// the theme: {\n\"theme\": \"// none\", \"context_servers\": {\"tidewell\": {\"source\": \"custom\", "
     "\"command\": \"<P>\", \"args\": [], \"env\": {\"TIDEWELL_SOCKET_PATH\": \"<S>\"}, }}}",
     listens},
    {"OpencodeV1", "opencode.json",
     R"({"mcp":{"tidewell":{"type":"local","command":["<P>"],"environment":{"TIDEWELL_SOCKET_PATH":"<S>"}}}})",
     listens},
    {"OpencodeV2", "opencode.json",
     R"({"mcp":{"servers":{"tidewell":{"type":"local","command":["<P>","x"],)"
     R"("environment":{"TIDEWELL_SOCKET_PATH":"<S>"}}}}})",
     listens},
    {"Codex", "config.toml",
     "model = \"x\" # mine\nnotify = [\n  \"a\", # b\n  'c',\n]\ninstructions = \"\"\"\n[no table] "
     "\"\"\n\"\"\"\n"
     "[projects.\"/home/ada\"]\nsince = 1979-05-27T07:32:00Z\n[[profiles]]\na.b = true\n"
     "[mcp_servers.tidewell]\ncommand = '<P>'\nenv = { X = \"y\", TIDEWELL_SOCKET_PATH = \"<S>\" }\n",
     listens},
    {"CodexWithATableForTheEnvironment", "config.toml",
     "[mcp_servers.tidewell]\ncommand = \"<P>\"\n[mcp_servers.tidewell.env]\nTIDEWELL_SOCKET_PATH = "
     "\"<S>\"\n",
     listens},
    {"CodexPassesAVariableOn", "config.toml",
     "[mcp_servers.tidewell]\ncommand = \"<P>\"\nenv_vars = [\"TIDEWELL_SOCKET_PATH\"]\n",
     "✗ /nowhere does not exist."},
    {"Goose", "config.yaml",
     "GOOSE_MODE: auto\nextensions:\n  developer:\n    bundled: true\n    description: >-\n      All: of\n   "
     "   - it\n"
     "    args:\n    - a\n    available_tools: []\n  tidewell:\n    name: tidewell\n    type: stdio\n    "
     "enabled: true\n"
     "    cmd: <P>  # built here\n    args: []\n    envs:\n      TIDEWELL_SOCKET_PATH: \"<S>\"\n    timeout: "
     "300\n",
     listens},
    {"GooseInBraces", "config.yaml",
     "extensions:\n  tidewell: {type: stdio, name: tidewell, enabled: true, cmd: <P>, args: [],\n"
     "    envs: {TIDEWELL_SOCKET_PATH: <S>}, timeout: 300}\n",
     listens},
    {"Continue", "config.yaml",
     "name: Mine\nrules:\n  - |\n    a: b\n  - name: 'it''s'\n    rule: a long\n      text\n"
     "mcpServers:  # all\n  - name: other\n    command: x\n  - name: tidewell\n    command: <P>\n    args:\n "
     "     - one\n"
     "    env:\n      TIDEWELL_SOCKET_PATH: <S>\n",
     listens},

    // Files that no client can read.
    {"AMissingComma", "mcp.json",
     "{\"mcpServers\": {\n  \"tidewell\": {\n    \"command\": \"<P>\"\n    \"args\": []\n}}}",
     "✗ <FILE>: line 4: a comma is missing before: \"args\"", "Insert it."},
    {"AMissingBrace", "mcp.json", "{\"mcpServers\": {\n  \"tidewell\": {\"command\": \"<P>\"}\n",
     "✗ <FILE>: line 2: the file ends too early.", missing},
    {"AnEmptyFile", "mcp.json", "", "✗ <FILE>: line 1: the file ends too early.", missing},
    {"ABraceTooMany", "mcp.json", "{\"mcpServers\": {}}\n}",
     "✗ <FILE>: line 2: unexpected text after the end: }", "Remove it."},
    {"AnOpenQuote", "mcp.json", "{\n\"mcpServers: {}}",
     "✗ <FILE>: line 2: this text does not end: \"mcpServers", "Put it in double quotes"},
    {"ANameWithoutQuotes", "mcp.json", "{mcpServers: {}}",
     "✗ <FILE>: line 1: a name was expected, not: mcpServers", "Put names in double quotes"},
    {"AValueWithoutQuotes", "mcp.json", "{\"mcpServers\":\n/opt}",
     "✗ <FILE>: line 2: a value was expected, not: /opt", "Put texts in double quotes"},
    {"AComment", "mcp.json", "{\n// mine\n\"mcpServers\": {\"tidewell\": {\"command\": \"<P>\"}}}",
     "✗ <FILE>: line 2: JSON allows no comment.", "Remove it."},
    {"ACommaTooMany", "mcp.json", "{\"mcpServers\": {\"tidewell\": {\n\"command\": \"<P>\",\n}}}",
     "✗ <FILE>: line 2: JSON allows no comma before a closing bracket.", "Remove it."},
    {"TOMLWithoutAQuote", "config.toml", "[mcp_servers.tidewell]\ncommand = <P>\n",
     "✗ <FILE>: line 2: a value was expected, not: /", "Put texts in double quotes"},
    {"TOMLWithAnOpenTable", "config.toml", "[mcp_servers.tidewell\ncommand = \"<P>\"\n",
     "✗ <FILE>: line 1: this table's name is not closed", "Close it with ]."},
    {"YAMLWithATab", "config.yaml", "extensions:\n\ttidewell:\n",
     "✗ <FILE>: line 2: a tab indents this line.", "Indent with blanks."},
    {"YAMLWithoutAColon", "config.yaml", "extensions:\n  tidewell\n    cmd: x\n",
     "✗ <FILE>: line 2: neither \"name: value\" nor \"- item\": tidewell", "Correct colon"},

    // Entries that the client reads, but not as meant.
    {"NoServerForTidewell", "mcp.json", R"({"mcpServers":{"a":{"command":"b"},"c":{"url":"d"}}})",
     "✗ <FILE>: No server has tidewell in its name or command; it has: a, c.", "Documentation/Clients.md"},
    {"NoCommand", "mcp.json", R"({"mcpServers":{"tidewell":{"url":"http://localhost"}}})",
     "✗ <FILE>: The server \"tidewell\" has no \"command\".", "Add it"},
    {"NoCmd", "config.yaml", "extensions:\n  tidewell:\n    command: <P>\n",
     "✗ <FILE>: The server \"tidewell\" has no \"cmd\".", "Add it"},
    {"AListAsCommand", "mcp.json", R"({"mcpServers":{"tidewell":{"command":["<P>"]}}})",
     "has a list as \"command\".", "Write the program alone"},
    {"ATextAsCommandForOpencode", "opencode.json", R"({"mcp":{"tidewell":{"type":"local","command":"<P>"}}})",
     "has no list as \"command\".", "Write: \"command\": ["},
    {"ATextAsArguments", "mcp.json", R"({"mcpServers":{"tidewell":{"command":"<P>","args":"-x"}}})",
     "has a text as \"args\".", "Write a list"},
    {"AnEnvironmentThatIsNotRead", "opencode.json",
     R"({"mcp":{"tidewell":{"command":["<P>"],"env":{"TIDEWELL_SOCKET_PATH":"<S>"}}}})",
     "has \"env\", which this client does not read.", "Rename it to \"environment\"."},
    {"Disabled", "mcp.json", R"({"mcpServers":{"tidewell":{"command":"<P>","disabled":true}}})",
     "is switched off.", "Remove \"disabled\"."},
    {"NotEnabled", "config.toml", "[mcp_servers.tidewell]\nenabled = false\ncommand = \"<P>\"\n",
     "is switched off.", "Set \"enabled\" to true."},

    // Entries that the client cannot start, or starts elsewhere.
    {"ARelativeCommand", "mcp.json", R"({"mcpServers":{"tidewell":{"command":"bin/TidewellMCP"}}})",
     "✗ The command is relative: bin/TidewellMCP", writeInFull},
    {"ACommandWithATilde", "mcp.json", R"({"mcpServers":{"tidewell":{"command":"~/TidewellMCP"}}})",
     "✗ The command begins with ~,", writeInFull},
    {"ACommandOnThePath", "mcp.json",
     R"({"mcpServers":{"tidewell":{"command":"TidewellMCP","env":{"TIDEWELL_SOCKET_PATH":"<S>"}}}})",
     "! The command is searched on the client's PATH", "Write it out in full: " TIDEWELL_MCP_PATH},
    {"ACommandFoundOnThePath", "mcp.json",
     R"({"mcpServers":{"tidewell":{"command":"TidewellMCP","env":{"TIDEWELL_SOCKET_PATH":"<S>"}}}})",
     listens},
    {"ACommandThatIsNotThere", "mcp.json",
     R"({"mcpServers":{"tidewell":{"command":"/nonexistent/TidewellMCP"}}})",
     "✗ There is no program /nonexistent/TidewellMCP.", correctCommand},
    {"ACommandThatIsAFolder", "mcp.json", R"({"mcpServers":{"tidewell":{"command":"/usr"}}})",
     "✗ /usr is a folder, not a program.", correctCommand},
    {"ACommandThatIsAnother", "mcp.json",
     R"({"mcpServers":{"tidewell":{"command":"/bin/echo","args":["hello"]}}})",
     "✗ It answers initialize with: hello", correctCommand},
    {"AnArgumentThatEndsTheProgram", "mcp.json",
     R"({"mcpServers":{"tidewell":{"command":"<P>","args":["--version"]}}})",
     "✗ It answers initialize with: Tidewell ", "TidewellMCP needs no arguments."},
    {"AWrongPath", "mcp.json",
     R"({"mcpServers":{"tidewell":{"command":"<P>","env":{"TIDEWELL_SOCKET_PATH":"~/agent.sock"}}}})",
     "✗ TIDEWELL_SOCKET_PATH in <FILE> begins with ~", writeInFull},
    {"AHomeOfItsOwn", "mcp.json",
     R"({"mcpServers":{"tidewell":{"command":"<P>","env":{"HOME":"/nonexistent/ada"}}}})",
     "✓ /nonexistent/ada/Library/Application Support/Tidewell/tidewell-agent.sock, the usual place"},
    {"OnlyTheTerminalHasThePath", "mcp.json",
     R"({"mcpServers":{"tidewell":{"command":"<P>","env":{"HOME":"/nonexistent/ada"}}}})",
     "! This terminal has TIDEWELL_SOCKET_PATH, but <FILE> has not.", "Add it there"},
};

INSTANTIATE_TEST_SUITE_P(Doctor, DoctorClientTest, testing::ValuesIn(clientRows), nameOf);

TEST(Doctor, AClientsProgramGetsItsArgumentsAndItsEnvironmentAlone) {
    const TemporaryFolder folder;
    ScriptedHost host;
    host.replies(success);
    const std::string program = writeScript(folder, "start it",
                                            "{ printf '<%s>\\n' \"$@\"; env; } >'" + folder / "seen" +
                                                "'\nexec '" TIDEWELL_MCP_PATH "'\n");
    const std::string file =
        folder.write("mcp.json", R"({"mcpServers":{"tidewell":{"command":")" + program +
                                     R"(","args":["a b","","$HOME"],"env":{"TIDEWELL_SOCKET_PATH":")" +
                                     host.socketPath() + R"(","EMPTY":"","TERM":"x y"}}}})");
    Environment environment = environmentFor("/nowhere/terminal.sock");
    environment["OF_THE_TERMINAL"] = "1";
    environment["TERM"] = "dumb";
    environment["SHELL"] = "/bin/sh";
    const Finished finished = examine(environment, {"--client", file});
    expectOneVerdict(finished);

    std::ifstream seen(folder / "seen");
    std::vector<std::string> lines;
    for (std::string line; std::getline(seen, line);) {
        // The shell itself adds these.
        if (!line.starts_with("PWD=") && !line.starts_with("_=") && !line.starts_with("SHLVL="))
            lines.push_back(line);
    }
    ASSERT_GE(lines.size(), 3U) << finished.output;
    EXPECT_EQ(std::vector(lines.begin(), lines.begin() + 3),
              (std::vector<std::string>{"<a b>", "<>", "<$HOME>"}));
    std::sort(lines.begin() + 3, lines.end());
    EXPECT_EQ(std::vector(lines.begin() + 3, lines.end()),
              (std::vector<std::string>{"EMPTY=", "HOME=/nonexistent", "PATH=/usr/bin:/bin", "SHELL=/bin/sh",
                                        "TERM=x y", "TIDEWELL_SOCKET_PATH=" + host.socketPath()}));
}

TEST(Doctor, AClientsWrongPathIsCuredInItsFile) {
    const TemporaryFolder folder;
    fs::create_directories(fs::path(folder / usualPlace).parent_path());
    ScriptedHost app(folder / usualPlace);
    const std::string file =
        folder.write("mcp.json", R"({"mcpServers":{"tidewell":{"command":")" TIDEWELL_MCP_PATH
                                 R"(","env":{"TIDEWELL_SOCKET_PATH":"/nonexistent/x"}}}})");
    Environment environment = environmentFor("");
    environment["HOME"] = folder.path();
    const Finished finished = examine(environment, {"--client", file});
    EXPECT_TRUE(has(finished, "Tidewell answers at the usual place, " + app.socketPath())) << finished.output;
    EXPECT_EQ(adviceFor(finished.output), "Remove TIDEWELL_SOCKET_PATH from " + file + ", or correct it.");
}

// --- the command line ------------------------------------------------------------------------------------------

TEST(Doctor, TheStandInIsFoundWell) {
    const TemporaryFolder folder;
    Process host(standIn(HOST_STAND_IN_PATH, folder));
    ASSERT_TRUE(host.readLine().has_value()) << "it says when it listens";
    const Finished finished = examine(environmentFor(folder / "host.sock"));
    EXPECT_TRUE(has(finished, "permissions srw-------)")) << finished.output;
    expectOneVerdict(finished);
}

TEST(Doctor, WrongUsageIsRefusedByName) {
    const std::vector<std::pair<std::vector<std::string>, std::string>> rows = {
        {{"--clinet", "x"}, "unknown option --clinet."},
        {{"-x"}, "unknown option -x."},
        {{"--client"}, "--client needs a FILE."},
        {{"a", "b"}, "one PROGRAM is enough: a, b."},
        {{"--client", "x", "b"}, "either --client or a PROGRAM, not both."},
    };
    for (const auto& [arguments, message] : rows) {
        const Finished finished = examine(environmentFor(""), arguments);
        EXPECT_NE(finished.errors.find("doctor: " + message), std::string::npos) << finished.errors;
        EXPECT_EQ(finished.output, "");
        EXPECT_EQ(finished.status, 2);
    }
}

TEST(Doctor, HelpIsTheHeadComment) {
    std::ifstream script(DOCTOR_PATH);
    std::string comment;
    std::string line;
    std::getline(script, line);  // the interpreter
    while (std::getline(script, line) && line.starts_with("#")) {
        comment += line.substr(std::min<std::size_t>(2, line.size())) + "\n";
    }
    for (const char* option : {"--help", "-h"}) {
        const Finished finished = examine(environmentFor(""), {option});
        EXPECT_EQ(finished.output, comment);
        EXPECT_EQ(finished.status, 0);
    }
    EXPECT_NE(comment.find("--client FILE"), std::string::npos);
}

}  // namespace
}  // namespace tidewell::test
