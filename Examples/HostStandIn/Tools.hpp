// Tools.hpp: one request line in, one reply line out.
//
//     request   {"tool": name, "args": value, "requestId": text}
//     reply     {"ok": true, "result": value}
//               {"ok": false, "error": {"code": text, "message": text, "hint"?: text}}
//
// A failure has one of these codes:
//     invalid_request   the line is not a JSON object with a "tool", or no line came
//     invalid_params    an argument is missing or of the wrong type; the message names it
//     not_supported     the stand-in does not answer this tool or resource
//     outside_root      the path leads out of the served folder
//     not_found         there is no such folder
//     not_a_repository  the folder is not an ordinary checkout whose data lies in its own .git folder
//     git_failed        git refused; the message carries its words
//     timeout           the request took too long
//     stopping          the stand-in is being stopped
//     internal_error    anything else
#pragma once

#include "Root.hpp"

#include <string>
#include <string_view>

namespace tidewell::standin {

/// Answers one request line. The reply ends with a line feed and is valid UTF-8, whatever the repositories
/// hold. Never throws on account of the request.
std::string replyTo(std::string_view line, const Root& root, Deadline deadline);

/// The reply line that reports `error`.
std::string replyWith(const HostError& error);

}  // namespace tidewell::standin
