// The C++ interface over the fake companion modules: frame sizes and their refusals, every status
// turned into its typed error with both buffers untouched, and the balance of initialise and
// terminate (counted through the fakes' journal) whatever order the objects go in.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "kelvane_qor_color_processing.hpp"
#include "tests/fakes/journal.h"

namespace {

using kelvane::layout;

// The library is up exactly while the marker stands: a NULL handle then gets 2, not 1.
bool library_is_up() {
    return kv_color_clear_matrix(nullptr) == KV_STATUS_NULL_HANDLE;
}

// ---- frame sizes -------------------------------------------------------------------------------

struct size_case {
    int element_bits;
    int channels;
    size_t bytes_per_pixel;
};

const size_case size_cases[] = {{8, 3, 3}, {8, 4, 4}, {16, 3, 6}, {16, 4, 8}};
const layout layouts[] = {layout::bgr_planes, layout::bgr_interleaved, layout::rgb_interleaved,
                          static_cast<layout>(-1)};
const int32_t pixel_counts[] = {-5, 0, 1, 7, 1000};

// Builds an output frame over `bytes` bytes of storage; throws what the view throws.
template <typename Element>
void make_output(std::vector<Element>& storage, size_t bytes, layout l, int channels,
                 int32_t pixels) {
    storage.assign(bytes / sizeof(Element), 0);
    kelvane::output_frame<Element> frame(storage, l, channels, pixels);
    EXPECT_EQ(frame.required_bytes(), bytes);
}

void check_output_size(const size_case& c, layout l, int32_t pixels) {
    const size_t need = size_t(std::max(pixels, 0)) * c.bytes_per_pixel;
    std::vector<uint8_t> narrow;
    std::vector<uint16_t> wide;
    auto build = [&](size_t bytes) {
        if (c.element_bits == 8) {
            make_output(narrow, bytes, l, c.channels, pixels);
        } else {
            make_output(wide, bytes, l, c.channels, pixels);
        }
    };
    const size_t computed =
        c.element_bits == 8 ? kelvane::output_frame<uint8_t>::required_bytes(pixels, c.channels)
                            : kelvane::output_frame<uint16_t>::required_bytes(pixels, c.channels);
    EXPECT_EQ(computed, need);
    EXPECT_NO_THROW(build(need));
    if (need == 0) return;
    const size_t short_by_one = need - c.element_bits / 8;
    try {
        build(short_by_one);
        ADD_FAILURE() << "a buffer one element short was accepted";
    } catch (const kelvane::buffer_size_error& e) {
        EXPECT_EQ(e.required_bytes(), need);
        EXPECT_EQ(e.available_bytes(), short_by_one);
        EXPECT_NE(std::string(e.what()).find("output buffer too small"), std::string::npos);
    }
}

TEST(FrameSize, OutputBytesPerLayoutWidthAndChannels) {
    for (const size_case& c : size_cases) {
        for (layout l : layouts) {
            for (int32_t pixels : pixel_counts) {
                SCOPED_TRACE(std::to_string(c.element_bits) + "-bit x" +
                             std::to_string(c.channels) + ", layout " + std::to_string(int(l)) +
                             ", " + std::to_string(pixels) + " pixels");
                check_output_size(c, l, pixels);
            }
        }
    }
}

TEST(FrameSize, InputIsSixBytesAPixelInEveryLayout) {
    for (layout l : layouts) {
        for (int32_t pixels : pixel_counts) {
            const size_t need = size_t(std::max(pixels, 0)) * 6;
            std::vector<uint16_t> storage(need / 2);
            const kelvane::input_frame frame(storage, l, pixels);
            EXPECT_EQ(frame.required_bytes(), need);
            if (need == 0) continue;
            storage.pop_back();
            EXPECT_THROW(kelvane::input_frame(storage, l, pixels), kelvane::buffer_size_error);
        }
    }
}

TEST(FrameSize, OutputChannelsOtherThanThreeOrFourAreRefused) {
    std::vector<uint16_t> storage(64);
    for (int channels : {0, 1, 2, 5, -3}) {
        EXPECT_THROW(kelvane::output_frame<uint16_t>(storage, layout::bgr_planes, channels, 1),
                     kelvane::error)
            << channels << " channels";
    }
}

TEST(FrameSize, NullStorageHoldsNothing) {
    EXPECT_THROW(kelvane::input_frame(nullptr, 99, layout::bgr_planes, 1),
                 kelvane::buffer_size_error);
    EXPECT_NO_THROW(kelvane::input_frame(nullptr, 0, layout::bgr_planes, 0));
}

TEST(StatusText, NamesEveryStatusAndNumbersTheRest) {
    EXPECT_EQ(kelvane::status_text(KV_STATUS_INVALID_CLAMP), "KV_STATUS_INVALID_CLAMP (12)");
    EXPECT_EQ(kelvane::status_text(KV_STATUS_MODULE_NOT_INITIALIZED),
              "KV_STATUS_MODULE_NOT_INITIALIZED (1)");
    EXPECT_EQ(kelvane::status_text(7), "status 7");
    EXPECT_EQ(kelvane::status_name(-1), nullptr);
}

// ---- refusals ----------------------------------------------------------------------------------

constexpr int32_t refusal_pixels = 5;
constexpr uint16_t sentinel = 0xA5A5;

// A processor with 8-bit output LUTs (the blue one on), frames of five pixels and a sentinel-
// filled output, which no refused request may touch.
struct refusal_setup {
    kelvane::session library;
    kelvane::processor p{library, 8, 8};
    std::vector<uint16_t> input = std::vector<uint16_t>(3 * refusal_pixels, 1000);
    std::vector<uint16_t> output = std::vector<uint16_t>(4 * refusal_pixels, sentinel);
    kelvane::frame_settings settings;
    layout input_layout = layout::bgr_interleaved;
    layout output_layout = layout::rgb_interleaved;

