// The file argument of a log call: the source path as the build knows it, cut after its last
// separator. Both separators count, so the result is the same for Windows and POSIX builds.
#pragma once

namespace kv {
namespace platform {

constexpr const char* source_base_name(const char* path) {
    const char* base = path;
    for (const char* p = path; *p != '\0'; ++p) {
        if (*p == '\\' || *p == '/') {
            base = p + 1;
        }
    }
    return base;
}

}  // namespace platform
}  // namespace kv
