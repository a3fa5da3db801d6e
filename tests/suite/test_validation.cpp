// Validation of a transform request: every refusing row with its status and message, the order
// between rows, the edges of each range, that a refused request touches nothing, and the timing
// line that follows.
#include <cctype>
#include <climits>
#include <functional>
#include <map>

#include "tests/suite/test_support.h"

namespace kv_test {
namespace {

struct refusal_row {
    std::string message;  // as delivered, "ERROR: " and the format's own blank included; or a name
    int32_t status;
    std::function<void(frame_arguments&)> make_bad;
};

// In the order the library checks them; each channel's row with values of its own.
std::vector<refusal_row> rows() {
    std::vector<refusal_row> table = {
        {"ERROR:  The specified input buffer is NULL!", 3,
         [](frame_arguments& a) { a.input = nullptr; }},
        {"ERROR:  The specified output buffer is NULL!", 4,
         [](frame_arguments& a) { a.output = nullptr; }},
        {"ERROR:  Different input and output buffer must be specified.", 5,
         [](frame_arguments& a) { a.output = const_cast<uint16_t*>(a.input); }},
        {"ERROR:  Invalid input buffer format specified!", 9,
         [](frame_arguments& a) { a.input_format = 3; }},
    };
    const char* const channels[] = {"blue", "green", "red"};
    const int32_t bad_shifts[] = {16, -16, INT_MIN};
    for (int c = 0; c < 3; ++c) {
        table.push_back(
            {std::string("ERROR:  Invalid ") + channels[c] + " shift distance specified!", 11,
             [c, v = bad_shifts[c]](frame_arguments& a) { a.shift[c] = v; }});
    }
    const uint16_t crossed[3][2] = {{1, 0}, {0xFFFF, 0xFFFE}, {300, 299}};  // minimum, maximum
    for (int c = 0; c < 3; ++c) {
        table.push_back(
            {std::string("ERROR:  a max value less than the min was specified for the ") +
                 channels[c] + " channel or max clamp value exceeds enabled output LUT size!",
             12, [c, low = crossed[c][0], high = crossed[c][1]](frame_arguments& a) {
                 a.minimum[c] = low;
                 a.maximum[c] = high;
             }});
    }
    table.push_back({"ERROR:  Invalid output buffer format specified!", 10,
                     [](frame_arguments& a) { a.output_format = INT_MAX; }});
    return table;
}

// "<label> takes <digits>.<six digits> microseconds."
bool is_timing_text(const std::string& text, const std::string& label) {
    const std::string head = label + " takes ", tail = " microseconds.";
    if (text.size() < head.size() + 8 + tail.size() || text.rfind(head, 0) != 0) return false;
    std::string number = text.substr(head.size(), text.size() - head.size() - tail.size());
    for (char& c : number) c = std::isdigit(static_cast<unsigned char>(c)) ? '0' : c;
    return number == std::string(number.size() - 7, '0') + ".000000" &&
           text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
}

// The timing line closes every call that passed the prologue, refused or not: one timer for every
// export and status, logged from the line where it opens, with the whole path of the file.
int64_t timer_line = 0;

void expect_timing_line(const event& t, transform_export e) {
    EXPECT_EQ(t.values[0], 7);
    EXPECT_EQ(t.values[2], 1) << "the handle qor_get_log gave";
    EXPECT_TRUE(is_timing_text(t.texts[2], timer_label_of(e))) << t.texts[2];
    EXPECT_EQ(t.texts[1], "`anonymous-namespace'::kv_color_processor_transform_impl");
    const std::string base = "kelvane_qor_color_processing.cpp";
    ASSERT_GT(t.texts[0].size(), base.size());
    EXPECT_EQ(t.texts[0].substr(t.texts[0].size() - base.size()), base);
    EXPECT_GT(t.values[1], 0);
    if (timer_line == 0) timer_line = t.values[1];
    EXPECT_EQ(t.values[1], timer_line);
}

class FullValidation : public initialized_test,
                       public ::testing::WithParamInterface<transform_export> {
  protected:
    void SetUp() override {
        initialized_test::SetUp();
        processor = kv_color_create_color_processor_test(8, 8, KV_TIER_AVX512);
        ASSERT_NE(processor, nullptr);
    }
    void TearDown() override {
        EXPECT_EQ(kv_color_destroy_color_processor(processor), KV_STATUS_SUCCESS);
        initialized_test::TearDown();
    }

    kv_color_processor_handle processor = nullptr;
};

// A request with one or two rows broken is refused by the earlier row: one error line from a
// line of its own, then the timing line, nothing else called and neither buffer touched.
TEST_P(FullValidation, EarlierRowRefusesWithItsStatusAndMessage) {
    const std::vector<refusal_row> table = rows();
    std::map<std::string, int64_t> lines;  // refusal -> the line it logs
    for (size_t first = 0; first < table.size(); ++first) {
        for (size_t second = first; second < table.size(); ++second) {
            SCOPED_TRACE(std::to_string(first + 1) + " and " + std::to_string(second + 1));
            frame_buffers buffers(GetParam(), 5, 2);
            frame_arguments a = buffers.arguments(processor);
            table[second].make_bad(a);
            table[first].make_bad(a);  // last, so it holds whatever the other row changed
            const std::vector<uint8_t> input_before = buffers.input_copy();
            const std::vector<uint8_t> output_before = buffers.output_copy();
            kv_journal_reset();
            EXPECT_EQ(run_transform(GetParam(), a), table[first].status);
            EXPECT_EQ(buffers.input_copy(), input_before);
            EXPECT_EQ(buffers.output_copy(), output_before);
            EXPECT_TRUE(buffers.guards_intact());
            const std::vector<event> all = journal();
            ASSERT_EQ(all.size(), 2u) << "nothing but the two log lines may be called";
            ASSERT_EQ(all[0].name, "qor_log");
            EXPECT_EQ(all[0].values[0], 2);
            EXPECT_EQ(all[0].texts[0], "color_correction.cpp");
            EXPECT_EQ(all[0].texts[1], "color_correction::transform");
            EXPECT_EQ(all[0].texts[2], table[first].message);
            expect_own_line(lines, table[first].message, all[0].values[1]);
            ASSERT_EQ(all[1].name, "qor_log");
            expect_timing_line(all[1], GetParam());
        }
    }
}

TEST_P(FullValidation, RangeEdges) {
    // Rows: a name, the status, the change. The ordinary formats, -1 to 2, and shifts, -15 to 15,
    // run in the random frames (tests/common/public_api_frames.cpp).
    const refusal_row edges[] = {
        {"blue shift -16", 11, [](frame_arguments& a) { a.shift[0] = -16; }},
        {"red shift INT_MAX", 11, [](frame_arguments& a) { a.shift[2] = INT_MAX; }},
        {"min equal to max", 0, [](frame_arguments& a) { a.minimum[1] = a.maximum[1] = 700; }},
        {"max 0xFFFF", 0, [](frame_arguments& a) { a.maximum[2] = 0xFFFF; }},
        {"input format INT_MIN", 0, [](frame_arguments& a) { a.input_format = INT_MIN; }},
        {"input format 4", 9, [](frame_arguments& a) { a.input_format = 4; }},
        {"output format 3", 10, [](frame_arguments& a) { a.output_format = 3; }},
        {"pixel count 0", 0, [](frame_arguments& a) { a.pixel_count = 0; }},
        {"pixel count -1", 0, [](frame_arguments& a) { a.pixel_count = -1; }},
        {"pixel count INT_MIN", 0, [](frame_arguments& a) { a.pixel_count = INT_MIN; }},
        // Buffers are told apart by address alone.
        {"output one byte past the input", 0,
         [](frame_arguments& a) {
             a.output = reinterpret_cast<uint8_t*>(const_cast<uint16_t*>(a.input)) + 1;
             a.pixel_count = 0;
         }},
    };
    for (const refusal_row& e : edges) {
        SCOPED_TRACE(e.message);
        frame_buffers buffers(GetParam(), 5, 3);
        frame_arguments a = buffers.arguments(processor);
        e.make_bad(a);
        const std::vector<uint8_t> input_before = buffers.input_copy();
        kv_journal_reset();
        EXPECT_EQ(run_transform(GetParam(), a), e.status);
        EXPECT_EQ(kv_journal_count("LUT", "kv_get_LUT_data"), e.status == 0 ? 6u : 0u);
        const std::vector<event> logged = log_lines();
        ASSERT_EQ(logged.size(), e.status == 0 ? 1u : 2u) << "an error line, a timing line";
        expect_timing_line(logged.back(), GetParam());
        EXPECT_EQ(buffers.input_copy(), input_before);
    }
}

TEST_P(FullValidation, ClampAgainstEnabledOutputLUTsOnly) {
    const struct {
        int32_t output_depth;
        bool enabled;
        uint16_t maximum;
        int32_t status;
    } cases[] = {
        {8, true, 255, 0},     {8, true, 256, 12},    {8, false, 256, 0},
        {8, false, 0xFFFF, 0}, {0, true, 0, 0},       {0, true, 1, 12},
        {16, true, 0xFFFF, 0}, {15, true, 0x7FFF, 0}, {15, true, 0x8000, 12},
    };
    for (const auto& c : cases) {
        for (int channel = 0; channel < 3; ++channel) {
            SCOPED_TRACE("depth " + std::to_string(c.output_depth) + " max " +
                         std::to_string(c.maximum) + " channel " + std::to_string(channel) +
                         (c.enabled ? " enabled" : " disabled"));
            kv_color_processor_handle p =
                kv_color_create_color_processor_test(0, c.output_depth, KV_TIER_SCALAR);
            ASSERT_NE(p, nullptr);
            // Only this channel's LUT is on (or none), so the other channels cannot refuse.
            ASSERT_EQ(
                kv_color_enable_output_LUTs(p, c.enabled && channel == 0, c.enabled && channel == 1,
                                            c.enabled && channel == 2),
                KV_STATUS_SUCCESS);
            frame_buffers buffers(GetParam(), 2, 4);
            frame_arguments a = buffers.arguments(p);
            a.maximum[0] = a.maximum[1] = a.maximum[2] = 0;
            a.maximum[channel] = c.maximum;
            EXPECT_EQ(run_transform(GetParam(), a), c.status);
            EXPECT_EQ(kv_color_destroy_color_processor(p), KV_STATUS_SUCCESS);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(FullWidths, FullValidation, ::testing::ValuesIn(all_exports),
                         [](const ::testing::TestParamInfo<transform_export>& info) {
                             return std::string(name_of(info.param)).substr(19);
                         });

}  // namespace
}  // namespace kv_test