    refusal_setup() {
        p.enable_output_LUTs(true, false, false);
        settings.blue.maximum = 255;
    }
};

struct refusal_case {
    const char* what;
    kv_status status;
    // Spoils the setup; returns the transform to attempt.
    std::function<void(refusal_setup&, unsigned threads)> attempt;
};

void transform_frames(refusal_setup& s, unsigned threads, int32_t pixels = refusal_pixels) {
    const kelvane::input_frame in(s.input, s.input_layout, pixels);
    const kelvane::output_frame<uint16_t> out(s.output, s.output_layout, 4, pixels);
    s.p.transform_striped(in, out, s.settings, threads);
}

const refusal_case refusal_cases[] = {
    {"moved-from processor", KV_STATUS_NULL_HANDLE,
     [](refusal_setup& s, unsigned threads) {
         kelvane::processor keeper = std::move(s.p);
         transform_frames(s, threads);
     }},
    {"NULL input", KV_STATUS_NULL_INPUT_BUFFER,
     [](refusal_setup& s, unsigned threads) {
         const kelvane::output_frame<uint16_t> out(s.output, s.output_layout, 4, 0);
         s.p.transform_striped(kelvane::input_frame(nullptr, 0, s.input_layout, 0), out, s.settings,
                               threads);
     }},
    {"NULL output", KV_STATUS_NULL_OUTPUT_BUFFER,
     [](refusal_setup& s, unsigned threads) {
         s.p.transform_striped(kelvane::input_frame(s.input, s.input_layout, 0),
                               kelvane::output_frame<uint8_t>(nullptr, 0, s.output_layout, 3, 0),
                               s.settings, threads);
     }},
    {"same buffer", KV_STATUS_SAME_BUFFER,
     [](refusal_setup& s, unsigned threads) {
         const kelvane::input_frame in(s.output, s.input_layout, refusal_pixels);
         const kelvane::output_frame<uint16_t> out(s.output, s.output_layout, 3, refusal_pixels);
         s.p.transform_striped(in, out, s.settings, threads);
     }},
    {"input layout 3", KV_STATUS_INVALID_INPUT_FORMAT,
     [](refusal_setup& s, unsigned threads) {
         s.input_layout = static_cast<layout>(3);
         transform_frames(s, threads);
     }},
    {"output layout 7", KV_STATUS_INVALID_OUTPUT_FORMAT,
     [](refusal_setup& s, unsigned threads) {
         s.output_layout = static_cast<layout>(7);
         transform_frames(s, threads);
     }},
    {"green shift 16", KV_STATUS_INVALID_SHIFT,
     [](refusal_setup& s, unsigned threads) {
         s.settings.green.shift = 16;
         transform_frames(s, threads);
     }},
    {"red shift -16", KV_STATUS_INVALID_SHIFT,
     [](refusal_setup& s, unsigned threads) {
         s.settings.red.shift = -16;
         transform_frames(s, threads);
     }},
    {"red minimum above maximum", KV_STATUS_INVALID_CLAMP,
     [](refusal_setup& s, unsigned threads) {
         s.settings.red.minimum = 2;
         s.settings.red.maximum = 1;
         transform_frames(s, threads);
     }},
    {"blue maximum past the enabled output LUT", KV_STATUS_INVALID_CLAMP,
     [](refusal_setup& s, unsigned threads) {
         s.settings.blue.maximum = 256;
         transform_frames(s, threads);
     }},
};

class Refusal : public ::testing::TestWithParam<unsigned> {};

TEST_P(Refusal, EveryStatusIsATypedErrorAndTouchesNothing) {
    for (const refusal_case& c : refusal_cases) {
        SCOPED_TRACE(c.what);
        refusal_setup s;
        const std::vector<uint16_t> input_before = s.input;
        try {
            c.attempt(s, GetParam());
            ADD_FAILURE() << "no error";
        } catch (const kelvane::status_error& e) {
            EXPECT_EQ(e.status(), c.status);
            EXPECT_STREQ(e.name(), kelvane::status_name(c.status));
            EXPECT_NE(std::string(e.what()).find(kelvane::status_text(c.status)), std::string::npos)
                << e.what();
        }
        EXPECT_EQ(s.input, input_before);
        EXPECT_TRUE(std::all_of(s.output.begin(), s.output.end(),
                                [](uint16_t v) { return v == sentinel; }));
    }
}

// One thread, and three stripes of a five-pixel frame.
INSTANTIATE_TEST_SUITE_P(Threads, Refusal, ::testing::Values(1u, 3u));

TEST(RefusalBeforeTheLibrary, PixelCountsOfTheTwoFramesMustAgree) {
    refusal_setup s;
    const kelvane::input_frame in(s.input, s.input_layout, refusal_pixels);
    const kelvane::output_frame<uint16_t> out(s.output, s.output_layout, 4, refusal_pixels - 1);
    EXPECT_THROW(s.p.transform(in, out, s.settings), kelvane::error);
    EXPECT_TRUE(
        std::all_of(s.output.begin(), s.output.end(), [](uint16_t v) { return v == sentinel; }));
}

TEST(RefusalBeforeTheLibrary, BadBitDepthsNameTheDepths) {
    kelvane::session library;
    try {
        kelvane::processor p(library, 17, 8);
        ADD_FAILURE() << "a depth of 17 was accepted";
    } catch (const kelvane::error& e) {
        EXPECT_NE(std::string(e.what()).find("17 and 8"), std::string::npos) << e.what();
    }
}

TEST(LUTSpan, SizeIsTwoToTheBitsAndWritesReachTheLibrary) {
    kelvane::session library;
    kelvane::processor p(library, 0, 12);
    EXPECT_EQ(p.input_LUT(kelvane::channel::green).size(), 1u);
    const kelvane::LUT_span red = p.output_LUT(kelvane::channel::red);
    EXPECT_EQ(red.size(), 4096u);
    EXPECT_EQ(red.data(), kv_color_get_red_output_LUT(p.handle()));
    EXPECT_NE(red.data(), p.output_LUT(kelvane::channel::blue).data());
    std::fill(red.begin(), red.end(), 7u);
    EXPECT_EQ(kv_color_get_red_output_LUT(p.handle())[4095], 7u);
}

// ---- lifetime ----------------------------------------------------------------------------------

size_t count(const char* module, const char* event) {
    return kv_journal_count(module, event);
}

// Index of the last (first) journal event of module and name; -1 if none.
long find_event(const char* module, const char* name, bool last) {
    long found = -1;
    kv_journal_entry entry;
    for (size_t i = 0; kv_journal_entry_at(i, &entry); ++i) {
        if (std::strcmp(entry.module, module) == 0 && std::strcmp(entry.event, name) == 0) {
            found = long(i);
            if (!last) break;
        }
    }
    return found;
}

class Lifetime : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_FALSE(library_is_up());
        kv_journal_reset();
    }
    void TearDown() override { EXPECT_FALSE(library_is_up()) << "initialise left unbalanced"; }
};

