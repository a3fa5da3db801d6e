// The folder the logging module was loaded from, through the platform layer linked into it.
#include "modules/logger/log_settings.h"
#include "platform/module_loader.h"

namespace kv {
namespace logger {

std::string module_directory() {
    return platform::calling_module_directory();
}

}  // namespace logger
}  // namespace kv
