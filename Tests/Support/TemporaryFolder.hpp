// TemporaryFolder.hpp: a private folder that is removed when the test ends.
#pragma once

#include <stdlib.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <string_view>

namespace tidewell::test {

class TemporaryFolder {
public:
    TemporaryFolder() {
        // A socket's path must stay short: neither below the build folder nor in a long TMPDIR.
        const char* const named = std::getenv("TMPDIR");
        const std::string base = named != nullptr && std::string_view(named).size() <= 20 ? named : "/tmp";
        std::string pattern = base + "/tidewell-test-XXXXXX";
        if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
        path_ = pattern;
    }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;
    ~TemporaryFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }

    std::string operator/(std::string_view name) const { return path_ + "/" + std::string(name); }
    const std::string& path() const { return path_; }

    /// Writes a file, folders on the way included, and returns its path.
    std::string write(std::string_view name, std::string_view content) const {
        const std::string path = *this / name;
        std::filesystem::create_directories(std::filesystem::path(path).parent_path());
        std::ofstream(path, std::ios::binary) << content;
        return path;
    }

private:
    std::string path_;
};

}  // namespace tidewell::test