// Two sessions, a processor of each, and the four objects released in every order: one initialise
// for them all, the library up until the last goes, and every table destroyed before the
// terminate (which empties the library's LUT table, nested or not).
TEST_F(Lifetime, AnyReleaseOrderKeepsTheLibraryUpUntilTheLastObject) {
    int order[4] = {0, 1, 2, 3};
    do {
        kv_journal_reset();
        std::optional<kelvane::session> sessions[2];
        std::optional<kelvane::processor> processors[2];
        sessions[0].emplace();
        sessions[1].emplace();
        processors[0].emplace(*sessions[0], 4, 4);
        processors[1].emplace(*sessions[1], 4, 4, KV_TIER_SCALAR);
        std::string trace = "release order";
        for (int step = 0; step < 4; ++step) {
            trace += ' ' + std::to_string(order[step]);
            ASSERT_TRUE(library_is_up()) << trace;
            if (order[step] < 2) {
                sessions[order[step]].reset();
            } else {
                processors[order[step] - 2].reset();
            }
        }
        EXPECT_FALSE(library_is_up()) << trace;
        EXPECT_EQ(count("LUT", "kv_LUT_module_initialize"), 1u) << trace;
        EXPECT_EQ(count("LUT", "kv_destroy_LUT"), 12u) << trace;
        EXPECT_EQ(count("logger", "qor_free_log"), 1u) << trace;
        EXPECT_LT(find_event("LUT", "kv_destroy_LUT", true),
                  find_event("LUT", "kv_LUT_module_terminate", false))
            << trace;
    } while (std::next_permutation(order, order + 4));
}

