// Darwin.hpp: what the stand-ins for macOS's own functions answer.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace tidewell::test {

struct Darwin {
    /// Where the executable lies; nothing: the system does not say.
    std::optional<std::string> executablePath;
    /// How the program was invoked: a list that ends with a null, or no list.
    char** arguments = nullptr;
    /// The section for the embedded property list; a null view: there is none.
    std::string_view propertyList;
};

/// The one that counts.
Darwin& darwin();

}  // namespace tidewell::test
