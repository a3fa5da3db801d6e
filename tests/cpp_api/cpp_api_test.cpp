// The C++ interface. Over the fake companion modules: frame sizes and their refusals, every status
// turned into its typed error with both buffers untouched, and the balance of initialise and
// terminate (counted through the fakes' journal) whatever order the objects go in. Over the real
// modules: a frame cut into stripes stores byte for byte what one call stores, at every tier.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <optional>
#include <random>
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

// A view of `bits`-bit elements and `channels` (0: an input frame) over storage of `bytes`;
// returns what it says it needs.
size_t view_over(int bits, int channels, size_t bytes, int32_t pixels) {
    std::vector<uint8_t> narrow(bytes);
    std::vector<uint16_t> wide(bytes / 2);
    const layout l = layout::bgr_interleaved;
    if (channels == 0) return kelvane::input_frame(wide, l, pixels).required_bytes();
    if (bits == 8)
        return kelvane::output_frame<uint8_t>(narrow, l, channels, pixels).required_bytes();
    return kelvane::output_frame<uint16_t>(wide, l, channels, pixels).required_bytes();
}

// Views measure their storage: one element short is refused with both figures, as are odd
// channel counts and missing storage.
TEST(FrameSize, BytesPerWidthAndChannelsAndOneElementShortIsRefused) {
    std::vector<uint16_t> storage(64);
    for (int channels : {0, 1, 2, 5, -3}) {
        EXPECT_THROW(kelvane::output_frame<uint16_t>(storage, layout::bgr_planes, channels, 1),
                     kelvane::error)
            << channels << " channels";
    }
    EXPECT_THROW(kelvane::input_frame(nullptr, 99, layout::bgr_planes, 1),
                 kelvane::buffer_size_error);
    // Element bits, channels (0: the input) and bytes a pixel of every frame form.
    const int forms[][3] = {{8, 3, 3}, {8, 4, 4}, {16, 3, 6}, {16, 4, 8}, {16, 0, 6}};
    for (const auto& [bits, channels, bytes_per_pixel] : forms) {
        for (int32_t pixels : {-5, 0, 1, 7, 1000}) {
            SCOPED_TRACE(std::to_string(bits) + "-bit x" + std::to_string(channels) + ", " +
                         std::to_string(pixels) + " pixels");
            const size_t need = size_t(std::max(pixels, 0)) * size_t(bytes_per_pixel);
            EXPECT_EQ(view_over(bits, channels, need, pixels), need);
            if (need == 0) continue;
            const size_t short_by_one = need - size_t(bits / 8);
            try {
                view_over(bits, channels, short_by_one, pixels);
                ADD_FAILURE() << "a buffer one element short was accepted";
            } catch (const kelvane::buffer_size_error& e) {
                EXPECT_EQ(e.required_bytes(), need);
                EXPECT_EQ(e.available_bytes(), short_by_one);
                EXPECT_NE(std::string(e.what()).find("buffer too small"), std::string::npos);
            }
        }
    }
}

// Named statuses are spelled out by the refusals below.
TEST(StatusText, NumbersAStatusWithoutAName) {
    EXPECT_EQ(kelvane::status_text(7), "status 7");
    EXPECT_EQ(kelvane::status_name(-1), nullptr);
}

constexpr int32_t refusal_pixels = 5;
constexpr uint16_t sentinel = 0xA5A5;

// A processor with 8-bit output LUTs (the blue one on) and a valid 48-to-64 request of five
// pixels over a sentinel-filled output, which a case then spoils. No refusal may touch a buffer.
struct refusal_setup {
    kelvane::session library;
    kelvane::processor p{library, 8, 8};
    std::optional<kelvane::processor> keeper;
    std::vector<uint16_t> input = std::vector<uint16_t>(3 * refusal_pixels, 1000);
    std::vector<uint16_t> output = std::vector<uint16_t>(4 * refusal_pixels, sentinel);
    layout input_layout = layout::bgr_interleaved;
    layout output_layout = layout::rgb_interleaved;
    kelvane::frame_settings settings;

    refusal_setup() {
        p.enable_output_LUTs(true, false, false);
        settings.blue.maximum = 255;
    }
    void attempt(unsigned threads) {
        const kelvane::input_frame in(input, input_layout, refusal_pixels);
        const kelvane::output_frame<uint16_t> out(output, output_layout, 4, refusal_pixels);
        p.transform_striped(in, out, settings, threads);
    }
};

struct refusal_case {
    const char* what;
    kv_status status;
    const char* name;
    void (*spoil)(refusal_setup&);
};
#define KV_STATUS_AND_NAME(status) status, #status

