// The vector test helpers: module loading, tier skipping, frames and the three ways to run them.
#include "tests/vector/vector_test_support.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <sstream>

#include "kernels/dispatch.h"
#include "platform/module_loader.h"
#include "services/module_contract.h"
#include "tests/common/reference_model.h"
#include "tests/common/tiers.h"

namespace kv {
namespace testing {

namespace {

vector_module load(tier_index tier) {
    static const char* const suffixes[3] = {"sse", "avx2", "avx512"};
    vector_module m;
    m.suffix = suffixes[tier];
    m.lanes = 1 << tier;
    const module_names& names = VECTOR_MODULES[tier];
    const std::string path = platform::module_file_in(KV_VECTOR_MODULE_DIRECTORY, names.base_name);
    // Loaded once per process and released at exit: one module serves every test.
    const platform::module_handle file = platform::load_module_file(path);
    if (file == nullptr) {
        m.load_error = path + ": " + platform::last_error();
        return m;
    }
    auto entry = [&](vector_entry e) { return platform::module_symbol(file, names.entries[e]); };
    m.initialize = reinterpret_cast<abi::vector_initialize_fn>(entry(VECTOR_INITIALIZE));
    m.transform_8 =
        reinterpret_cast<abi::vector_transform_fn>(entry(VECTOR_TRANSFORM_8_BIT_OUTPUT));
    m.transform_16 =
        reinterpret_cast<abi::vector_transform_fn>(entry(VECTOR_TRANSFORM_16_BIT_OUTPUT));
    m.terminate = reinterpret_cast<abi::vector_terminate_fn>(entry(VECTOR_TERMINATE));
    if (!m.initialize || !m.transform_8 || !m.transform_16 || !m.terminate) {
        m.load_error = path + ": an entry is missing";
    } else if (tier_missing(m.suffix) == nullptr && m.initialize() != 0) {
        m.load_error = path + ": initialize refused";
    }
    return m;
}

void dispatch(int width, const transform_request& r, int32_t start_index) {
    if (width == 8) {
        dispatch_kernel_8(&r, start_index);
    } else {
        dispatch_kernel_16(&r, start_index);
    }
}

}  // namespace

std::string tier_name(const ::testing::TestParamInfo<tier_index>& info) {
    static const char* const names[3] = {"SSE", "AVX2", "AVX512"};
    return names[info.param];
}

const vector_module& module_for(tier_index tier) {
    static const vector_module modules[3] = {load(SSE), load(AVX2), load(AVX512)};
    return modules[tier];
}

uint32_t base_seed() {
    const char* text = std::getenv("KV_TEST_SEED");
    return text != nullptr ? static_cast<uint32_t>(std::strtoul(text, nullptr, 0)) : 1234567u;
}

void tier_test::SetUp() {
    const vector_module& m = module();
    KV_SKIP_MISSING_TIER(m.suffix);
    ASSERT_TRUE(m.load_error.empty()) << m.load_error;
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
    return testing::output_bytes(settings_.width, settings_.fourth_channel, pixel_count_);
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

std::string frame::describe(uint32_t seed, const std::vector<uint8_t>& mine,
                            const std::vector<uint8_t>& theirs) const {
    const frame_settings& s = settings_;
    std::ostringstream text;
    if (!mine.empty() && mine.size() == theirs.size()) {
        const std::vector<uint8_t> a = bytes_of_pixels_from(mine, 0);
        const std::vector<uint8_t> b = bytes_of_pixels_from(theirs, 0);
        const size_t at = size_t(std::mismatch(a.begin(), a.end(), b.begin()).first - a.begin());
        const size_t pixel_bytes =
            static_cast<size_t>(s.fourth_channel ? 4 : 3) * static_cast<size_t>(s.width / 8);
        const size_t pixel = at / pixel_bytes;
        text << "first difference at pixel " << pixel << " (bytes, this/expected:" << std::hex;
        for (size_t i = pixel * pixel_bytes; i < std::min(a.size(), (pixel + 1) * pixel_bytes); ++i)
            text << ' ' << int(a[i]) << '/' << int(b[i]);
        text << std::dec << "), ";
    }
    text << "seed " << seed << ", pixels " << pixel_count_ << ", width " << s.width << ", formats "
         << s.input_format << " -> " << s.output_format << (s.fourth_channel ? " + fourth" : "")
         << ", matrix";
    for (float m : s.matrix) text << ' ' << m;
    for (int c = 0; c < 3; ++c) {
        text << " | channel " << c << ": in LUT " << (s.input_LUT[c] != nullptr) << ", out LUT "
             << (s.output_LUT[c] != nullptr) << ", bounds " << s.minimum[c] << ".." << s.maximum[c]
             << ", shift " << s.shift_distance[c];
    }
    return text.str();
}

std::vector<uint8_t> frame::run_routed(const vector_module& module, int32_t* count) const {
    guarded_buffer out(output_bytes(), seed_, output_misalign_);
    const std::vector<uint8_t> before = out.copy();
    const transform_request r = request(out.data());
    const transform_request copy = r;

    const int32_t done = module.transform(settings_.width, r);
    if (count != nullptr) *count = done;
    EXPECT_GE(done, 0) << module.suffix;
    EXPECT_LE(done, std::max(pixel_count_, 0)) << module.suffix;
    EXPECT_EQ(0, std::memcmp(&r, &copy, sizeof r)) << module.suffix << " changed the record";
    EXPECT_TRUE(out.guards_intact()) << module.suffix << " wrote outside the frame";
    const int32_t first_left = std::min(std::max(done, 0), std::max(pixel_count_, 0));
    EXPECT_EQ(bytes_of_pixels_from(before, first_left),
              bytes_of_pixels_from(out.copy(), first_left))
        << module.suffix << " wrote pixels beyond the " << done << " it reported";

    dispatch(settings_.width, r, done);
    EXPECT_TRUE(out.guards_intact());
    return out.copy();
}

std::vector<uint8_t> frame::run_scalar() const {
    guarded_buffer out(output_bytes(), seed_, output_misalign_);
    dispatch(settings_.width, request(out.data()), 0);
    EXPECT_TRUE(out.guards_intact()) << "the scalar kernels wrote outside the frame";
    return out.copy();
}

std::vector<uint8_t> frame::run_reference() const {
    guarded_buffer out(output_bytes(), seed_, output_misalign_);
    reference::run_request(request(out.data()), settings_.width, 0);
    return out.copy();
}

bool check_frame(const vector_module& m, const frame& f, uint32_t seed, int32_t whole_from) {
    int32_t count = -1;
    const std::vector<uint8_t> routed = f.run_routed(m, &count);
    const std::vector<uint8_t> reference = f.run_reference();
    const std::vector<uint8_t> scalar = f.run_scalar();
    bool good = !::testing::Test::HasFailure();
    if (scalar != reference) {
        ADD_FAILURE() << "scalar kernels: " << f.describe(seed, scalar, reference);
        good = false;
    }
    if (routed != reference) {
        ADD_FAILURE() << m.suffix << " module (count " << count
                      << "): " << f.describe(seed, routed, reference);
        good = false;
    }
    if (f.pixel_count() >= whole_from && count != f.pixel_count()) {
        ADD_FAILURE() << m.suffix << " module declined (" << count << " of " << f.pixel_count()
                      << "): " << f.describe(seed);
        good = false;
    }
    return good;
}

}  // namespace testing
}  // namespace kv
