// TranscriptTests.cpp: every file in Transcripts/ is one conversation with the real program.
//
//   # text          why the conversation is here
//   > text          a line to the server; all of them are sent, then its input is closed
//   < json          the next line from the server; as in all JSON here the order of members means nothing, but 3 is
//                   not 3.0, and no member may appear twice
//   host WORD text  what the host app does with its next connection (the words of ScriptedHost::does)
//   sent json       the next envelope that the host app got, without its request id
//   exit N          the exit status, if not 0
//
// Nothing else may come from the server. Replies are strictly in order, so no conversation needs to wait.
#include "Support/ExactJSON.hpp"
#include "Support/Process.hpp"
#include "Support/ScriptedHost.hpp"
#include "Support/TestNames.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace tidewell::test {
namespace {

struct Transcript {
    std::string input;
    std::vector<std::string> replies;
    std::vector<std::pair<std::string, std::string>> host;
    std::vector<std::string> envelopes;
    ExitStatus status = 0;
};

Transcript readTranscript(const std::filesystem::path& path) {
    Transcript transcript;
    std::ifstream file(path);
    std::string line;
    while (std::getline(file, line)) {
        if (line.empty() || line.front() == '#') continue;
        const auto blank = line.find(' ');
        const std::string word = line.substr(0, blank);
        const std::string text = blank == std::string::npos ? "" : line.substr(blank + 1);
        if (word == ">") {
            transcript.input += text + "\n";
        } else if (word == "<") {
            transcript.replies.push_back(exact(text));
        } else if (word == "host") {
            const auto split = text.find(' ');
            transcript.host.emplace_back(text.substr(0, split),
                                         split == std::string::npos ? "" : text.substr(split + 1));
        } else if (word == "sent") {
            transcript.envelopes.push_back(exact(text));
        } else if (word == "exit") {
            transcript.status = std::stoi(text);
        } else {
            throw std::runtime_error(path.string() + ": unknown line: " + line);
        }
    }
    return transcript;
}

class TranscriptTest : public testing::TestWithParam<std::filesystem::path> {};

TEST_P(TranscriptTest, GoesAsWritten) {
    const Transcript transcript = readTranscript(GetParam());
    std::unique_ptr<ScriptedHost> host;
    if (!transcript.host.empty()) {
        host = std::make_unique<ScriptedHost>();
        for (const auto& [word, text] : transcript.host) host->does(word, text);
    }
    const std::string socketPath = host ? host->socketPath() : "/nonexistent/host.sock";
    const Finished finished = runProcess({.environment = environmentFor(socketPath)}, transcript.input);

    EXPECT_EQ(finished.status, transcript.status);
    EXPECT_EQ(exactLines(finished.output), transcript.replies);
    if (host != nullptr) {
        EXPECT_EQ(host->exactEnvelopes(), transcript.envelopes);
    }
}

std::vector<std::filesystem::path> transcripts() {
    std::vector<std::filesystem::path> paths;
    for (const auto& entry : std::filesystem::directory_iterator(TRANSCRIPTS_PATH)) {
        if (entry.path().extension() == ".mcp") paths.push_back(entry.path());
    }
    std::ranges::sort(paths);
    return paths;
}

INSTANTIATE_TEST_SUITE_P(Transcripts, TranscriptTest, testing::ValuesIn(transcripts()), fileNameOf);

}  // namespace
}  // namespace tidewell::test