const refusal_case refusal_cases[] = {
    {"moved-from processor", KV_STATUS_AND_NAME(KV_STATUS_NULL_HANDLE),
     [](refusal_setup& s) { s.keeper.emplace(std::move(s.p)); }},
    {"input layout 3", KV_STATUS_AND_NAME(KV_STATUS_INVALID_INPUT_FORMAT),
     [](refusal_setup& s) { s.input_layout = static_cast<layout>(3); }},
    {"output layout 7", KV_STATUS_AND_NAME(KV_STATUS_INVALID_OUTPUT_FORMAT),
     [](refusal_setup& s) { s.output_layout = static_cast<layout>(7); }},
    {"green shift 16", KV_STATUS_AND_NAME(KV_STATUS_INVALID_SHIFT),
     [](refusal_setup& s) { s.settings.green.shift = 16; }},
    {"red minimum above maximum", KV_STATUS_AND_NAME(KV_STATUS_INVALID_CLAMP),
     [](refusal_setup& s) {
         s.settings.red = {2, 1, 0};
     }},
    {"blue maximum past the enabled output LUT", KV_STATUS_AND_NAME(KV_STATUS_INVALID_CLAMP),
     [](refusal_setup& s) { s.settings.blue.maximum = 256; }},
};

// One thread, and three stripes of a five-pixel frame.
TEST(Refusal, EveryStatusIsATypedErrorAndTouchesNothing) {
    for (const unsigned threads : {1u, 3u}) {
        for (const refusal_case& c : refusal_cases) {
            SCOPED_TRACE(std::string(c.what) + ", " + std::to_string(threads) + " threads");
            refusal_setup s;
            c.spoil(s);
            try {
                s.attempt(threads);
                ADD_FAILURE() << "no error";
            } catch (const kelvane::status_error& e) {
                EXPECT_EQ(e.status(), c.status);
                EXPECT_STREQ(e.name(), c.name);
                EXPECT_EQ(std::string(e.what()), "kv_color_transform_48_to_64 returned " +
                                                     std::string(c.name) + " (" +
                                                     std::to_string(c.status) + ")");
            }
            EXPECT_EQ(s.input, std::vector<uint16_t>(s.input.size(), 1000));
            EXPECT_EQ(s.output, std::vector<uint16_t>(s.output.size(), sentinel));
        }
    }
}

