// Darwin.hpp: what the stand-ins for macOS's own functions answer.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace tidewell::test {

struct Darwin {
    /// Where the executable is; nothing if the system does not say.
    std::optional<std::string> executablePath;
    /// How the program was invoked: a list that ends with a null, or no list.
    char** arguments = nullptr;
    /// The section for the embedded property list; a null view if there is none.
    std::string_view propertyList;
};

/// The instance that the stand-ins consult.
Darwin& darwin();

}  // namespace tidewell::test
