// Conversation.hpp: runs a bridge in this process, from a complete input to a complete output.
#pragma once

#include "Server/StdioBridge.hpp"

#include "Judge.hpp"

#include <nlohmann/json.hpp>

#include <cstdio>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace tidewell::test {

struct Conversation {
    std::string output;
    StdioBridge::Ending ending;
};

/// A bridge reads `input` to its end. Files stand in for the client's pipes, so that nothing here can block.
inline Conversation hold(std::string_view input, const std::string& socketPath = "/nonexistent/host.sock") {
    std::FILE* const in = std::tmpfile();
    std::FILE* const out = std::tmpfile();
    if (in == nullptr || out == nullptr) throw std::runtime_error("no temporary file");
    std::fwrite(input.data(), 1, input.size(), in);
    std::rewind(in);

    const StdioBridge::Ending ending =
        StdioBridge(SocketClient(socketPath), ::fileno(in), ::fileno(out)).run();

    std::string output(static_cast<std::size_t>(::lseek(::fileno(out), 0, SEEK_END)), '\0');
    const ssize_t count = ::pread(::fileno(out), output.data(), output.size(), 0);
    if (count != static_cast<ssize_t>(output.size())) throw std::runtime_error("short read");
    std::fclose(in);
    std::fclose(out);
    return {std::move(output), ending};
}

/// Everything the bridge writes.
inline std::string converse(std::string_view input,
                            const std::string& socketPath = "/nonexistent/host.sock") {
    return hold(input, socketPath).output;
}

/// The replies as JSON, one a line, read by an independent library.
inline std::vector<nlohmann::json> repliesTo(std::string_view input,
                                             const std::string& socketPath = "/nonexistent/host.sock") {
    std::vector<nlohmann::json> replies;
    std::istringstream stream(converse(input, socketPath));
    for (std::string line; std::getline(stream, line);) replies.push_back(judgeWritten(line));
    return replies;
}

/// The one reply to one line.
inline nlohmann::json replyTo(std::string_view line,
                              const std::string& socketPath = "/nonexistent/host.sock") {
    const auto replies = repliesTo(std::string(line) + "\n", socketPath);
    if (replies.size() != 1)
        throw std::runtime_error("expected one reply, got " + std::to_string(replies.size()));
    return replies.front();
}

}  // namespace tidewell::test
