// Servers.hpp: the servers to measure, what they are asked, and whether they answer alike.
#pragma once

#include "Client.hpp"

#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tidewell::bench {

extern const std::string initializeRequest;
extern const std::string pingRequest;
extern const std::string listRequest;
/// A tools/call; the tool's name decides what the canned host app answers.
std::string callRequest(std::string_view tool);
/// A tools/call whose result has `size` bytes.
std::string callRequest(std::size_t size);
extern const std::string smallCall;

struct Server {
    /// Exact for replies that were compared.
    struct ReplySize {
        std::size_t bytes = 0;
        std::size_t tolerance = 0;
    };

    std::string name;
    Command command;
    bool isSlow = false;   ///< so slow with large replies that it is measured less often
    bool isFloor = false;  ///< passes on the host app's reply as it is
    /// How long its replies must be, by request.
    std::map<std::string, ReplySize> replySizes = {};

    bool isReply(const std::string& line, std::size_t size) const;
};

/// Starts the server for one request and returns its reply.
std::string ask(const Server& server, const std::string& line);

/// Throws unless each of the servers answers the fixed requests and calls of up to 8 MB with the right value, and
/// notes the lengths of their replies.
void compareReplies(std::vector<Server>& servers);
/// The same for a call of one tool.
void compareCalls(std::vector<Server>& servers, const std::string& tool);

/// Notes the approximate length of the reply to callRequest(size), which is too large to be compared.
void expectLargeReply(Server& server, std::size_t size);

/// Why no larger replies should be asked for after this one: the server failed, gave a wrong reply, or took
/// too long to begin it.
std::optional<std::string> findTooLarge(const Server& server, std::size_t size);

}  // namespace tidewell::bench
