// The processor object: its stages, matrix operations, and the transform of one frame
// (validation, filling of the request, routing to a vector back-end and the scalar tail).
#include "kelvane_qor_color_processing_suite/color_correction.h"

#include <cstring>

#include "kelvane_qor_color_processing_suite/module_state.h"
#include "kelvane_qor_color_processing_suite/status_codes.h"
#include "kernels/dispatch.h"
#include "services/LUT_library.h"
#include "services/logger_adapter.h"

namespace kv {

namespace {

// The matrix is the first stage of the object, so it is reset before the first LUT set exists.
int32_t after_matrix_reset(float (&matrix)[9], int32_t input_LUT_bit_depth) {
    reset_matrix(matrix);
    return input_LUT_bit_depth;
}

int32_t LUT_entry_count(int32_t bit_depth) {
    return static_cast<int32_t>(1u << (static_cast<uint32_t>(bit_depth) & 31u));
}

uint64_t LUT_byte_count(int32_t bit_depth) {
    return uint64_t{4} << (static_cast<uint32_t>(bit_depth) & 63u);
}

void clear_table(const color_LUT& lut, uint64_t byte_count) {
    std::memset(LUT_library.get_data(lut.handle), 0, static_cast<std::size_t>(byte_count));
}

constexpr const char* TRANSFORM_LABEL = "color_correction::transform";

// One refusal of a transform request: when `condition` holds, `message` is logged behind the error
// prefix, from the line of the check itself, and the transform returns `status`.
#define KV_REFUSE_IF(condition, status, message)                                                  \
    do {                                                                                          \
        if (condition) {                                                                          \
            KV_LOG(module_logger, LOG_LEVEL_ERROR, TRANSFORM_LABEL, "%s " message, ERROR_PREFIX); \
            return (status);                                                                      \
        }                                                                                         \
    } while (0)

// What differs between the two forms of a transform: the back-end's function and the scalar
// entry. Everything else is one body.
template <output_width width>
struct width_path;

template <>
struct width_path<output_width::bits_8> {
    static constexpr abi::vector_transform_fn vector_backend::*backend_function =
        &vector_backend::transform_8_bit_output;
    static void scalar(const transform_request* request, int32_t start_index) {
        dispatch_kernel_8(request, start_index);
    }
};

template <>
struct width_path<output_width::bits_16> {
    static constexpr abi::vector_transform_fn vector_backend::*backend_function =
        &vector_backend::transform_16_bit_output;
    static void scalar(const transform_request* request, int32_t start_index) {
        dispatch_kernel_16(request, start_index);
    }
};

bool shift_out_of_range(int32_t distance) {
    // -15 to 15 pass: the sum wraps below zero into large unsigned values.
    return static_cast<uint32_t>(distance) + 15u > 30u;
}

bool clamp_refused(uint16_t minimum, uint16_t maximum, uint8_t output_LUT_enabled,
                   int32_t output_LUT_size) {
    return minimum > maximum ||
           (output_LUT_enabled != 0 && static_cast<int32_t>(maximum) > output_LUT_size - 1);
}

bool format_refused(pixel_format format) {
    return static_cast<int32_t>(format) >= 3;
}

// The back-end a frame goes to, or NULL for the scalar kernels alone. The fall-through is flat:
// a failed AVX-512 or AVX2 back-end leads to SSE, never to the tier below.
const vector_backend* routed_backend(const color_correction& object) {
    const int32_t tier = object.tier;
    if (tier == TIER_AVX512 && !object.avx512_backend.failed) {
        return &object.avx512_backend;
    }
    if (tier == TIER_AVX2 && !object.avx2_backend.failed) {
        return &object.avx2_backend;
    }
    if (tier < TIER_SSE) {
        return nullptr;
    }
    return object.sse_backend.failed ? nullptr : &object.sse_backend;
}

void fill_LUT(const color_LUT& lut, const uint32_t** address, uint8_t* enabled) {
    *address = LUT_library.get_data(lut.handle);
    *enabled = lut.enabled;
}

}  // namespace

color_LUT::color_LUT(int32_t entry_count, int32_t avx2_flag)
    : handle(LUT_library.create(entry_count, avx2_flag)), enabled(0) {}

color_LUT::~color_LUT() {
    LUT_library.destroy(handle);
    handle = nullptr;
}

color_LUT_set::color_LUT_set(int32_t bit_depth, bool avx2_tier)
    : blue(LUT_entry_count(bit_depth), avx2_tier ? 1 : 0),
      green(LUT_entry_count(bit_depth), avx2_tier ? 1 : 0),
      red(LUT_entry_count(bit_depth), avx2_tier ? 1 : 0) {
    const uint64_t byte_count = LUT_byte_count(bit_depth);
    clear_table(blue, byte_count);
    clear_table(green, byte_count);
    clear_table(red, byte_count);
}

color_correction::color_correction(int32_t input_LUT_bit_depth, int32_t output_LUT_bit_depth,
                                   int32_t tier_value)
    : input_LUTs(after_matrix_reset(matrix, input_LUT_bit_depth), tier_value == TIER_AVX2),
      output_LUTs(output_LUT_bit_depth, tier_value == TIER_AVX2),
      output_LUT_size(LUT_entry_count(output_LUT_bit_depth)),
      tier(tier_value),
      sse_backend(SSE_BACKEND_NAMES),
      avx2_backend(AVX2_BACKEND_NAMES),
      avx512_backend(AVX512_BACKEND_NAMES) {}

void reset_matrix(float (&matrix)[9]) {
    std::memset(matrix, 0, sizeof matrix);
    for (std::size_t i = 0; i < 9; i += 4) {
        matrix[i] = 1.0f;
    }
}

void append_matrix(float (&stored)[9], const float* given) {
    float product[9] = {};
    for (int i = 0; i < 3; ++i) {
        for (int j = 0; j < 3; ++j) {
            // One rounding per product and per sum, in this order; the build never contracts
            // them into a fused multiply-add.
            float& element = product[3 * i + j];
            element = stored[3 * i + 0] * given[j] + element;
            element = stored[3 * i + 1] * given[3 + j] + element;
            element = stored[3 * i + 2] * given[6 + j] + element;
        }
    }
    std::memcpy(stored, product, sizeof product);
}

template <output_width width>
int32_t color_correction::transform(transform_request* request) const {
    // The checks run in this order and the first that holds decides; the statuses do not rise
    // with it. Clamp rows read the object's flags: the request's are not filled yet.
    const auto bad_clamp = [this](uint16_t minimum, uint16_t maximum, const color_LUT& lut) {
        return clamp_refused(minimum, maximum, lut.enabled, output_LUT_size);
    };
    KV_REFUSE_IF(request->input_buffer == nullptr, STATUS_NULL_INPUT_BUFFER,
                 "The specified input buffer is NULL!");
    KV_REFUSE_IF(request->output_buffer == nullptr, STATUS_NULL_OUTPUT_BUFFER,
                 "The specified output buffer is NULL!");
    KV_REFUSE_IF(static_cast<const void*>(request->input_buffer) == request->output_buffer,
                 STATUS_SAME_BUFFER, "Different input and output buffer must be specified.");
    KV_REFUSE_IF(format_refused(request->input_format), STATUS_INVALID_INPUT_FORMAT,
                 "Invalid input buffer format specified!");
    KV_REFUSE_IF(shift_out_of_range(request->blue_shift_distance), STATUS_INVALID_SHIFT,
                 "Invalid blue shift distance specified!");
    KV_REFUSE_IF(shift_out_of_range(request->green_shift_distance), STATUS_INVALID_SHIFT,
                 "Invalid green shift distance specified!");
    KV_REFUSE_IF(shift_out_of_range(request->red_shift_distance), STATUS_INVALID_SHIFT,
                 "Invalid red shift distance specified!");
    KV_REFUSE_IF(bad_clamp(request->blue_output_min, request->blue_output_max, output_LUTs.blue),
                 STATUS_INVALID_CLAMP,
                 "a max value less than the min was specified for the blue channel or max clamp "
                 "value exceeds enabled output LUT size!");
    KV_REFUSE_IF(bad_clamp(request->green_output_min, request->green_output_max, output_LUTs.green),
                 STATUS_INVALID_CLAMP,
                 "a max value less than the min was specified for the green channel or max clamp "
                 "value exceeds enabled output LUT size!");
    KV_REFUSE_IF(bad_clamp(request->red_output_min, request->red_output_max, output_LUTs.red),
                 STATUS_INVALID_CLAMP,
                 "a max value less than the min was specified for the red channel or max clamp "
                 "value exceeds enabled output LUT size!");
    KV_REFUSE_IF(format_refused(request->output_format), STATUS_INVALID_OUTPUT_FORMAT,
                 "Invalid output buffer format specified!");

    // Addresses are fetched anew on every call and for disabled LUTs too, so a back-end always
    // gets a complete record and a host's table writes are seen at the next frame.
    fill_LUT(input_LUTs.blue, &request->blue_input_LUT, &request->blue_input_LUT_enabled);
    fill_LUT(input_LUTs.green, &request->green_input_LUT, &request->green_input_LUT_enabled);
    fill_LUT(input_LUTs.red, &request->red_input_LUT, &request->red_input_LUT_enabled);
    fill_LUT(output_LUTs.blue, &request->blue_output_LUT, &request->blue_output_LUT_enabled);
    fill_LUT(output_LUTs.green, &request->green_output_LUT, &request->green_output_LUT_enabled);
    fill_LUT(output_LUTs.red, &request->red_output_LUT, &request->red_output_LUT_enabled);
    request->processor = this;

    // The back-end's count is taken as it comes: the scalar kernels finish from there.
    int32_t start_index = 0;
    if (const vector_backend* backend = routed_backend(*this)) {
        start_index = (backend->*width_path<width>::backend_function)(request);
    }
    width_path<width>::scalar(request, start_index);
    return STATUS_SUCCESS;
}

#undef KV_REFUSE_IF

template int32_t color_correction::transform<output_width::bits_8>(
    transform_request* request) const;
template int32_t color_correction::transform<output_width::bits_16>(
    transform_request* request) const;

}  // namespace kv
