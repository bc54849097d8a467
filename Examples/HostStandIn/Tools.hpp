// Tools.hpp: one request line in, one reply line out.
//
//     request   {"tool": name, "args": value, "requestId": text}
//     reply     {"ok": true, "result": value}
//               {"ok": false, "error": {"code": text, "message": text, "hint"?: text}}
//
// What goes wrong is an error record with one of these codes:
//     invalid_request       the line is no JSON object with a "tool"
//     invalid_params        an argument is missing or of the wrong type; the message names it
//     not_supported         the tool, or the resource, is none the stand-in answers
//     outside_root          a path, or a repository's own data, leads out of the served folder
//     not_found             there is nothing at the path
//     not_a_repository      there is something, but no checkout
//     untrusted_repository  the checkout belongs to another user
//     git_failed            git refused; the message carries its words
//     timeout               the request took too long
//     busy                  too many clients at once
//     stopping              the stand-in is being stopped
//     internal_error        anything else
#pragma once

#include "Folders.hpp"

#include <string>
#include <string_view>

namespace tidewell::standin {

/// How long one request may take; less than the 120 seconds after which the server gives up on its host.
inline constexpr std::chrono::seconds requestTimeLimit{90};

/// Answers one request line. The reply ends with a line feed and is valid UTF-8, whatever the repositories
/// hold. Never throws on account of the request. May be called from several threads at once.
std::string replyTo(std::string_view line, const Root& root, const StopSignal& stop);

/// The reply line that reports `error`.
std::string replyWith(const HostError& error);

}  // namespace tidewell::standin
