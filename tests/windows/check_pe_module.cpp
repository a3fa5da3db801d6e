// Checks a Windows module's tables as a host that deploys it sees them:
//   check_pe_module <module> <import library, or - for none> <allowed DLLs, comma-separated>
//                   <export>...
// The module exports exactly the names given (none for a program), every one by name; it imports
// none of our modules and no compiler runtime (no DLL named lib* or kelvane*) outside the allowed
// list; the import library declares exactly the exported names.
#include <cctype>
#include <cstdio>
#include <exception>
#include <set>
#include <string>

#include "tests/common/export_table.h"

namespace {

std::string listed(const std::set<std::string>& names) {
    std::string text;
    for (const std::string& name : names) text += (text.empty() ? "" : ", ") + name;
    return "[" + text + "]";
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 4) {
        std::fprintf(stderr,
                     "usage: check_pe_module <module> <import library or -> "
                     "<allowed DLLs> <export>...\n");
        return 2;
    }
    try {
        const std::set<std::string> expected(argv + 4, argv + argc);
        const kv::testing::module_file_view view = kv::testing::read_module_file(argv[1]);
        std::string problems;
        if (view.exports != expected) {
            problems += "\n  exports " + listed(view.exports) + ", expected " + listed(expected);
        }
        if (view.unnamed_exports != 0) {
            problems += "\n  " + std::to_string(view.unnamed_exports) + " exports without a name";
        }
        const std::string allowed = std::string(",") + argv[3] + ",";
        for (const std::string& dll : view.needed) {
            std::string lower = dll;
            for (char& c : lower)
                c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
            const bool ours =
                lower.rfind("lib", 0) == 0 || lower.find("kelvane") != std::string::npos;
            if (ours && allowed.find("," + dll + ",") == std::string::npos) {
                problems += "\n  imports " + dll;
            }
        }
        if (std::string(argv[2]) != "-") {
            const std::set<std::string> declared = kv::testing::read_import_library(argv[2]);
            if (declared != expected)
                problems += "\n  " + std::string(argv[2]) + " declares " + listed(declared);
        }
        if (!problems.empty()) {
            std::fprintf(stderr, "%s:%s\n", argv[1], problems.c_str());
            return 1;
        }
        return std::printf("%s: %zu exports by name, %zu imports\n", argv[1], expected.size(),
                           view.needed.size()) < 0;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "%s\n", e.what());
        return 1;
    }
}
