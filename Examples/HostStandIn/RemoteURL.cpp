#include "RemoteURL.hpp"

#include <algorithm>
#include <string_view>

namespace tidewell::standin {

namespace {

constexpr std::string_view schemeMark = "://";

bool isPort(std::string_view text) {
    return std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

/// The place of the "@" that ends the user part of `rest` (what follows "://"), or npos. Usually the last one
/// before the path; but a password may hold an unescaped "/", and then what seems to be a port is no number.
std::size_t endOfUserPart(std::string_view rest) {
    const std::string_view authority = rest.substr(0, rest.find_first_of("/?#"));
    const std::size_t at = authority.rfind('@');
    const std::size_t colon = authority.rfind(':');
    const bool isAddress = authority.starts_with('[');  // IPv6, with colons of its own
    if (at != std::string_view::npos || colon == std::string_view::npos || isAddress) return at;
    return isPort(authority.substr(colon + 1)) ? std::string_view::npos : rest.rfind('@');
}

}  // namespace

std::string withoutCredentials(const std::string& url) {
    const std::size_t mark = url.find(schemeMark);
    if (mark == std::string::npos) return url;  // "git@host:path" and local paths hold no password
    const std::size_t start = mark + schemeMark.size();
    const std::size_t at = endOfUserPart(std::string_view(url).substr(start));
    if (at == std::string::npos) return url;

    const bool isSSH = std::string_view(url).substr(0, mark).ends_with("ssh");
    const std::string user = url.substr(start, std::min(at, url.find(':', start) - start));
    return url.substr(0, start) + (isSSH ? user + "@" : "") + url.substr(start + at + 1);
}

std::optional<std::string> ownerAndRepository(const std::string& url) {
    std::string_view path = url;
    if (const std::size_t mark = path.find(schemeMark); mark != std::string_view::npos) {
        const std::string_view scheme = path.substr(0, mark);
        if (scheme != "https" && scheme != "http" && scheme != "ssh" && scheme != "git") return std::nullopt;
        path.remove_prefix(mark + schemeMark.size());
        path.remove_prefix(std::min(path.find('/'), path.size()));
    } else {
        const std::size_t colon =
            path.find(':');  // "git@host:owner/name"; a local path has a "/" before any ":"
        if (colon == std::string_view::npos || path.find('/') < colon) return std::nullopt;
        path.remove_prefix(colon + 1);
    }
    while (path.starts_with('/')) path.remove_prefix(1);
    while (path.ends_with('/')) path.remove_suffix(1);
    if (path.ends_with(".git")) path.remove_suffix(4);

    const std::size_t slash = path.find('/');
    const bool isPair = slash != 0 && slash != std::string_view::npos && slash + 1 < path.size() &&
                        path.find('/', slash + 1) == std::string_view::npos;
    return isPair ? std::optional(std::string(path)) : std::nullopt;
}

}  // namespace tidewell::standin
