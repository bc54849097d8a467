// Project.hpp: what the files of a project tell about it: its name, its title, what it is made with.
//
// Every answer rests on a file; where no file says anything, the answer is left out.
#pragma once

#include "Folders.hpp"

#include <nlohmann/json.hpp>

namespace tidewell::standin {

/// The package name in package.json, Cargo.toml, pyproject.toml or go.mod, in this order.
std::optional<std::string> packageName(const Root& root, const std::filesystem::path& folder);

/// The first top-level heading of the README.
std::optional<std::string> readmeTitle(const Root& root, const std::filesystem::path& folder);

/// {name, type?, stack[], category?, summary?, evidence[]}; `evidence` names the files behind the rest.
nlohmann::json inferMetadata(const Root& root, const std::filesystem::path& folder);

inline constexpr std::size_t maximumSummaryBytes = 300;

}  // namespace tidewell::standin