// Frames of different pixel counts and unknown bit depths never reach the library.
TEST(RefusalBeforeTheLibrary, MismatchedFramesAndBadDepthsAreErrors) {
    refusal_setup s;
    const kelvane::input_frame in(s.input, s.input_layout, refusal_pixels);
    const kelvane::output_frame<uint16_t> out(s.output, s.output_layout, 4, refusal_pixels - 1);
    EXPECT_THROW(s.p.transform(in, out, s.settings), kelvane::error);
    EXPECT_EQ(s.output, std::vector<uint16_t>(s.output.size(), sentinel));
    try {
        kelvane::processor p(s.library, 17, 8);
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
    // A channel outside blue, green, red is an error, not an index past the getters.
    for (int c : {-1, 3, 5}) {
        EXPECT_THROW(p.input_LUT(kelvane::channel(c)), kelvane::error) << c;
        EXPECT_THROW(p.output_LUT(kelvane::channel(c)), kelvane::error) << c;
    }
}

// Stripes never outnumber the cores, 0 threads means every core, and no stripe is cut below the
// minimum: a frame of fewer than two minimum stripes runs whole.
TEST(Striped, CountIsBoundedByCoresAndStripeSize) {
    constexpr int32_t m = kelvane::minimum_stripe_pixels;
    struct row {
        int32_t pixels;
        unsigned threads, cores;
        int32_t minimum;
        int64_t stripes;
    } rows[] = {
        {200000, unsigned(-1), 2, m, 2},
        {200000, 0, 2, m, 2},
        {200000, 0, 64, m, 200000 / m},
        {200000, 3, 64, m, 3},
        {2 * m - 1, 8, 8, m, 1},
        {2 * m, 8, 8, m, 2},
        {5, 8, 8, 1, 5},
        {5, 8, 8, 0, 5},
        {1, 8, 8, 1, 1},
        {0, 8, 8, 1, 1},
        {-7, 8, 8, 1, 1},
        {1000, 1, 8, 1, 1},
    };
    for (const row& r : rows) {
        EXPECT_EQ(kelvane::stripe_count(r.pixels, r.threads, r.cores, r.minimum), r.stripes)
            << r.pixels << " pixels, " << r.threads << " threads, " << r.cores << " cores, minimum "
            << r.minimum;
    }
}

// The last journal event of `module`, "" if none.
std::string last_event(const char* module) {
    std::string last;
    kv_journal_entry entry;
    for (size_t i = 0; kv_journal_entry_at(i, &entry); ++i) {
        if (std::strcmp(entry.module, module) == 0) last = entry.event;
    }
    return last;
}

// Two sessions, a processor of each, and the four objects released in every order: one initialise
// for them all, the library up until the last goes, and the LUT module's terminate its last call,
// after every table's destroy (the terminate empties the library's LUT table, nested or not).
// Moves make no call of their own, and a processor assigned to first releases the one it held:
// three processors' tables.
TEST(Lifetime, AnyReleaseOrderKeepsTheLibraryUpUntilTheLastObject) {
    ASSERT_FALSE(library_is_up());
    int order[4] = {0, 1, 2, 3};
    do {
        kv_journal_reset();
        std::optional<kelvane::session> sessions[2];
        std::optional<kelvane::processor> processors[2];
        kelvane::session moved;
        sessions[0].emplace(std::move(moved));
        EXPECT_FALSE(moved);
        EXPECT_THROW(kelvane::processor(moved, 8, 8), kelvane::error);
        sessions[1].emplace();
        *sessions[1] = kelvane::session();  // lets go of the reference it held
        processors[0].emplace(*sessions[0], 4, 4);
        processors[1].emplace(*sessions[1], 8, 8);
        *processors[1] = kelvane::processor(*sessions[1], 4, 4, KV_TIER_SCALAR);
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
        EXPECT_EQ(kv_journal_count("LUT", "kv_LUT_module_initialize"), 1u) << trace;
        EXPECT_EQ(kv_journal_count("logger", "qor_free_log"), 1u) << trace;
        EXPECT_EQ(kv_journal_count("LUT", "kv_destroy_LUT"), 18u) << trace;
        EXPECT_EQ(last_event("LUT"), "kv_LUT_module_terminate") << trace;
    } while (std::next_permutation(order, order + 4));
}

// Run with a LUT module that lacks a function: initialise returns 1 and still needs a terminate.
TEST(IncompleteLUTModule, FailedInitialiseIsThrownAndStillTerminated) {
    ASSERT_FALSE(library_is_up());
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
}

// One call, then 1 to 5 threads (as many stripes as there are cores, down to one pixel each), over
// outputs with 64 guard bytes on either side. The settings clamp every channel, shift blue right
// and red left.
template <typename Element>
void compare_striped(const kelvane::processor& p, const kelvane::input_frame& input, layout out,
                     int channels) {
    const kelvane::frame_settings settings{{10, 4000, -3}, {0, 4095, 0}, {100, 3000, 4}};
    constexpr size_t guard = 64 / sizeof(Element);
    const size_t elements =
        kelvane::output_frame<Element>::required_bytes(input.pixels(), channels) / sizeof(Element);
    const std::vector<Element> fresh(elements + 2 * guard, static_cast<Element>(0xA5A5));
    std::vector<Element> whole = fresh;
    const auto view = [&](std::vector<Element>& storage) {
        return kelvane::output_frame<Element>(storage.data() + guard, elements, out, channels,
                                              input.pixels());
    };
    p.transform(input, view(whole), settings);
    ASSERT_TRUE(whole != fresh) << "one call stored nothing";
    for (unsigned threads = 1; threads <= 5; ++threads) {
        std::vector<Element> striped = fresh;
        p.transform_striped(input, view(striped), settings, threads, 1);
        ASSERT_TRUE(striped == whole) << threads << " threads";
    }
}

// At every tier, a processor with a random matrix and every LUT on and filled at random, for all
// four output forms and every pair of layouts, more stripes than pixels included. A tier the
// processor lacks falls back to the next one that runs; the comparison holds alike.
TEST(Striped, StoresWhatOneCallStoresAtEveryTier) {
    const unsigned seed = 20261123u;
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    std::uniform_real_distribution<float> coefficient(-0.4f, 1.4f);
    std::vector<uint16_t> source(3 * 40009);
    for (uint16_t& v : source) v = uint16_t(random());
    const layout layouts[] = {layout::bgr_planes, layout::bgr_interleaved, layout::rgb_interleaved};
    kelvane::session library;
    for (kv_processor_tier tier : {KV_TIER_SCALAR, KV_TIER_SSE, KV_TIER_AVX2, KV_TIER_AVX512}) {
        kelvane::processor p(library, 16, 12, tier);
        float matrix[9];
        for (float& m : matrix) m = coefficient(random);
        p.append_matrix(matrix);
        for (kelvane::channel c :
             {kelvane::channel::blue, kelvane::channel::green, kelvane::channel::red}) {
            for (uint32_t& entry : p.input_LUT(c)) entry = random();
            for (uint32_t& entry : p.output_LUT(c)) entry = random();
        }
        p.enable_input_LUTs(true, true, true);
        p.enable_output_LUTs(true, true, true);
        for (layout in : layouts) {
            for (layout out : layouts) {
                for (int32_t pixels : {1, 2, 3, 5, 17, 1001, 40009}) {
                    SCOPED_TRACE("tier " + std::to_string(tier) + ", layouts " +
                                 std::to_string(int(in)) + " to " + std::to_string(int(out)) +
                                 ", " + std::to_string(pixels) + " pixels");
                    const kelvane::input_frame input(source.data(), 3 * size_t(pixels), in, pixels);
                    for (int channels : {3, 4}) {
                        compare_striped<uint8_t>(p, input, out, channels);
                        compare_striped<uint16_t>(p, input, out, channels);
                    }
                }
            }
        }
    }
}

}  // namespace
