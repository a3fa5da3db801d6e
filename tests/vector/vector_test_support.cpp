// The vector test helpers: module loading, tier skipping, frames and the three ways to run them.
#include "tests/vector/vector_test_support.h"

#include <cmath>
#include <cstring>
#include <limits>
#include <memory>

#include "kernels/dispatch.h"
#include "kernels/pixel_pipeline.h"
#include "tests/common/reference_model.h"
#include "tests/common/tiers.h"
#include "tests/module_support/loaded_module.h"

namespace kv {
namespace testing {

namespace {

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
    const std::string path =
        std::string(KV_VECTOR_MODULE_DIRECTORY) + "/" + base + kv::test::module_suffix;
    // Loaded once per process and released at exit: one module serves every test.
    static std::vector<std::unique_ptr<kv::test::loaded_module>> files;
    files.push_back(std::make_unique<kv::test::loaded_module>(path));
    const kv::test::loaded_module* file = files.back().get();
    if (!file->loaded()) {
        m.load_error = path + ": cannot be loaded";
        return m;
    }
    const std::string s = m.suffix;
    m.initialize = file->symbol<abi::vector_initialize_fn>(
        ("kv_color_processing_vector_" + s + "_module_initialize").c_str());
    m.transform_8 = file->symbol<abi::vector_transform_fn>(
        ("kv_color_processing_transform_8_bit_output_vector_" + s).c_str());
    m.transform_16 = file->symbol<abi::vector_transform_fn>(
        ("kv_color_processing_transform_16_bit_output_vector_" + s).c_str());
    m.terminate = file->symbol<abi::vector_terminate_fn>(
        ("kv_color_processing_vector_" + s + "_module_terminate").c_str());
    if (!m.initialize || !m.transform_8 || !m.transform_16 || !m.terminate) {
        m.load_error = path + ": an entry is missing";
        return m;
    }
    if (m.missing == nullptr && m.initialize() != 0) m.load_error = path + ": initialize refused";
    return m;
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

namespace {

void dispatch(int width, const transform_request& r, int32_t start_index) {
    if (width == 8) {
        dispatch_kernel_8(&r, start_index);
    } else {
        dispatch_kernel_16(&r, start_index);
    }
}

}  // namespace

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

}  // namespace testing
}  // namespace kv
