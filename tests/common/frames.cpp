// The frame instruments: request builder, seeded generators and the page-fenced buffer.
#include "tests/common/frames.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <new>

#if defined(_WIN32)
#include "platform/windows_api.h"
#else
#include <sys/mman.h>
#include <unistd.h>
#endif

#include "kernels/pixel_pipeline.h"

namespace kv {
namespace testing {
namespace {

// Cheap seeded noise (splitmix64).
void fill_noise(uint8_t* p, size_t bytes, uint64_t seed) {
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
    const uint32_t** input_LUT[3] = {&r.blue_input_LUT, &r.green_input_LUT, &r.red_input_LUT};
    const uint32_t** output_LUT[3] = {&r.blue_output_LUT, &r.green_output_LUT, &r.red_output_LUT};
    uint8_t* input_on[3] = {&r.blue_input_LUT_enabled, &r.green_input_LUT_enabled,
                            &r.red_input_LUT_enabled};
    uint8_t* output_on[3] = {&r.blue_output_LUT_enabled, &r.green_output_LUT_enabled,
                             &r.red_output_LUT_enabled};
    uint16_t* minimum[3] = {&r.blue_output_min, &r.green_output_min, &r.red_output_min};
    uint16_t* maximum[3] = {&r.blue_output_max, &r.green_output_max, &r.red_output_max};
    int32_t* distance[3] = {&r.blue_shift_distance, &r.green_shift_distance, &r.red_shift_distance};
    for (int c = 0; c < 3; ++c) {
        *input_LUT[c] = s.input_LUT[c];
        *output_LUT[c] = s.output_LUT[c];
        *input_on[c] = s.input_LUT[c] ? s.enabled_byte : 0;
        *output_on[c] = s.output_LUT[c] ? s.enabled_byte : 0;
        *minimum[c] = s.minimum[c];
        *maximum[c] = s.maximum[c];
        *distance[c] = s.shift_distance[c];
    }
    return r;
}

size_t output_bytes(int width, bool fourth_channel, int64_t pixel_count) {
    return static_cast<size_t>(std::max<int64_t>(pixel_count, 0)) * (fourth_channel ? 4 : 3) *
           static_cast<size_t>(width / 8);
}

float random_matrix_value(std::mt19937& rng) {
    constexpr float inf = std::numeric_limits<float>::infinity();
    const float nan = std::numeric_limits<float>::quiet_NaN();
    // Sums past 2^31 (from 40000) fold to the minimum; 1e-40 is subnormal.
    const float corners[] = {nan,    inf,   -inf,        3.0e38f,     40000.0f,
                             1e-40f, -0.0f, 0.49999997f, 16777216.0f, -16777216.0f};
    const uint32_t pick = rng() % 100;
    if (pick < 60) return std::uniform_real_distribution<float>(-1.5f, 2.5f)(rng);
    if (pick < 75) return static_cast<float>(static_cast<int>(rng() % 9) - 2) * 0.25f;  // ties
    if (pick % 12 < 10) return corners[pick % 12];
    if (pick % 12 == 10) return std::ldexp(1.0f, -static_cast<int>(rng() % 30));
    return 1.0f / static_cast<float>(1 + rng() % 7);
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
    // Image-like, exact halves, or the arithmetic corners.
    for (float& m : s.matrix) {
        m = matrix_kind == 0   ? std::uniform_real_distribution<float>(-0.5f, 1.5f)(rng)
            : matrix_kind == 1 ? static_cast<float>(static_cast<int>(rng() % 5)) * 0.5f
                               : random_matrix_value(rng);
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
        // Crossed bounds never pass validation, but every path must agree: the minimum wins.
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
    uint64_t state = rng() | 1;
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

const std::vector<uint32_t>& table_pool(int index) {
    static const std::vector<std::vector<uint32_t>> pool = [] {
        std::vector<std::vector<uint32_t>> tables(6, std::vector<uint32_t>(65536));
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

guarded_buffer::guarded_buffer(size_t bytes, uint64_t seed, size_t misalign, fence side)
    : size_(bytes) {
#if defined(_WIN32)
    SYSTEM_INFO info;
    GetSystemInfo(&info);
    page_ = info.dwPageSize;
#else
    page_ = static_cast<size_t>(sysconf(_SC_PAGESIZE));
#endif
    // Room for the payload and, at the fenced end's far side, up to 63 bytes of slack.
    usable_ = (bytes + 64 + page_ - 1) / page_ * page_;
    const size_t total = usable_ + 2 * page_;
#if defined(_WIN32)
    base_ = static_cast<uint8_t*>(
        VirtualAlloc(nullptr, total, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE));
    DWORD old;
    const bool fenced = base_ != nullptr && VirtualProtect(base_, page_, PAGE_NOACCESS, &old) &&
                        VirtualProtect(base_ + page_ + usable_, page_, PAGE_NOACCESS, &old);
#else
    void* memory = mmap(nullptr, total, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    base_ = memory == MAP_FAILED ? nullptr : static_cast<uint8_t*>(memory);
    const bool fenced = base_ != nullptr && mprotect(base_, page_, PROT_NONE) == 0 &&
                        mprotect(base_ + page_ + usable_, page_, PROT_NONE) == 0;
#endif
    if (!fenced) throw std::bad_alloc();
    uint8_t* const first = base_ + page_;
    if (side == before) {
        data_ = first + misalign % 64;
    } else {
        // Ends at the fence when the start can be misaligned as asked; else within 63 bytes of it.
        const size_t end_slack = (64 - (misalign % 64 + bytes) % 64) % 64;
        data_ = first + usable_ - end_slack - bytes;
    }
    noise_.resize(usable_);
    fill_noise(noise_.data(), usable_, seed);
    std::memcpy(first, noise_.data(), usable_);
}

guarded_buffer::~guarded_buffer() {
#if defined(_WIN32)
    VirtualFree(base_, 0, MEM_RELEASE);
#else
    munmap(base_, usable_ + 2 * page_);
#endif
}

bool guarded_buffer::guards_intact() const {
    const uint8_t* first = base_ + page_;
    const uint8_t* end = data_ + size_;
    const size_t head = static_cast<size_t>(data_ - first);
    return std::equal(first, static_cast<const uint8_t*>(data_), noise_.data()) &&
           std::equal(end, first + usable_, noise_.data() + head + size_);
}

void guarded_buffer::make_read_only() {
#if defined(_WIN32)
    DWORD old;
    VirtualProtect(base_ + page_, usable_, PAGE_READONLY, &old);
#else
    mprotect(base_ + page_, usable_, PROT_READ);
#endif
}

}  // namespace testing
}  // namespace kv
