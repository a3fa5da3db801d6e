// Test-side access to companion modules through the platform layer, the one loading layer of the
// project: load one by file name or path, find the file a loaded module came from, and list what
// a module exports.
#pragma once

#include <set>
#include <stdexcept>
#include <string>

#include "platform/module_loader.h"
#include "tests/common/export_table.h"

namespace kv {
namespace test {

using platform::module_suffix;

// A module loaded by file name (no folder: the platform's own search decides) or by path, and
// released again at the end of the scope.
class loaded_module {
  public:
    explicit loaded_module(const std::string& file) : handle_(platform::load_module_file(file)) {}
    ~loaded_module() {
        if (handle_ != nullptr) platform::release_module(handle_);
    }
    loaded_module(const loaded_module&) = delete;
    loaded_module& operator=(const loaded_module&) = delete;

    bool loaded() const { return handle_ != nullptr; }

    template <typename Function>
    Function symbol(const char* name) const {
        return reinterpret_cast<Function>(platform::module_symbol(handle_, name));
    }

    // Every name in the export table of the file the module was loaded from.
    std::set<std::string> exported_names() const {
        const std::string path = platform::module_path(handle_);
        if (path.empty()) throw std::runtime_error("the platform cannot say where a module is");
        return kv::testing::read_module_file(path).exports;
    }

  private:
    platform::module_handle handle_;
};

}  // namespace test
}  // namespace kv
