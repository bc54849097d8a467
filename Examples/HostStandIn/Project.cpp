#include "Project.hpp"

#include <algorithm>
#include <set>
#include <string_view>

namespace tidewell::standin {

namespace fs = std::filesystem;
using Json = nlohmann::json;

namespace {

struct Manifest {
    const char *file, *type, *technology;
};

// The first file that exists decides the type; all that exist add to the stack.
constexpr Manifest manifests[] = {
    {"package.json", "node", "JavaScript"},
    {"tsconfig.json", "node", "TypeScript"},
    {"Cargo.toml", "rust", "Rust"},
    {"go.mod", "go", "Go"},
    {"Package.swift", "swift", "Swift"},
    {"pyproject.toml", "python", "Python"},
    {"setup.py", "python", "Python"},
    {"requirements.txt", "python", "Python"},
    {"Gemfile", "ruby", "Ruby"},
    {"composer.json", "php", "PHP"},
    {"pom.xml", "java", "Maven"},
    {"build.gradle", "java", "Gradle"},
    {"build.gradle.kts", "java", "Gradle"},
    {"CMakeLists.txt", "cmake", "CMake"},
    {"Makefile", "make", "Make"},
};

struct Framework {
    const char *package, *technology, *category;
};

constexpr Framework frameworks[] = {
    {"react", "React", "web"},           {"vue", "Vue", "web"},
    {"svelte", "Svelte", "web"},         {"next", "Next.js", "web"},
    {"express", "Express", "server"},    {"fastify", "Fastify", "server"},
    {"electron", "Electron", "desktop"},
};

constexpr const char* readmeNames[] = {"README.md", "Readme.md", "readme.md", "README", "README.txt"};

std::string_view trimmed(std::string_view text) {
    constexpr std::string_view blanks = " \t\r";
    const std::size_t start = text.find_first_not_of(blanks);
    if (start == std::string_view::npos) return {};
    return text.substr(start, text.find_last_not_of(blanks) - start + 1);
}

std::vector<std::string_view> linesOf(std::string_view text) {
    std::vector<std::string_view> lines;
    while (!text.empty()) {
        const std::size_t end = std::min(text.find('\n'), text.size());
        lines.push_back(trimmed(text.substr(0, end)));
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    return lines;
}

/// A string member of a JSON object; nothing when it is missing, empty or of another type.
std::optional<std::string> member(const Json& object, const char* key) {
    if (!object.is_object()) return std::nullopt;
    const auto found = object.find(key);
    if (found == object.end() || !found->is_string() || found->get_ref<const std::string&>().empty()) {
        return std::nullopt;
    }
    return found->get<std::string>();
}

Json packageJson(const Root& root, const fs::path& folder) {
    const std::optional<std::string> text = root.readFile(folder / "package.json");
    return Json::parse(text.value_or(""), nullptr, false);  // unreadable: a "discarded" value, no object
}

/// The value of `name = "…"` in one section of a TOML file. A full reader is not worth it for one name.
std::optional<std::string> nameInToml(std::string_view text, std::string_view section) {
    bool inside = false;
    for (std::string_view line : linesOf(text)) {
        if (line.starts_with('[')) inside = line == section;
        const std::size_t equals = line.find('=');
        if (!inside || equals == std::string_view::npos || trimmed(line.substr(0, equals)) != "name")
            continue;
        const std::string_view value = trimmed(line.substr(equals + 1));
        if (!value.starts_with('"') && !value.starts_with('\'')) return std::nullopt;
        const std::size_t end = value.find(value.front(), 1);
        if (end == std::string_view::npos) return std::nullopt;
        return std::string(value.substr(1, end - 1));
    }
    return std::nullopt;
}

std::optional<std::string> moduleInGoMod(std::string_view text) {
    constexpr std::string_view keyword = "module ";
    for (std::string_view line : linesOf(text)) {
        if (line.starts_with(keyword)) return std::string(trimmed(line.substr(keyword.size())));
    }
    return std::nullopt;
}

/// What a README says first: its title and the paragraph below it.
struct Introduction {
    std::optional<std::string> file, title;
    std::string summary;
};

bool isProse(std::string_view line) {
    constexpr std::string_view otherBeginnings =
        "#<![>|-*=`~";  // headings, badges, quotes, tables, lists, HTML
    return !line.empty() && otherBeginnings.find(line.front()) == std::string_view::npos;
}

void limit(std::string& text, std::size_t bytes) {
    if (text.size() <= bytes) return;
    while (bytes > 0 && (static_cast<unsigned char>(text[bytes]) & 0xC0) == 0x80)
        --bytes;  // not inside a character
    text.resize(bytes);
}

Introduction introduction(const Root& root, const fs::path& folder) {
    Introduction found;
    std::optional<std::string> text;
    for (const char* name : readmeNames) {
        if ((text = root.readFile(folder / name))) {
            found.file = name;
            break;
        }
    }
    bool insideFence = false;
    const std::vector<std::string_view> lines = linesOf(text ? std::string_view(*text) : std::string_view());
    for (std::size_t at = 0; at < lines.size(); ++at) {
        const std::string_view line = lines[at];
        if (line.starts_with("```") || line.starts_with("~~~")) insideFence = !insideFence;
        if (insideFence) continue;
        const bool underlined = at + 1 < lines.size() && lines[at + 1].starts_with("==") &&
                                lines[at + 1].find_first_not_of('=') == std::string_view::npos;
        if (!found.title && line.starts_with("# ")) {
            found.title = trimmed(line.substr(2));
        } else if (!found.title && underlined && isProse(line)) {
            found.title = line;
        } else if (isProse(line) && !underlined) {
            found.summary += (found.summary.empty() ? "" : " ") + std::string(line);
        } else if (!found.summary.empty()) {
            break;  // the first paragraph is over
        }
    }
    limit(found.summary, maximumSummaryBytes);
    return found;
}

}  // namespace

std::optional<std::string> packageName(const Root& root, const fs::path& folder) {
    if (auto name = member(packageJson(root, folder), "name")) return name;
    if (const auto text = root.readFile(folder / "Cargo.toml")) {
        if (auto name = nameInToml(*text, "[package]")) return name;
    }
    if (const auto text = root.readFile(folder / "pyproject.toml")) {
        if (auto name = nameInToml(*text, "[project]")) return name;
    }
    const auto text = root.readFile(folder / "go.mod");
    return text ? moduleInGoMod(*text) : std::nullopt;
}

std::optional<std::string> readmeTitle(const Root& root, const fs::path& folder) {
    return introduction(root, folder).title;
}

Json inferMetadata(const Root& root, const fs::path& folder) {
    Json result{{"name", packageName(root, folder).value_or(folder.filename().string())}};
    std::vector<std::string> stack, evidence;
    const auto addTechnology = [&](const char* technology) {
        if (std::find(stack.begin(), stack.end(), technology) == stack.end()) stack.emplace_back(technology);
    };
    for (const Manifest& manifest : manifests) {
        if (!root.readFile(folder / manifest.file)) continue;
        if (!result.contains("type")) result["type"] = manifest.type;
        addTechnology(manifest.technology);
        evidence.emplace_back(manifest.file);
    }

    const Json package = packageJson(root, folder);
    if (package.is_object() && package.contains("bin")) result["category"] = "command-line tool";
    for (const Framework& framework : frameworks) {
        for (const char* list : {"dependencies", "devDependencies"}) {
            if (!package.is_object() || !package.contains(list) || !package[list].is_object()) continue;
            if (!package[list].contains(framework.package)) continue;
            addTechnology(framework.technology);
            if (!result.contains("category")) result["category"] = framework.category;
        }
    }

    Introduction readme = introduction(root, folder);
    if (readme.file) evidence.push_back(*readme.file);
    std::string summary = member(package, "description").value_or(readme.summary);
    limit(summary, maximumSummaryBytes);
    if (!summary.empty()) result["summary"] = std::move(summary);
    result["stack"] = std::move(stack);
    result["evidence"] = std::move(evidence);
    return result;
}

}  // namespace tidewell::standin
