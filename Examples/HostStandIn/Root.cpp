#include "Root.hpp"

#include <algorithm>

namespace tidewell::standin {

namespace fs = std::filesystem;

Root::Root(const fs::path& folder) {
    std::error_code error;
    path_ = fs::canonical(folder, error);
    if (error) throw std::runtime_error("cannot serve " + folder.string() + ": " + error.message());
    if (!fs::is_directory(path_, error)) {
        throw std::runtime_error("cannot serve " + folder.string() + ": it is not a folder");
    }
}

fs::path Root::resolve(const fs::path& text) const {
    std::error_code error;
    const fs::path wanted = path_ / text;  // an absolute `text` replaces the root
    // Weakly: a path that leads outside is refused as such, whether or not something exists there.
    fs::path resolved = fs::weakly_canonical(wanted, error);
    const fs::path checked = error ? wanted.lexically_normal() : resolved;
    // Name by name: as text, /srv/git-old would seem to lie below /srv/git.
    if (std::mismatch(path_.begin(), path_.end(), checked.begin(), checked.end()).first != path_.end()) {
        throw HostError("outside_root", "the path leads out of the served folder",
                        "give a path below the root");
    }
    if (error || !fs::is_directory(resolved, error)) {
        throw HostError("not_found", "there is no folder " + text.string());
    }
    return resolved;
}

std::string Root::idOf(const fs::path& resolved) const {
    return resolved.lexically_relative(path_).generic_string();
}

bool isRepository(const fs::path& folder) {
    std::error_code error;
    const fs::path git = folder / ".git";
    return fs::symlink_status(git, error).type() == fs::file_type::directory &&
           fs::symlink_status(git / "HEAD", error).type() == fs::file_type::regular;
}

namespace {

/// The folders in `folder`, links excluded; counts every name against `entriesLeft`.
std::vector<fs::path> foldersIn(const fs::path& folder, std::size_t& entriesLeft, bool& complete) {
    std::vector<fs::path> found;
    std::error_code error;
    for (fs::directory_iterator entry(folder, error), end; !error && entry != end; entry.increment(error)) {
        if (entriesLeft == 0) {
            complete = false;
            break;
        }
        --entriesLeft;
        std::error_code unreadable;
        const bool isFolder = entry->symlink_status(unreadable).type() == fs::file_type::directory;
        const fs::path name = entry->path().filename();
        if (isFolder && name != ".git" && name != "node_modules") found.push_back(entry->path());
    }
    if (error) complete = false;
    return found;
}

}  // namespace

Scan Root::findRepositories(Deadline deadline) const {
    Scan scan;
    std::size_t entriesLeft = maximumScanEntries;
    std::vector<fs::path> level{path_};
    for (int depth = 0; depth <= scanDepth && !level.empty(); ++depth) {
        std::vector<fs::path> next;
        for (const fs::path& folder : level) {
            checkTime(deadline);
            if (isRepository(folder)) {
                if (scan.repositories.size() < maximumRepositories) {
                    scan.repositories.push_back(folder);
                } else {
                    scan.complete = false;
                }
                if (folder != path_) continue;
            }
            if (depth == scanDepth) continue;
            for (fs::path& below : foldersIn(folder, entriesLeft, scan.complete))
                next.push_back(std::move(below));
        }
        level = std::move(next);
    }
    std::sort(scan.repositories.begin(), scan.repositories.end());
    return scan;
}

}  // namespace tidewell::standin
