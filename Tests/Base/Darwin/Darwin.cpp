#include "Base/Darwin/Darwin.hpp"

#include <crt_externs.h>
#include <mach-o/dyld.h>
#include <mach-o/loader.h>

namespace tidewell::test {

Darwin& darwin() {
    static Darwin one;
    return one;
}

}  // namespace tidewell::test

using tidewell::test::darwin;

// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
extern "C" {

char*** _NSGetArgv() { return &darwin().arguments; }

int _NSGetExecutablePath(char* path, std::uint32_t* size) {
    if (!darwin().executablePath) return -1;
    const std::string& known = *darwin().executablePath;
    if (*size <= known.size()) {
        *size = static_cast<std::uint32_t>(known.size() + 1);
        return -1;
    }
    known.copy(path, known.size());
    path[known.size()] = '\0';
    return 0;
}

mach_header_64* _NSGetMachExecuteHeader() {
    static mach_header_64 header{};
    return &header;
}

/// Looks into the program's own image only, under the one name that a property list has.
std::uint8_t* getsectiondata(const mach_header_64* image, const char* segment, const char* section,
                             unsigned long* size) {
    const std::string_view bytes = darwin().propertyList;
    const bool isPropertyList =
        std::string_view(segment) == "__TEXT" && std::string_view(section) == "__info_plist";
    if (image != _NSGetMachExecuteHeader() || !isPropertyList || bytes.data() == nullptr) return nullptr;
    *size = bytes.size();
    return reinterpret_cast<std::uint8_t*>(const_cast<char*>(bytes.data()));
}

}  // extern "C"
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
