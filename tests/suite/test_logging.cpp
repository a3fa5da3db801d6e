// The logging adapter's own answers. The log's ids are checked with the lifecycle, the timing line
// with validation, which runs every export refused and not.
#include <string>

#include "kelvane_qor_color_processing_suite/module_state.h"
#include "tests/suite/test_support.h"

namespace kv_test {
namespace {

class FullLogging : public initialized_test {};

TEST_F(FullLogging, AdapterFormatsAndReportsWhatTheModuleSaid) {
    kv::logger_adapter* logger = kv::module_logger;
    ASSERT_NE(logger, nullptr);
    EXPECT_EQ(logger->is_available, 1);
    kv_journal_reset();
    EXPECT_TRUE(logger->log_message(5, "file", 12, "function", "%s", ""));
    EXPECT_TRUE(logger->log_message(3, "f", -1, "g", "%d|%s|%5.2f", -42, "x", 1.5));
    kv_journal_set("logger.log_result", 1);
    EXPECT_FALSE(logger->log_message(2, "f", 1, "g", "refused"));
    const std::vector<event> lines = log_lines();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0].texts[2], "") << "an empty text is still a message";
    EXPECT_EQ(lines[0].values[0], 5);
    EXPECT_EQ(lines[0].values[1], 12);
    EXPECT_EQ(lines[1].texts[2], "-42|x| 1.50");
    EXPECT_EQ(lines[2].texts[2], "refused");
}

}  // namespace
}  // namespace kv_test