TEST_F(Lifetime, MovesTransferOwnershipWithoutAnExtraCall) {
    {
        kelvane::session first;
        kelvane::session second = std::move(first);
        EXPECT_FALSE(first);
        EXPECT_THROW(kelvane::processor(first, 8, 8), kelvane::error);
        kelvane::processor p(second, 8, 8);
        kelvane::processor q = std::move(p);
        EXPECT_EQ(p.handle(), nullptr);
        p = std::move(q);
        EXPECT_NE(p.handle(), nullptr);
        kelvane::session third;
        third = std::move(second);  // lets go of the reference third held
        EXPECT_TRUE(library_is_up());
    }
    EXPECT_EQ(count("LUT", "kv_LUT_module_initialize"), 1u);
    EXPECT_EQ(count("LUT", "kv_destroy_LUT"), 6u);
    EXPECT_EQ(count("logger", "qor_get_log"), 1u);
    EXPECT_EQ(count("logger", "qor_free_log"), 1u);
    { kelvane::session again; }  // a new start once everything is gone
    EXPECT_EQ(count("LUT", "kv_LUT_module_initialize"), 2u);
    EXPECT_EQ(count("logger", "qor_free_log"), 2u);
}

// Run with a LUT module that lacks a function: initialise returns 1 and still needs a terminate.
TEST(IncompleteLUTModule, FailedInitialiseIsThrownAndStillTerminated) {
    ASSERT_FALSE(library_is_up());
    kv_journal_reset();
    try {
        kelvane::session library;
        ADD_FAILURE() << "the session started without a complete LUT module";
    } catch (const kelvane::status_error& e) {
        EXPECT_EQ(e.status(), KV_STATUS_MODULE_NOT_INITIALIZED);
        EXPECT_STREQ(e.what(),
                     "kv_color_processing_module_initialize returned "
                     "KV_STATUS_MODULE_NOT_INITIALIZED (1)");
    }
    EXPECT_FALSE(library_is_up());
    EXPECT_EQ(count("logger", "qor_get_log"), 1u);
    EXPECT_EQ(count("logger", "qor_free_log"), 1u);
}

}  // namespace
