// TestNames.hpp: the name of a row in a table-driven test; a failure prints it.
#pragma once

#include <cctype>
#include <filesystem>
#include <string>

namespace tidewell::test {

/// For rows with a member `name`.
inline constexpr auto nameOf = [](const auto& tested) { return std::string(tested.param.name); };

/// For rows that are files: the file's name without its extension.
inline constexpr auto fileNameOf = [](const auto& tested) {
    std::string name = tested.param.stem().string();
    for (char& letter : name) {
        if (std::isalnum(static_cast<unsigned char>(letter)) == 0) letter = '_';
    }
    return name;
};

}  // namespace tidewell::test
