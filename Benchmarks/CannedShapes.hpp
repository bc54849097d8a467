// CannedShapes.hpp: replies of 8 MB in the shapes that have been expensive in one implementation or another.
// A reply line here ends with its line feed.
#pragma once

#include <array>
#include <cstddef>
#include <string>
#include <string_view>

namespace tidewell::bench {

struct Shape {
    std::string_view name;   ///< of the tool that gets this reply
    std::string_view title;  ///< in tables
    std::string (*reply)();
};

extern const std::array<Shape, 13> shapes;

/// What the host app answers to a tool: reply_N is answered with a result of N bytes, list_local_repositories with one
/// of a megabyte, the name of a shape with that shape, git_push with a refusal, and any other with a small result. Each
/// reply is made once.
const std::string& cannedAnswer(std::string_view tool);

}  // namespace tidewell::bench
