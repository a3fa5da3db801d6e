// The logging module's configuration text. Every text gets an answer: settings, or defaults with
// one warning. Nothing throws, the level stays within 0 to 7, a file destination has a path, and
// the warning quotes the text only as a short excerpt with no raw control byte.
#include <string>

#include "fuzz/fuzz_support.h"
#include "modules/logger/log_settings.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    kv_fuzz::expect_only<void*>([&] {
        const kv::logger::settings_outcome outcome =
            kv::logger::parse_settings("kelvane_qor_logger.cfg", text);
        const kv::logger::log_settings& s = outcome.settings;
        if (s.highest_level < 0 || s.highest_level > 7) {
            kv_fuzz::finding("level " + std::to_string(s.highest_level));
        }
        if (s.destination == kv::logger::destination_kind::file && s.file_path.empty()) {
            kv_fuzz::finding("a file destination without a path");
        }
        if (outcome.warning.size() > 1024) {
            kv_fuzz::finding("a warning of " + std::to_string(outcome.warning.size()) + " bytes");
        }
        for (size_t i = 0; i < outcome.warning.size(); ++i) {
            const auto c = static_cast<unsigned char>(outcome.warning[i]);
            if ((c < 0x20 && c != '\t') || c == 0x7F) {
                kv_fuzz::finding("raw control byte " + std::to_string(c) + " at offset " +
                                 std::to_string(i) + " of the warning");
            }
        }
    });
    return 0;
}
