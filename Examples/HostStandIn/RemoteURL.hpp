// RemoteURL.hpp: two questions about the address of a remote. Pure.
#pragma once

#include <optional>
#include <string>

namespace tidewell::standin {

/// `url` without user name and password. The user name of an ssh URL stays: it is needed and no secret.
std::string withoutCredentials(const std::string& url);

/// "owner/name" when the URL names a host and exactly these two parts; nothing otherwise.
std::optional<std::string> ownerAndRepository(const std::string& url);

}  // namespace tidewell::standin
