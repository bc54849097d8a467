// StandaloneMain.cpp: runs a fuzz target on every file of the given folders, once each, with any compiler.
#include "Target.hpp"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <vector>

namespace {

namespace fs = std::filesystem;

void run(const fs::path& path) {
    std::cout << path.string() << std::endl;  // flushed, so that the last name printed is the one that failed
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        std::perror("cannot be read");
        std::exit(2);
    }
    std::vector<char> bytes{std::istreambuf_iterator<char>(file), {}};
    bytes.shrink_to_fit();  // a read past the end is one past the allocation
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
}

}  // namespace

int main(int argumentCount, char* arguments[]) {
    std::vector<fs::path> paths;
    for (int index = 1; index < argumentCount; ++index) {
        for (const auto& entry : fs::recursive_directory_iterator(arguments[index])) {
            if (entry.is_regular_file()) paths.push_back(entry.path());
        }
    }
    std::ranges::sort(paths);
    for (const fs::path& path : paths) run(path);
    std::cout << paths.size() << " inputs\n";
    return paths.empty() ? 2 : 0;
}
