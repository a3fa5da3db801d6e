// The vector test helpers: module loading, tier skipping, frames and the three ways to run them.
#include "tests/vector/vector_test_support.h"

#include <cmath>
#include <cstring>
#include <limits>

#if defined(_WIN32)
#ifndef NOMINMAX
#define NOMINMAX  // std::min and std::max stay usable
#endif
#include <windows.h>
#else
#include <dlfcn.h>
#endif

#include "kernels/dispatch.h"
#include "kernels/pixel_pipeline.h"
#include "tests/common/reference_model.h"
#include "tests/common/tiers.h"

namespace kv {
namespace testing {

namespace {

#if defined(_WIN32)
constexpr const char* module_suffix = ".dll";
void* open_module(const std::string& path) {
    return LoadLibraryA(path.c_str());
}
void* find_entry(void* handle, const char* name) {
    return reinterpret_cast<void*>(GetProcAddress(static_cast<HMODULE>(handle), name));
}
std::string last_error() {
    return "LoadLibraryA failed";
}
#else
constexpr const char* module_suffix = ".so";
void* open_module(const std::string& path) {
    return dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
}
void* find_entry(void* handle, const char* name) {
    return dlsym(handle, name);
}
std::string last_error() {
    const char* e = dlerror();
    return e != nullptr ? e : "unknown";
}
#endif

vector_module load(tier_index tier) {
    static const char* const suffixes[3] = {"sse", "avx2", "avx512"};
    static const vector::instruction_set sets[3] = {vector::instruction_set::sse41,
                                                    vector::instruction_set::avx2,
                                                    vector::instruction_set::avx512};
    vector_module m;
    m.suffix = suffixes[tier];
    m.set = sets[tier];
    m.missing = vector::missing_feature(m.set);
    const std::string base = std::string("kelvane_qor_color_processing_vector_") + m.suffix;
    const std::string path = std::string(KV_VECTOR_MODULE_DIRECTORY) + "/" + base + module_suffix;
    m.handle = open_module(path);
    if (m.handle == nullptr) {
        m.load_error = path + ": " + last_error();
        return m;
    }
    const std::string s = m.suffix;
    m.initialize = reinterpret_cast<abi::vector_initialize_fn>(
        find_entry(m.handle, ("kv_color_processing_vector_" + s + "_module_initialize").c_str()));
    m.transform_8 = reinterpret_cast<abi::vector_transform_fn>(
        find_entry(m.handle, ("kv_color_processing_transform_8_bit_output_vector_" + s).c_str()));
    m.transform_16 = reinterpret_cast<abi::vector_transform_fn>(
        find_entry(m.handle, ("kv_color_processing_transform_16_bit_output_vector_" + s).c_str()));
    m.terminate = reinterpret_cast<abi::vector_terminate_fn>(
        find_entry(m.handle, ("kv_color_processing_vector_" + s + "_module_terminate").c_str()));
    if (!m.initialize || !m.transform_8 || !m.transform_16 || !m.terminate) {
        m.load_error = path + ": an entry is missing";
        return m;
    }
    if (m.missing == nullptr && m.initialize() != 0) m.load_error = path + ": initialize refused";
    return m;
}

// Cheap noise (splitmix64), so that frames of tens of megabytes fill quickly.
void fill_noise(uint8_t* p, size_t bytes, uint32_t seed) {
    uint64_t state = seed;
    for (size_t i = 0; i < bytes; i += 8) {
        uint64_t z = (state += 0x9E3779B97F4A7C15ull);
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
        z ^= z >> 31;
        std::memcpy(p + i, &z, std::min<size_t>(8, bytes - i));
    }
}

}  // namespace

int vector_module::block(int width) const {
    const int lanes = set == vector::instruction_set::sse41  ? 1
                      : set == vector::instruction_set::avx2 ? 2
                                                             : 4;
    return lanes * (width == 8 ? 16 : 8);
}

std::string tier_name(const ::testing::TestParamInfo<tier_index>& info) {
    static const char* const names[3] = {"SSE", "AVX2", "AVX512"};
    return names[info.param];
}

const vector_module& module_for(tier_index tier) {
    static const vector_module modules[3] = {load(SSE), load(AVX2), load(AVX512)};
    return modules[tier];
}

void tier_test::SetUp() {
    const vector_module& m = module();
    KV_SKIP_MISSING_TIER(m.suffix);
    ASSERT_TRUE(m.load_error.empty()) << m.load_error;
}

const std::vector<uint32_t>& table_pool(int index) {
    static const std::vector<std::vector<uint32_t>> pool = [] {
        std::vector<std::vector<uint32_t>> tables(table_pool_size, std::vector<uint32_t>(65536));
        std::mt19937 rng(20240601);
        for (uint32_t i = 0; i < 65536; ++i) {
            tables[0][i] = rng();                                         // anything
            tables[1][i] = (rng() & 0xFFFF0000u) | ((i * 40503u) >> 16);  // noise above smooth
            tables[2][i] = 0xABCD0000u | i;                               // identity below
            tables[3][i] = rng() & 0xFFu;                                 // small
            tables[4][i] = 0x80000000u | (rng() & 0x7FFFFFFFu);           // negative as int32
            tables[5][i] = rng() & 0xFFFFFu;                              // a few bits over 16
        }
        return tables;
    }();
    return pool[static_cast<size_t>(index)];
}

frame::frame(const frame_settings& settings, std::vector<uint16_t> input, uint32_t seed,
             size_t input_misalign_elements, size_t output_misalign_bytes)
    : settings_(settings),
      pixel_count_(static_cast<int32_t>(input.size() / 3)),
      seed_(seed),
      output_misalign_(output_misalign_bytes) {
    input_storage_.assign(input_misalign_elements, 0x7777);
    input_storage_.insert(input_storage_.end(), input.begin(), input.end());
    input_ = input_storage_.data() + input_misalign_elements;
    std::memcpy(matrix_.matrix, settings.matrix, sizeof matrix_.matrix);
}

size_t frame::output_bytes() const {
    return static_cast<size_t>(pixel_count_) * (settings_.fourth_channel ? 4 : 3) *
           (settings_.width / 8);
}

transform_request make_request(const frame_settings& s, const uint16_t* input, int32_t pixel_count,
                               void* output, const color_correction_head* matrix) {
    transform_request r;
    std::memset(&r, 0xA5, sizeof r);
    r.input_buffer = input;
    r.input_format = static_cast<pixel_format>(s.input_format);
    r.output_buffer = output;
    r.output_format = static_cast<pixel_format>(s.output_format);
    r.fourth_channel = s.fourth_channel ? s.enabled_byte : 0;
    r.pixel_count = pixel_count;
    r.processor = reinterpret_cast<const color_correction*>(matrix);
    const uint32_t* const in[3] = {s.input_LUT[0], s.input_LUT[1], s.input_LUT[2]};
    const uint32_t* const out[3] = {s.output_LUT[0], s.output_LUT[1], s.output_LUT[2]};
    // A disabled LUT has no table here, so a module that read one would fault.
    r.blue_input_LUT = in[0];
    r.green_input_LUT = in[1];
    r.red_input_LUT = in[2];
    r.blue_input_LUT_enabled = in[0] ? s.enabled_byte : 0;
    r.green_input_LUT_enabled = in[1] ? s.enabled_byte : 0;
    r.red_input_LUT_enabled = in[2] ? s.enabled_byte : 0;
    r.blue_output_LUT = out[0];
    r.green_output_LUT = out[1];
    r.red_output_LUT = out[2];
    r.blue_output_LUT_enabled = out[0] ? s.enabled_byte : 0;
    r.green_output_LUT_enabled = out[1] ? s.enabled_byte : 0;
    r.red_output_LUT_enabled = out[2] ? s.enabled_byte : 0;
    r.blue_output_min = s.minimum[0];
    r.green_output_min = s.minimum[1];
    r.red_output_min = s.minimum[2];
    r.blue_output_max = s.maximum[0];
    r.green_output_max = s.maximum[1];
    r.red_output_max = s.maximum[2];
    r.blue_shift_distance = s.shift_distance[0];
    r.green_shift_distance = s.shift_distance[1];
    r.red_shift_distance = s.shift_distance[2];
    return r;
}

transform_request frame::request(void* output) const {
    return make_request(settings_, input_, pixel_count_, output, &matrix_);
}

std::vector<uint8_t> frame::bytes_of_pixels_from(const std::vector<uint8_t>& output,
                                                 int32_t first) const {
    std::vector<uint8_t> bytes;
    const int elements = settings_.fourth_channel ? 4 : 3;
    const size_t element_bytes = static_cast<size_t>(settings_.width / 8);
    const uint64_t n = static_cast<uint64_t>(pixel_count_);
    for (int64_t p = first; p < pixel_count_; ++p) {
        for (int c = 0; c < elements; ++c) {
            const uint64_t place = reference::element_place(
                settings_.output_format, c, static_cast<uint64_t>(p), n, settings_.fourth_channel);
            for (size_t b = 0; b < element_bytes; ++b) {
                bytes.push_back(output[place * element_bytes + b]);
            }
        }
    }
    return bytes;
}

namespace {

// Output storage with 64 guard bytes on each side; everything starts as the same noise.
struct guarded_output {
    static constexpr size_t guard = 64;
    std::vector<uint8_t> storage;
    size_t offset, size;
    std::vector<uint8_t> front, back;  // the guards as they were filled

