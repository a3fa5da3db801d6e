// What reaches the logging module: the log's ids, the timing line and its place after an error
// line, and the adapter's own answers.
#include <string>

#include "kelvane_qor_color_processing_suite/module_state.h"
#include "tests/suite/test_support.h"

namespace kv_test {
namespace {

class FullLogging : public initialized_test {};

// "<label> takes <digits>.<six digits> microseconds."
bool is_timing_text(const std::string& text, const std::string& label) {
    const std::string head = label + " takes ", tail = " microseconds.", digits = "0123456789";
    if (text.size() < head.size() + tail.size() || text.compare(0, head.size(), head) != 0 ||
        text.compare(text.size() - tail.size(), tail.size(), tail) != 0) {
        return false;
    }
    const std::string number = text.substr(head.size(), text.size() - head.size() - tail.size());
    const size_t point = number.find_first_not_of(digits);
    return point > 0 && point != std::string::npos && number[point] == '.' &&
           number.size() == point + 7 &&
           number.find_first_not_of(digits, point + 1) == std::string::npos;
}

TEST_F(FullLogging, LogIsOpenedWithTheModuleIdAndConfigurationName) {
    const std::vector<event> opened = events("logger", "qor_get_log");
    ASSERT_EQ(opened.size(), 1u);
    EXPECT_EQ(opened[0].texts[0], "KELVANE_QOR_COLOR_PROCESSING");
    EXPECT_EQ(opened[0].texts[1], "");
    EXPECT_EQ(opened[0].texts[2], "kelvane_qor_logger.cfg");
    kv_journal_reset();
    ASSERT_EQ(kv_color_processing_module_terminate(), KV_STATUS_SUCCESS);
    const std::vector<event> freed = events("logger", "qor_free_log");
    ASSERT_EQ(freed.size(), 1u);
    EXPECT_EQ(freed[0].texts[0], "KELVANE_QOR_COLOR_PROCESSING");
    EXPECT_EQ(freed[0].texts[1], "");
    EXPECT_EQ(sequence({"logger"}),
              (std::vector<std::string>{"logger.qor_free_log", "logger.unload"}));
}

TEST_F(FullLogging, TimingLineFollowsEveryCallThatPassedThePrologue) {
    kv_color_processor_handle p = kv_color_create_color_processor_test(0, 0, KV_TIER_SCALAR);
    ASSERT_NE(p, nullptr);
    int64_t timer_line = 0;
    for (transform_export e : all_exports) {
        SCOPED_TRACE(name_of(e));
        for (bool refused : {false, true}) {
            frame_buffers buffers(e, 3, 5);
            frame_arguments a = buffers.arguments(p);
            a.input = refused ? nullptr : a.input;
            kv_journal_reset();
            EXPECT_EQ(run_transform(e, a), refused ? KV_STATUS_NULL_INPUT_BUFFER : 0);
            const std::vector<event> lines = log_lines();
            ASSERT_EQ(lines.size(), refused ? 2u : 1u);
            const event& t = lines.back();
            EXPECT_EQ(t.values[0], 7);
            EXPECT_EQ(t.values[2], 1) << "the handle qor_get_log gave";
            EXPECT_TRUE(is_timing_text(t.texts[2], timer_label_of(e))) << t.texts[2];
            EXPECT_EQ(t.texts[1], "`anonymous-namespace'::kv_color_processor_transform_impl");
            // The whole path, not the base name, and the line where the timer opens.
            const std::string base = "kelvane_qor_color_processing.cpp";
            ASSERT_GT(t.texts[0].size(), base.size());
            EXPECT_EQ(t.texts[0].substr(t.texts[0].size() - base.size()), base);
            // One timer for every export and status: the line where it opens.
            if (timer_line == 0) timer_line = t.values[1];
            EXPECT_EQ(t.values[1], timer_line);
            EXPECT_GT(t.values[1], 0);
        }
    }
    EXPECT_EQ(kv_color_destroy_color_processor(p), KV_STATUS_SUCCESS);
}

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
