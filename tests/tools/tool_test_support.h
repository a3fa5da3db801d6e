// Helpers shared by the kelvane-color tests: running the parser on a list of words, scratch
// files, and catching the tool's errors.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <vector>

#include "cli/settings.h"
#include "cli/tool_error.h"
#include "pipeline/plan.h"
#include "platform/windows_api.h"

#ifndef _WIN32
#include <unistd.h>
#endif

namespace kv_tool_test {

inline kv_tool::settings parse(const std::vector<std::string>& words) {
    return kv_tool::parse_command_line(words);
}

// This process's folder of scratch folders: one a process, so that two build trees testing at
// once never share a scratch file; removed with everything in it when the process ends.
inline const std::filesystem::path& process_scratch_root() {
    struct removed_at_exit {
        std::filesystem::path path;
        ~removed_at_exit() {
            std::error_code ignored;
            std::filesystem::remove_all(path, ignored);
        }
    };
#ifdef _WIN32
    const unsigned long id = GetCurrentProcessId();
#else
    const long id = static_cast<long>(getpid());
#endif
    static const removed_at_exit root{std::filesystem::temp_directory_path() /
                                      ("kv_tool_tests_" + std::to_string(id))};
    return root.path;
}

// A folder under this process's scratch root, empty at the start of each test.
inline std::filesystem::path scratch_dir() {
    const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
    std::string name = std::string(info->test_suite_name()) + "_" + info->name();
    for (char& c : name) {
        if (c == '/') c = '_';
    }
    const auto dir = process_scratch_root() / name;
    std::filesystem::remove_all(dir);
    std::filesystem::create_directories(dir);
    return dir;
}

inline std::string write_text(const std::filesystem::path& path, const std::string& text) {
    std::ofstream(path, std::ios::binary) << text;
    return path.string();
}

inline std::string contents(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// What a folder holds, recursively: each relative name with its link target, its bytes, or
// "(not a file)" for folders, FIFOs and sockets. Equal snapshots: nothing was written or removed.
inline std::map<std::string, std::string> folder_snapshot(const std::filesystem::path& dir) {
    namespace fs = std::filesystem;
    std::map<std::string, std::string> out;
    for (const auto& entry : fs::recursive_directory_iterator(dir)) {
        const fs::path p = entry.path();
        const std::string name = fs::relative(p, dir).generic_string();
        if (fs::is_symlink(p)) {
            out[name] = "-> " + fs::read_symlink(p).string();
        } else if (fs::is_regular_file(p)) {
            out[name] = contents(p);
        } else {
            out[name] = "(not a file)";
        }
    }
    return out;
}

// The chunk types of a PNG's bytes in order, read here rather than through libpng.
inline std::vector<std::string> png_chunk_types(const std::string& png) {
    std::vector<std::string> types;
    for (size_t at = 8; at + 8 <= png.size();) {
        const auto length = uint32_t(uint8_t(png[at])) << 24 |
                            uint32_t(uint8_t(png[at + 1])) << 16 |
                            uint32_t(uint8_t(png[at + 2])) << 8 | uint8_t(png[at + 3]);
        types.push_back(png.substr(at + 4, 4));
        at += 12 + size_t(length);
    }
    return types;
}

// The error `action` throws; fails the test when it throws none.
template <typename Action>
kv_tool::tool_error error_of(Action&& action) {
    try {
        action();
    } catch (const kv_tool::tool_error& e) {
        return e;
    }
    ADD_FAILURE() << "no error thrown";
    return kv_tool::tool_error(kv_tool::EXIT_OK, "");
}

// Wine writes the samples of 16-bit PNG files in the wrong byte order (docs/windows.md).
inline bool under_wine() {
#if defined(_WIN32)
    return GetProcAddress(GetModuleHandleA("ntdll.dll"), "wine_get_version") != nullptr;
#else
    return false;
#endif
}

}  // namespace kv_tool_test
