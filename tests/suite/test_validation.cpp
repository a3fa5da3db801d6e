// Validation of a transform request: every refusing row with its status and message, the order
// between rows, the edges of each range, and that a refused request touches nothing.
#include <climits>
#include <cstring>
#include <functional>
#include <map>

#include "kelvane_qor_color_processing_suite/color_correction.h"
#include "tests/suite/test_support.h"

namespace kv_test {
namespace {

struct refusal_row {
    const char* message;  // as delivered, "ERROR: " and the format's own blank included
    int32_t status;
    std::function<void(frame_arguments&)> make_bad;
};

const std::vector<refusal_row>& rows() {
    static const std::vector<refusal_row> table = {
        {"ERROR:  The specified input buffer is NULL!", 3,
         [](frame_arguments& a) { a.input = nullptr; }},
        {"ERROR:  The specified output buffer is NULL!", 4,
         [](frame_arguments& a) { a.output = nullptr; }},
        {"ERROR:  Different input and output buffer must be specified.", 5,
         [](frame_arguments& a) { a.output = const_cast<uint16_t*>(a.input); }},
        {"ERROR:  Invalid input buffer format specified!", 9,
         [](frame_arguments& a) { a.input_format = 3; }},
        {"ERROR:  Invalid blue shift distance specified!", 11,
         [](frame_arguments& a) { a.shift[0] = 16; }},
        {"ERROR:  Invalid green shift distance specified!", 11,
         [](frame_arguments& a) { a.shift[1] = -16; }},
        {"ERROR:  Invalid red shift distance specified!", 11,
         [](frame_arguments& a) { a.shift[2] = INT_MIN; }},
        {"ERROR:  a max value less than the min was specified for the blue channel or max clamp "
         "value exceeds enabled output LUT size!",
         12,
         [](frame_arguments& a) {
             a.minimum[0] = 1;
             a.maximum[0] = 0;
         }},
        {"ERROR:  a max value less than the min was specified for the green channel or max clamp "
         "value exceeds enabled output LUT size!",
         12,
         [](frame_arguments& a) {
             a.minimum[1] = 0xFFFF;
             a.maximum[1] = 0xFFFE;
         }},
        {"ERROR:  a max value less than the min was specified for the red channel or max clamp "
         "value exceeds enabled output LUT size!",
         12,
         [](frame_arguments& a) {
             a.minimum[2] = 300;
             a.maximum[2] = 299;
         }},
        {"ERROR:  Invalid output buffer format specified!", 10,
         [](frame_arguments& a) { a.output_format = INT_MAX; }},
    };
    return table;
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

    frame_arguments good_frame(frame_buffers& buffers) const {
        frame_arguments a;
        a.handle = processor;
        a.input = buffers.input();
        a.output = buffers.output();
        a.pixel_count = 5;
        return a;
    }

    // Runs `a`, which must be refused with `status` and `message`: one error line, then the
    // timing line, nothing else called and neither buffer touched.
    void expect_refused(const frame_arguments& a, frame_buffers& buffers, int32_t status,
                        const std::string& message) {
        const std::vector<uint8_t> input_before = buffers.input_copy();
        const std::vector<uint8_t> output_before = buffers.output_copy();
        kv_journal_reset();
        EXPECT_EQ(run_transform(GetParam(), a), status);
        EXPECT_EQ(buffers.input_copy(), input_before);
        EXPECT_EQ(buffers.output_copy(), output_before);
        EXPECT_TRUE(buffers.guards_intact());
        const std::vector<event> all = journal();
        ASSERT_EQ(all.size(), 2u) << "nothing but the two log lines may be called";
        ASSERT_EQ(all[0].name, "qor_log");
        EXPECT_EQ(all[0].values[0], 2);
        EXPECT_EQ(all[0].texts[0], "color_correction.cpp");
        EXPECT_EQ(all[0].texts[1], "color_correction::transform");
        EXPECT_EQ(all[0].texts[2], message);
        expect_own_line(lines, message, all[0].values[1]);
        ASSERT_EQ(all[1].name, "qor_log");
        EXPECT_EQ(all[1].values[0], 7);
        EXPECT_EQ(all[1].texts[2].rfind(timer_label_of(GetParam()), 0), 0u);
    }

    void expect_accepted(const frame_arguments& a) {
        kv_journal_reset();
        EXPECT_EQ(run_transform(GetParam(), a), KV_STATUS_SUCCESS);
        EXPECT_EQ(kv_journal_count("LUT", "kv_get_LUT_data"), 6u);
        EXPECT_EQ(log_lines().size(), 1u) << "only the timing line";
    }

    kv_color_processor_handle processor = nullptr;
    std::map<std::string, int64_t> lines;  // refusal -> the line it logs
};

TEST_P(FullValidation, EachRowRefusesWithItsStatusAndMessage) {
    for (const refusal_row& row : rows()) {
        SCOPED_TRACE(row.message);
        frame_buffers buffers(GetParam(), 5, 1);
        frame_arguments a = good_frame(buffers);
        row.make_bad(a);
        expect_refused(a, buffers, row.status, row.message);
    }
}

TEST_P(FullValidation, TheEarlierRowWinsForEveryPair) {
    const std::vector<refusal_row>& table = rows();
    for (size_t first = 0; first < table.size(); ++first) {
        for (size_t second = first + 1; second < table.size(); ++second) {
            SCOPED_TRACE(std::to_string(first + 1) + " and " + std::to_string(second + 1));
            frame_buffers buffers(GetParam(), 5, 2);
            frame_arguments a = good_frame(buffers);
            table[second].make_bad(a);
            table[first].make_bad(a);  // last, so it holds whatever the other row changed
            expect_refused(a, buffers, table[first].status, table[first].message);
        }
    }
}

TEST_P(FullValidation, RangeEdges) {
    struct edge {
        const char* name;
        std::function<void(frame_arguments&)> change;
        int32_t status;
    };
    const edge edges[] = {
        {"shift -15", [](frame_arguments& a) { a.shift[0] = a.shift[1] = a.shift[2] = -15; }, 0},
        {"shift 15", [](frame_arguments& a) { a.shift[0] = a.shift[1] = a.shift[2] = 15; }, 0},
        {"blue shift -16", [](frame_arguments& a) { a.shift[0] = -16; }, 11},
        {"green shift 16", [](frame_arguments& a) { a.shift[1] = 16; }, 11},
        {"red shift INT_MAX", [](frame_arguments& a) { a.shift[2] = INT_MAX; }, 11},
        {"blue shift INT_MIN", [](frame_arguments& a) { a.shift[0] = INT_MIN; }, 11},
        {"min equal to max", [](frame_arguments& a) { a.minimum[1] = a.maximum[1] = 700; }, 0},
        {"max 0xFFFF", [](frame_arguments& a) { a.maximum[2] = 0xFFFF; }, 0},
        {"input format -1", [](frame_arguments& a) { a.input_format = -1; }, 0},
        {"input format INT_MIN", [](frame_arguments& a) { a.input_format = INT_MIN; }, 0},
        {"input format 2", [](frame_arguments& a) { a.input_format = 2; }, 0},
        {"input format 4", [](frame_arguments& a) { a.input_format = 4; }, 9},
        {"output format -1", [](frame_arguments& a) { a.output_format = -1; }, 0},
        {"output format 0", [](frame_arguments& a) { a.output_format = 0; }, 0},
        {"output format 3", [](frame_arguments& a) { a.output_format = 3; }, 10},
        {"pixel count 0", [](frame_arguments& a) { a.pixel_count = 0; }, 0},
        {"pixel count -1", [](frame_arguments& a) { a.pixel_count = -1; }, 0},
        {"pixel count INT_MIN", [](frame_arguments& a) { a.pixel_count = INT_MIN; }, 0},
    };
    for (const edge& e : edges) {
        SCOPED_TRACE(e.name);
        frame_buffers buffers(GetParam(), 5, 3);
        frame_arguments a = good_frame(buffers);
        e.change(a);
        kv_journal_reset();
        EXPECT_EQ(run_transform(GetParam(), a), e.status);
        EXPECT_EQ(kv_journal_count("LUT", "kv_get_LUT_data"), e.status == 0 ? 6u : 0u);
    }
}

TEST_P(FullValidation, ClampAgainstEnabledOutputLUTsOnly) {
    struct clamp_case {
        int32_t output_depth;
        bool enabled;
        uint16_t maximum;
        int32_t status;
    };
    const clamp_case cases[] = {
        {8, true, 255, 0},     {8, true, 256, 12},    {8, false, 256, 0},
        {8, false, 0xFFFF, 0}, {0, true, 0, 0},       {0, true, 1, 12},
        {16, true, 0xFFFF, 0}, {15, true, 0x7FFF, 0}, {15, true, 0x8000, 12},
    };
    for (const clamp_case& c : cases) {
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
            frame_arguments a = good_frame(buffers);
            a.handle = p;
            a.maximum[0] = a.maximum[1] = a.maximum[2] = 0;
            a.maximum[channel] = c.maximum;
            kv_journal_reset();
            EXPECT_EQ(run_transform(GetParam(), a), c.status);
            EXPECT_EQ(kv_color_destroy_color_processor(p), KV_STATUS_SUCCESS);
        }
    }
}

TEST_P(FullValidation, BuffersOneByteApartAreDifferentBuffers) {
    std::vector<uint8_t> memory(64, 0);
    frame_arguments a;
    a.handle = processor;
    a.input = reinterpret_cast<const uint16_t*>(memory.data());
    a.output = memory.data() + 1;
    a.pixel_count = 0;
    expect_accepted(a);
    EXPECT_EQ(memory, std::vector<uint8_t>(64, 0));
}

INSTANTIATE_TEST_SUITE_P(FullWidths, FullValidation, ::testing::ValuesIn(all_exports),
                         [](const ::testing::TestParamInfo<transform_export>& info) {
                             return std::string(name_of(info.param)).substr(19);
                         });

class FullValidationRecord : public initialized_test {};

TEST_F(FullValidationRecord, RefusedRecordKeepsTheEntrysZeros) {
    kv_color_processor_handle p = kv_color_create_color_processor_test(4, 4, KV_TIER_SSE);
    ASSERT_NE(p, nullptr);
    const auto& object = *reinterpret_cast<const kv::color_correction*>(p);
    uint16_t input[3] = {};
    uint8_t output[4] = {};
    for (const refusal_row& row : rows()) {
        SCOPED_TRACE(row.message);
        frame_arguments a;
        a.handle = p;
        a.input = input;
        a.output = output;
        row.make_bad(a);
        const uint8_t off[3] = {0, 0, 0};
        kv::transform_request r = reference_request(transform_export::to_24, a, off, off);
        r.blue_input_LUT = r.green_input_LUT = r.red_input_LUT = nullptr;
        r.blue_output_LUT = r.green_output_LUT = r.red_output_LUT = nullptr;
        r.processor = nullptr;
        kv::transform_request copy = r;
        EXPECT_EQ(object.transform<kv::output_width::bits_8>(&r), row.status);
        EXPECT_EQ(object.transform<kv::output_width::bits_16>(&copy), row.status);
        EXPECT_EQ(std::memcmp(&r, &copy, sizeof r), 0);
        EXPECT_EQ(r.processor, nullptr);
        EXPECT_EQ(r.blue_input_LUT, nullptr);
        EXPECT_EQ(r.red_output_LUT, nullptr);
    }
    EXPECT_EQ(kv_color_destroy_color_processor(p), KV_STATUS_SUCCESS);
}

}  // namespace
}  // namespace kv_test
