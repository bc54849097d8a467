#include "Folders.hpp"

#include <algorithm>
#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tidewell::standin {

namespace fs = std::filesystem;

Root::Root(const fs::path& folder) {
    std::error_code error;
    path_ = fs::canonical(folder, error);
    if (error) throw std::runtime_error("cannot serve " + folder.string() + ": " + error.message());
    if (!fs::is_directory(path_, error)) {
        throw std::runtime_error("cannot serve " + folder.string() + ": it is no folder");
    }
}

bool Root::holds(const fs::path& resolved) const {
    // Name by name: as text, /srv/git-old would seem to lie below /srv/git.
    return std::mismatch(path_.begin(), path_.end(), resolved.begin(), resolved.end()).first == path_.end();
}

fs::path Root::resolve(const fs::path& text) const {
    std::error_code error;
    const fs::path wanted = path_ / text;  // an absolute `text` replaces the root
    // Weakly: a path that leads outside is refused as such, whether or not something exists there.
    fs::path resolved = fs::weakly_canonical(wanted, error);
    if (!holds(error ? wanted.lexically_normal() : resolved)) {
        throw HostError("outside_root", "the path leads out of the served folder",
                        "give a path below the root");
    }
    if (error || !fs::exists(resolved, error)) {
        throw HostError("not_found", "there is nothing at " + text.string());
    }
    return resolved;
}

std::string Root::idOf(const fs::path& resolved) const {
    return resolved.lexically_relative(path_).generic_string();
}

std::optional<std::string> Root::readFile(const fs::path& file) const {
    std::error_code error;
    const fs::path resolved = fs::canonical(file, error);
    if (error || !holds(resolved)) return std::nullopt;
    // Non-blocking, because a FIFO of that name would otherwise hold us until somebody writes to it.
    const Descriptor opened(::open(resolved.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    struct stat facts {};
    if (!opened || ::fstat(opened.get(), &facts) < 0 || !S_ISREG(facts.st_mode)) return std::nullopt;

    std::string content(maximumFileBytes, '\0');
    std::size_t length = 0;
    while (length < content.size()) {
        const ssize_t count = ::read(opened.get(), content.data() + length, content.size() - length);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return std::nullopt;
        if (count == 0) break;
        length += static_cast<std::size_t>(count);
    }
    content.resize(length);
    return content;
}

void Request::checkTime() const {
    if (stop.raised()) throw HostError("stopping", "the stand-in is being stopped");
    if (Clock::now() >= deadline) throw HostError("timeout", "the request took too long and was given up");
}

bool isCheckout(const fs::path& folder) {
    std::error_code error;
    const fs::path git = folder / ".git";
    if (fs::is_regular_file(git, error)) return true;
    return fs::is_directory(git, error) &&
           fs::symlink_status(git / "HEAD", error).type() != fs::file_type::not_found;
}

namespace {

/// The subfolders worth a look, the last first, as a stack wants them. Counts every name against
/// `entriesLeft`.
std::vector<fs::path> subfolders(const fs::path& folder, std::size_t& entriesLeft, bool& complete) {
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
    std::sort(found.rbegin(), found.rend());
    return found;
}

}  // namespace

Scan findRepositories(const Request& request, const fs::path& start, int depth) {
    struct Visit {
        fs::path folder;
        int depthLeft;
    };
    Scan scan;
    std::size_t entriesLeft = maximumScanEntries;
    std::vector<Visit> ahead{{start, depth}};
    while (!ahead.empty()) {
        request.checkTime();
        const Visit visit = std::move(ahead.back());
        ahead.pop_back();
        if (isCheckout(visit.folder)) {
            if (scan.repositories.size() == maximumRepositories) {
                scan.complete = false;
                break;
            }
            scan.repositories.push_back(visit.folder);
            if (visit.folder != start) continue;
        }
        if (visit.depthLeft == 0) continue;
        std::vector<fs::path> below = subfolders(visit.folder, entriesLeft, scan.complete);
        for (fs::path& folder : below) ahead.push_back({std::move(folder), visit.depthLeft - 1});
    }
    std::sort(scan.repositories.begin(), scan.repositories.end());
    return scan;
}

}  // namespace tidewell::standin