    guarded_output(size_t bytes, size_t misalign, uint32_t seed)
        : storage(2 * guard + misalign + bytes), offset(guard + misalign), size(bytes) {
        fill_noise(storage.data(), storage.size(), seed);
        front.assign(storage.begin(), storage.begin() + static_cast<ptrdiff_t>(offset));
        back.assign(storage.begin() + static_cast<ptrdiff_t>(offset + size), storage.end());
    }
    uint8_t* payload() { return storage.data() + offset; }
    std::vector<uint8_t> payload_copy() const {
        return std::vector<uint8_t>(storage.begin() + static_cast<ptrdiff_t>(offset),
                                    storage.begin() + static_cast<ptrdiff_t>(offset + size));
    }
    bool guards_intact() const {
        return std::equal(front.begin(), front.end(), storage.begin()) &&
               std::equal(back.begin(), back.end(),
                          storage.begin() + static_cast<ptrdiff_t>(offset + size));
    }
};

void dispatch(int width, const transform_request& r, int32_t start_index) {
    if (width == 8) {
        dispatch_kernel_8(&r, start_index);
    } else {
        dispatch_kernel_16(&r, start_index);
    }
}

}  // namespace

std::vector<uint8_t> frame::run_routed(const vector_module& module, int32_t* count) const {
    guarded_output out(output_bytes(), output_misalign_, seed_);
    const std::vector<uint8_t> before = out.payload_copy();
    const transform_request r = request(out.payload());
    const transform_request copy = r;

    const int32_t done = module.transform(settings_.width, r);
    if (count != nullptr) *count = done;
    EXPECT_GE(done, 0) << module.suffix;
    EXPECT_LE(done, std::max(pixel_count_, 0)) << module.suffix;
    EXPECT_EQ(0, std::memcmp(&r, &copy, sizeof r)) << module.suffix << " changed the record";
    EXPECT_TRUE(out.guards_intact()) << module.suffix << " wrote outside the frame";
    const int32_t first_left = std::min(std::max(done, 0), std::max(pixel_count_, 0));
    EXPECT_EQ(bytes_of_pixels_from(before, first_left),
              bytes_of_pixels_from(out.payload_copy(), first_left))
        << module.suffix << " wrote pixels beyond the " << done << " it reported";

    dispatch(settings_.width, r, done);
    EXPECT_TRUE(out.guards_intact());
    return out.payload_copy();
}

std::vector<uint8_t> frame::run_scalar() const {
    guarded_output out(output_bytes(), output_misalign_, seed_);
    dispatch(settings_.width, request(out.payload()), 0);
    return out.payload_copy();
}

std::vector<uint8_t> frame::run_reference() const {
    guarded_output out(output_bytes(), output_misalign_, seed_);
    reference::run_request(request(out.payload()), settings_.width, 0);
    return out.payload_copy();
}

float random_matrix_value(std::mt19937& rng) {
    const uint32_t pick = rng() % 100;
    if (pick < 60) return std::uniform_real_distribution<float>(-1.5f, 2.5f)(rng);
    if (pick < 75) return static_cast<float>(static_cast<int>(rng() % 9) - 2) * 0.25f;  // ties
    switch (pick % 12) {
        case 0:
            return std::numeric_limits<float>::quiet_NaN();
        case 1:
            return std::numeric_limits<float>::infinity();
        case 2:
            return -std::numeric_limits<float>::infinity();
        case 3:
            return 3.0e38f;
        case 4:
            return 40000.0f;  // sums past 2^31 fold to the minimum
        case 5:
            return 1.0e-40f;  // subnormal
        case 6:
            return -0.0f;
        case 7:
            return 0.49999997f;
        case 8:
            return 16777216.0f;
        case 9:
            return -16777216.0f;
        case 10:
            return std::ldexp(1.0f, -static_cast<int>(rng() % 30));
        default:
            return 1.0f / static_cast<float>(1 + rng() % 7);
    }
}

frame_settings random_settings(uint32_t coordinates, std::mt19937& rng) {
    const kernel_coordinates k = kernel_coordinates::decode(coordinates);
    frame_settings s;
    auto format = [&](pixel_format f) -> int32_t {
        if (f != FORMAT_BGR_PLANES) return f;
        const uint32_t pick = rng() % 8;
        return pick == 0 ? -1 : pick == 1 ? 5 : 0;
    };
    s.width = k.output_width;
    s.input_format = format(k.input_format);
    s.output_format = format(k.output_format);
    s.fourth_channel = k.fourth_channel;
    const uint8_t on_bytes[3] = {1, 0x80, 0xFF};
    s.enabled_byte = on_bytes[rng() % 3];

    const int matrix_kind = static_cast<int>(rng() % 4);
    for (float& m : s.matrix) {
        if (matrix_kind == 0) {
            m = std::uniform_real_distribution<float>(-0.5f, 1.5f)(rng);  // image-like
        } else if (matrix_kind == 1) {
            m = static_cast<float>(static_cast<int>(rng() % 5)) * 0.5f;  // exact halves
        } else {
            m = random_matrix_value(rng);
        }
    }

    const bool input_on[3] = {k.blue_input_LUT, k.green_input_LUT, k.red_input_LUT};
    const bool output_on[3] = {k.blue_output_LUT, k.green_output_LUT, k.red_output_LUT};
    const shift_sign sign[3] = {k.blue_shift_sign, k.green_shift_sign, k.red_shift_sign};
    // Bounds 0 and 65535 on all channels let a module leave the clamp to its packs.
    const bool all_full_range = rng() % 4 == 0;
    for (int c = 0; c < 3; ++c) {
        if (input_on[c]) s.input_LUT[c] = table_pool(static_cast<int>(rng() % 6)).data();
        if (output_on[c]) s.output_LUT[c] = table_pool(static_cast<int>(rng() % 6)).data();
        const int bound_kind = static_cast<int>(rng() % 6);
        uint16_t a = static_cast<uint16_t>(rng()), b = static_cast<uint16_t>(rng());
        if (bound_kind == 0 || all_full_range) a = 0, b = 0xFFFF;
        if (bound_kind == 1) a = b;
        if (bound_kind == 2)
            a = static_cast<uint16_t>(a & 0xFF), b = static_cast<uint16_t>(b | 0xF000);
        // Crossed bounds never pass validation, but a module must still agree: the minimum wins.
        const bool crossed = bound_kind == 3 && a != b;
        s.minimum[c] = crossed ? std::max(a, b) : std::min(a, b);
        s.maximum[c] = crossed ? std::min(a, b) : std::max(a, b);
        const int32_t distance = 1 + static_cast<int32_t>(rng() % 15);
        s.shift_distance[c] = sign[c] == SHIFT_LEFT    ? distance
                              : sign[c] == SHIFT_RIGHT ? -distance
                                                       : 0;
    }
    return s;
}

std::vector<uint16_t> random_input(int32_t pixel_count, std::mt19937& rng) {
    std::vector<uint16_t> input(3 * static_cast<size_t>(std::max(pixel_count, 0)));
    const int kind = static_cast<int>(rng() % 4);
    uint64_t state = rng();
    auto next = [&state] {  // xorshift64: cheap enough for frames of millions of pixels
        state ^= state << 13;
        state ^= state >> 7;
        state ^= state << 17;
        return state;
    };
    static const uint16_t extremes[] = {0, 1, 2, 255, 256, 32767, 32768, 65534, 65535};
    // Image-like: a ramp whose slope drifts, reflected at both ends, with a little noise.
    int64_t level = static_cast<int64_t>(rng() % 65536), slope = 40;
    for (size_t i = 0; i < input.size(); ++i) {
        const uint64_t r = next();
        switch (kind) {
            case 0:
                input[i] = static_cast<uint16_t>(r);
                break;
            case 1:
                if (i % 64 == 0) slope = static_cast<int64_t>(r % 161) - 80;
                level += slope;
                if (level < 0 || level > 65535) slope = -slope, level += 2 * slope;
                input[i] = static_cast<uint16_t>(std::min<int64_t>(
                    65535, std::max<int64_t>(0, level + static_cast<int64_t>(r >> 60))));
                break;
            case 2:
                input[i] = static_cast<uint16_t>(r % 300);
                break;
            default:
                input[i] = extremes[r % (sizeof extremes / sizeof *extremes)];
        }
    }
    return input;
}

}  // namespace testing
}  // namespace kv
