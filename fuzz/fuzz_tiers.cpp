// Differential target over the public calls: the input decides LUT depths and contents, matrices
// (NaN, infinities, huge, subnormal and tie-making values among them), LUT enables and then a few
// frames with every per-frame setting (export, layouts, clamps, shifts including refused ones,
// lengths, buffer offsets). Each frame runs on a scalar-only processor and on one forced to each
// vector tier the machine has; status, output bytes, guard bytes and input must agree exactly.
#include <algorithm>
#include <cfloat>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "fuzz/fuzz_support.h"
#include "kelvane_qor_color_processing.h"
#include "modules/vector/instruction_sets.h"
#include "platform/module_loader.h"
#include "services/module_contract.h"

namespace {

struct vector_tier {
    int32_t tier;
    const char* name;
    kv::vector::instruction_set set;
};
constexpr vector_tier vector_tiers[] = {
    {KV_TIER_SSE, "sse", kv::vector::instruction_set::sse41},
    {KV_TIER_AVX2, "avx2", kv::vector::instruction_set::avx2},
    {KV_TIER_AVX512, "avx512", kv::vector::instruction_set::avx512}};

std::vector<const vector_tier*> compared_tiers;
uint64_t frames_run = 0, frames_refused = 0;

// The four exports behind one call: 0 to 24, 1 to 32, 2 to 48, 3 to 64 bits a pixel.
struct frame {
    int exported = 0;
    int32_t input_format = 0, output_format = 0;
    uint16_t minimum[3] = {}, maximum[3] = {};
    int32_t shift[3] = {};
    int32_t pixels = 0;
    int output_width() const { return exported < 2 ? 8 : 16; }
    int elements() const { return exported % 2 == 0 ? 3 : 4; }
};

kv_status run_frame(kv_color_processor_handle p, const frame& f, const uint16_t* in, void* out) {
    const auto* lo = f.minimum;
    const auto* hi = f.maximum;
    const auto* s = f.shift;
    auto* out8 = static_cast<uint8_t*>(out);
    auto* out16 = static_cast<uint16_t*>(out);
    switch (f.exported) {
        case 0:
            return kv_color_transform_48_to_24(p, in, f.input_format, lo[0], hi[0], lo[1], hi[1],
                                               lo[2], hi[2], s[0], s[1], s[2], out8,
                                               f.output_format, f.pixels);
        case 1:
            return kv_color_transform_48_to_32(p, in, f.input_format, lo[0], hi[0], lo[1], hi[1],
                                               lo[2], hi[2], s[0], s[1], s[2], out8,
                                               f.output_format, f.pixels);
        case 2:
            return kv_color_transform_48_to_48(p, in, f.input_format, lo[0], hi[0], lo[1], hi[1],
                                               lo[2], hi[2], s[0], s[1], s[2], out16,
                                               f.output_format, f.pixels);
        default:
            return kv_color_transform_48_to_64(p, in, f.input_format, lo[0], hi[0], lo[1], hi[1],
                                               lo[2], hi[2], s[0], s[1], s[2], out16,
                                               f.output_format, f.pixels);
    }
}

std::string describe(const frame& f, int input_depth, int output_depth, unsigned enables) {
    char text[400];
    std::snprintf(text, sizeof text,
                  "export to %d bits, layouts %d -> %d, %d pixels, clamps b %u:%u g %u:%u r %u:%u, "
                  "shifts %d %d %d, LUT depths %d/%d, enables 0x%02x",
                  f.output_width() * f.elements(), f.input_format, f.output_format, f.pixels,
                  f.minimum[0], f.maximum[0], f.minimum[1], f.maximum[1], f.minimum[2],
                  f.maximum[2], f.shift[0], f.shift[1], f.shift[2], input_depth, output_depth,
                  enables);
    return text;
}

float matrix_value(kv_fuzz::input_reader& in) {
    static const float special[] = {NAN,     -NAN,   INFINITY, -INFINITY,  FLT_MAX, -FLT_MAX,
                                    1e30f,   -1e20f, 65535.0f, 65536.0f,   1e-45f,  -1e-45f,
                                    FLT_MIN, -0.0f,  0.0f,     1.0f,       -1.0f,   0.5f,
                                    1.5f,    -0.5f,  257.0f,   1.0f / 257, 2.0f,    1.0f / 65535};
    switch (in.below(4)) {
        case 0: {  // any bit pattern, NaN payloads and subnormals included
            const uint32_t bits = in.take<uint32_t>();
            float v;
            std::memcpy(&v, &bits, sizeof v);
            return v;
        }
        case 1:
            return special[in.below(sizeof special / sizeof *special)];
        case 2:  // multiples of 1/512 put many results exactly halfway between integers
            return float(int(in.below(4097)) - 2048) / 512.0f;
        default:
            return float(in.take<int16_t>()) / 16384.0f;
    }
}

// Contents of one table: `style` picks random words, small values, boundary values or a ramp
// with noise in the high bits.
void fill_table(std::vector<uint32_t>& table, uint32_t seed, uint32_t style) {
    static const uint32_t boundaries[] = {0,     1,          255,        256,        65535,
                                          65536, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF, 0xFFFF0000};
    std::mt19937 random(seed);
    for (size_t i = 0; i < table.size(); ++i) {
        const uint32_t r = random();
        table[i] = style == 0   ? r
                   : style == 1 ? r & 0xFFFF
                   : style == 2 ? boundaries[r % 10]
                                : uint32_t(i * 3 / 4) | (r << 20);
    }
}

int32_t pick_format(kv_fuzz::input_reader& in) {
    static const int32_t odd[] = {-1, 3, 4, INT32_MIN, INT32_MAX, -2};
    return in.one_in(24) ? odd[in.below(6)] : int32_t(in.below(3));
}

int32_t pick_shift(kv_fuzz::input_reader& in) {
    static const int32_t odd[] = {16, -16, 31, -31, 32, INT32_MIN, INT32_MAX, 1000};
    if (in.one_in(48)) return odd[in.below(8)];
    return in.one_in(3) ? 0 : int32_t(in.below(31)) - 15;
}

int32_t pick_pixels(kv_fuzz::input_reader& in) {
    switch (in.below(16)) {
        case 0:
            return 0;
        case 1:
            return in.one_in(2) ? -1 : INT32_MIN;
        case 2:
            return 300 + int32_t(in.below(4700));
        default:
            return int32_t(in.below(301));
    }
}

// One frame through every processor; processors[0] is the scalar one.
void compare_frame(const std::vector<kv_color_processor_handle>& processors,
                   kv_fuzz::input_reader& in, int input_depth, int output_depth, unsigned enables) {
    frame f;
    f.exported = int(in.below(4));
    f.input_format = pick_format(in);
    f.output_format = pick_format(in);
    // Settings alike in all three channels are common, and vector paths take shortcuts for them.
    const uint32_t shared_clamp = in.one_in(4) ? 2 + in.below(4) : 0;
    const bool no_shifts = in.one_in(4);
    for (int c = 0; c < 3; ++c) {
        const bool LUT_on = (enables >> (3 + c)) & 1;
        const uint32_t top = LUT_on ? std::min((1u << output_depth) - 1, 65535u) : 65535u;
        switch (shared_clamp != 0 ? shared_clamp : in.below(24)) {
            case 0:  // anything, often refused
                f.minimum[c] = in.take<uint16_t>();
                f.maximum[c] = in.take<uint16_t>();
                break;
            case 1:  // just past an enabled table
                f.minimum[c] = 0;
                f.maximum[c] = uint16_t(std::min(top + 1, 65535u));
                break;
            case 2:
            case 3:  // the whole range, which a vector path may treat specially
                f.minimum[c] = 0;
                f.maximum[c] = uint16_t(top);
                break;
            case 4:  // near the ends, where shortcuts for full ranges would go wrong
                f.minimum[c] = 0;
                f.maximum[c] = uint16_t(top - std::min(top, in.below(256)));
                break;
            case 5:
                f.minimum[c] = uint16_t(std::min(top, in.below(256)));
                f.maximum[c] = uint16_t(top);
                break;
            default:
                f.minimum[c] = uint16_t(in.take<uint16_t>() % (top + 1));
                f.maximum[c] =
                    uint16_t(f.minimum[c] + in.take<uint16_t>() % (top - f.minimum[c] + 1));
                break;
        }
        f.shift[c] = no_shifts ? 0 : pick_shift(in);
    }
    f.pixels = pick_pixels(in);

    const size_t pixels = f.pixels > 0 ? size_t(f.pixels) : 0;
    const size_t input_offset = in.below(8);  // elements: any 2-byte alignment
    std::vector<uint16_t> input(input_offset + 3 * pixels + 1);
    std::mt19937 random(in.take<uint32_t>());
    const uint32_t input_style = in.below(4);
    // A value at or above an enabled input table's size reads past the table, by definition.
    const uint32_t input_mask = (enables & 7) != 0 ? (1u << input_depth) - 1 : 0xFFFF;
    static const uint16_t extremes[] = {0, 1, 32767, 32768, 65534, 65535};
    for (size_t i = 0; i < input.size(); ++i) {
        const uint32_t r = random();
        const uint32_t v = input_style == 0   ? r
                           : input_style == 1 ? r & 0xFF
                           : input_style == 2 ? extremes[r % 6]
                                              : uint32_t(i * 37);
        input[i] = uint16_t(v & input_mask);
    }
    const size_t element_bytes = size_t(f.output_width() / 8);
    const size_t output_offset = in.below(32) * element_bytes;
    const size_t guard = 64;
    const size_t output_bytes = pixels * size_t(f.elements()) * element_bytes;
    std::vector<uint8_t> pattern(output_offset + output_bytes + guard);
    for (uint8_t& b : pattern) b = uint8_t(random());
    // Now and then a request the validation must refuse before touching anything.
    const uint32_t pointers = in.one_in(32) ? 1 + in.below(3) : 0;  // null in, null out, same

    std::vector<uint8_t> scalar_output;
    kv_status scalar_status = 0;
    for (size_t p = 0; p < processors.size(); ++p) {
        std::vector<uint16_t> in_copy = input;
        // 64-byte alignment of the storage, then the chosen offset.
        std::vector<uint8_t> storage(pattern.size() + 64);
        const size_t align = (64 - reinterpret_cast<uintptr_t>(storage.data()) % 64) % 64;
        uint8_t* base = storage.data() + align;
        std::copy(pattern.begin(), pattern.end(), base);
        const uint16_t* in_pointer = pointers == 1 ? nullptr : in_copy.data() + input_offset;
        void* out_pointer = pointers == 2   ? nullptr
                            : pointers == 3 ? static_cast<void*>(in_copy.data() + input_offset)
                                            : static_cast<void*>(base + output_offset);
        const kv_status status = run_frame(processors[p], f, in_pointer, out_pointer);
        const std::vector<uint8_t> output(base, base + pattern.size());
        // Written out only for a finding.
        const auto settings = [&] { return describe(f, input_depth, output_depth, enables); };
        if (in_copy != input) kv_fuzz::finding("the input buffer changed; " + settings());
        if (p == 0) {
            scalar_status = status;
            scalar_output = output;
            const bool refused = status != KV_STATUS_SUCCESS;
            for (size_t i = 0; i < output.size(); ++i) {
                const bool outside = i < output_offset || i >= output_offset + output_bytes;
                if ((refused || outside) && output[i] != pattern[i]) {
                    kv_fuzz::finding("scalar path wrote byte " + std::to_string(i) +
                                     " outside the frame; " + settings());
                }
            }
            frames_refused += refused ? 1 : 0;
            continue;
        }
        const char* name = compared_tiers[p - 1]->name;
        if (status != scalar_status) {
            kv_fuzz::finding(std::string(name) + " returned status " + std::to_string(status) +
                             ", scalar " + std::to_string(scalar_status) + "; " + settings());
        }
        const auto diff = std::mismatch(output.begin(), output.end(), scalar_output.begin());
        if (diff.first != output.end()) {
            const size_t at = size_t(diff.first - output.begin());
            const std::string where =
                at < output_offset || at >= output_offset + output_bytes
                    ? "a guard byte"
                    : "pixel " + std::to_string((at - output_offset) /
                                                (size_t(f.elements()) * element_bytes));
            kv_fuzz::finding(std::string(name) + " differs from scalar at byte " +
                             std::to_string(at) + " (" + where +
                             "): " + std::to_string(*diff.first) + " vs " +
                             std::to_string(*diff.second) + "; " + settings());
        }
    }
    ++frames_run;
}

void report_and_terminate() {
    std::string names = "scalar";
    for (const vector_tier* t : compared_tiers) names += std::string(", ") + t->name;
    std::printf("fuzz_tiers: %llu frames compared (%llu refused alike) across %s\n",
                static_cast<unsigned long long>(frames_run),
                static_cast<unsigned long long>(frames_refused), names.c_str());
    std::fflush(stdout);
    kv_color_processing_module_terminate();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    const kv_status started = kv_color_processing_module_initialize();
    if (started != KV_STATUS_SUCCESS) {
        std::fprintf(stderr,
                     "fuzz_tiers: the library did not start (status %d): put the folder with "
                     "kelvane_qor_LUT and the vector modules on LD_LIBRARY_PATH\n",
                     started);
        std::exit(2);
    }
    for (const vector_tier& t : vector_tiers) {
        if (const char* missing = kv::vector::missing_feature(t.set)) {
            std::printf("fuzz_tiers: %s left out: this processor or system lacks %s\n", t.name,
                        missing);
            continue;
        }
        // Without the real module the tier would quietly run the scalar path, and the
        // comparison would prove nothing.
        kv_color_processor_handle p = kv_color_create_color_processor_test(0, 0, t.tier);
        const char* module = kv::VECTOR_MODULES[t.tier - 1].base_name;
        const bool loaded = kv::platform::module_is_loaded(module);
        kv_color_destroy_color_processor(p);
        if (!loaded) {
            std::fprintf(stderr,
                         "fuzz_tiers: %s%s was not loaded: put the folder with the real vector "
                         "modules on LD_LIBRARY_PATH\n",
                         module, kv::platform::module_suffix);
            std::exit(2);
        }
        compared_tiers.push_back(&t);
    }
    std::atexit(report_and_terminate);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    kv_fuzz::input_reader in(data, size);
    const int input_depth = in.one_in(4) ? 16 : int(in.below(17));
    const int output_depth = int(in.below(17));
    std::vector<kv_color_processor_handle> processors;
    processors.push_back(
        kv_color_create_color_processor_test(input_depth, output_depth, KV_TIER_SCALAR));
    for (const vector_tier* t : compared_tiers) {
        processors.push_back(
            kv_color_create_color_processor_test(input_depth, output_depth, t->tier));
    }
    struct destroyer {
        std::vector<kv_color_processor_handle>& all;
        ~destroyer() {
            for (kv_color_processor_handle p : all) kv_color_destroy_color_processor(p);
        }
    } destroy_at_end{processors};
    for (kv_color_processor_handle p : processors) {
        if (p == nullptr) kv_fuzz::finding("a processor was not created");
    }

    // Blue, green, red input LUTs in bits 0 to 2, output LUTs in bits 3 to 5. Only enabled
    // tables are filled: the others are never read.
    unsigned enables = in.take<uint8_t>() & 0x3F;
    if (in.one_in(4)) enables &= 7;  // no output LUT
    uint32_t* (*const tables[])(kv_color_processor_handle) = {
        kv_color_get_blue_input_LUT,  kv_color_get_green_input_LUT,  kv_color_get_red_input_LUT,
        kv_color_get_blue_output_LUT, kv_color_get_green_output_LUT, kv_color_get_red_output_LUT};
    for (int t = 0; t < 6; ++t) {
        if (!((enables >> t) & 1)) continue;
        std::vector<uint32_t> contents(size_t(1) << (t < 3 ? input_depth : output_depth));
        fill_table(contents, in.take<uint32_t>(), in.below(4));
        for (kv_color_processor_handle p : processors) {
            std::copy(contents.begin(), contents.end(), tables[t](p));
        }
    }
    const int matrices = int(in.below(4));
    for (int m = 0; m < matrices; ++m) {
        float coefficients[9];
        for (float& v : coefficients) v = matrix_value(in);
        const bool clear_first = in.one_in(8);
        for (kv_color_processor_handle p : processors) {
            if (clear_first) kv_color_clear_matrix(p);
            kv_color_append_matrix(p, coefficients);
        }
    }
    for (kv_color_processor_handle p : processors) {
        kv_color_enable_input_LUTs(p, enables & 1, enables & 2, enables & 4);
        kv_color_enable_output_LUTs(p, enables & 8, enables & 16, enables & 32);
    }
    const int frames = 1 + int(in.below(4));
    for (int i = 0; i < frames; ++i)
        compare_frame(processors, in, input_depth, output_depth, enables);
    return 0;
}
