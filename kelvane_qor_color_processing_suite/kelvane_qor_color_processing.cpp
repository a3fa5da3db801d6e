// The nineteen exports, the module-wide state and lifecycle, and the creation routine.
#include "kelvane_qor_color_processing.h"

#include <new>

#include "kelvane_qor_color_processing_suite/color_correction.h"
#include "kelvane_qor_color_processing_suite/module_state.h"
#include "kelvane_qor_color_processing_suite/status_codes.h"
#include "kelvane_qor_color_processing_suite/tier_selection.h"
#include "platform/counter.h"
#include "platform/module_hooks.h"
#include "services/LUT_library.h"
#include "services/logger_adapter.h"

namespace kv {

logger_adapter* module_logger = nullptr;
int32_t module_reference_count = 0;

namespace {

constexpr const char* MODULE_ID = "KELVANE_QOR_COLOR_PROCESSING";

// The mutex is built by the load hook and destroyed by the at-exit function, so its life is the
// module's own and not tied to the order of static destructors.
alignas(std::mutex) unsigned char module_mutex_storage[sizeof(std::mutex)];

color_correction* object_of(kv_color_processor_handle handle) {
    return reinterpret_cast<color_correction*>(handle);
}

// The checks every handle-taking export makes first: the marker, then the handle. Returns 0 when
// the export may go on, otherwise the status it returns. `line` is the export's own.
int32_t prologue(kv_color_processor_handle handle, const char* function_label, int32_t line) {
    logger_adapter* logger = module_logger;
    if (logger == nullptr) {
        return STATUS_MODULE_NOT_INITIALIZED;  // nobody to log to
    }
    if (handle == nullptr) {
        logger->log_message(LOG_LEVEL_ERROR, platform::source_base_name(__FILE__), line,
                            function_label, "%s The specified color processor handle is NULL!",
                            ERROR_PREFIX);
        return STATUS_NULL_HANDLE;
    }
    return STATUS_SUCCESS;
}

constexpr const char* CREATE_LABEL = "`anonymous-namespace'::create_color_processor_impl";
constexpr const char* TRANSFORM_IMPL_LABEL =
    "`anonymous-namespace'::kv_color_processor_transform_impl";

color_correction* create_color_processor_impl(int32_t input_LUT_bit_depth,
                                              int32_t output_LUT_bit_depth, int32_t tier) {
    if (module_logger == nullptr) {
        return nullptr;
    }
    // Both depths are checked for sign before either is checked for size.
    if (input_LUT_bit_depth < 0 || output_LUT_bit_depth < 0) {
        KV_LOG(module_logger, LOG_LEVEL_ERROR, CREATE_LABEL, "%s A negative bit depth is invalid!",
               ERROR_PREFIX);
        return nullptr;
    }
    if (input_LUT_bit_depth > 16 || output_LUT_bit_depth > 16) {
        KV_LOG(module_logger, LOG_LEVEL_ERROR, CREATE_LABEL,
               "%s A LUT size greater than 2^16 is invalid!", ERROR_PREFIX);
        return nullptr;
    }
    // A stage that throws has the stages before it undone, last first, and the memory released.
    // Processor faults (a call through an empty LUT table) are not exceptions and are not caught.
    try {
        return new color_correction(input_LUT_bit_depth, output_LUT_bit_depth, tier);
    } catch (const std::bad_alloc&) {
        KV_LOG(module_logger, LOG_LEVEL_ERROR, CREATE_LABEL,
               "Memory allocation failure when trying to create a color correction instance!");
    } catch (...) {
        KV_LOG(module_logger, LOG_LEVEL_ERROR, CREATE_LABEL,
               "An unknown error occurred when trying to create a color correction instance!");
    }
    return nullptr;
}

// Times one transform call and logs the figure when it closes, whatever status the call had.
// The file is the whole source path here, unlike every other log call.
struct scope_timer {
    const char* label;
    const logger_adapter* logger;
    const char* file;
    int32_t line;
    const char* function;
    int64_t start_count = 0;
    int64_t stop_count = 0;
    int64_t frequency = 0;

    scope_timer(const char* timer_label, const logger_adapter* timer_logger, const char* path,
                int32_t source_line, const char* function_label)
        : label(timer_label),
          logger(timer_logger),
          file(path),
          line(source_line),
          function(function_label) {
        if (platform::query_counter_frequency(&frequency)) {
            platform::query_counter(&start_count);
        }
    }

    // Must not throw: an exception while logging here ends the process.
    ~scope_timer() {
        if (!platform::query_counter(&stop_count)) {
            return;
        }
        const double elapsed = static_cast<double>(stop_count - start_count) /
                               static_cast<double>(frequency) * 1000000.0;
        if (logger != nullptr) {
            logger->log_message(LOG_LEVEL_TRACE, file, line, function, "%s takes %f microseconds.",
                                label, elapsed);
        }
    }

    scope_timer(const scope_timer&) = delete;
    scope_timer& operator=(const scope_timer&) = delete;
};

// The shared body of the four transform exports; they differ in the label, the fourth element
// and the output width only.
template <output_width width, typename output_element>
int32_t kv_color_processor_transform_impl(const char* label, uint8_t fourth_channel,
                                          kv_color_processor_handle handle,
                                          const uint16_t* input_buffer, int32_t input_format,
                                          uint16_t blue_output_min, uint16_t blue_output_max,
                                          uint16_t green_output_min, uint16_t green_output_max,
                                          uint16_t red_output_min, uint16_t red_output_max,
                                          int32_t blue_shift_distance, int32_t green_shift_distance,
                                          int32_t red_shift_distance, output_element* output_buffer,
                                          int32_t output_format, int32_t pixel_count) {
    if (const int32_t status = prologue(handle, TRANSFORM_IMPL_LABEL, __LINE__)) {
        return status;  // no timer yet, so no timing line
    }
    const scope_timer timer(label, module_logger, __FILE__, __LINE__, TRANSFORM_IMPL_LABEL);

    // The record lives on this stack for this call only. Its reserved bytes are left as they are.
    transform_request request;
    request.input_buffer = input_buffer;
    request.input_format = static_cast<pixel_format>(input_format);
    request.blue_input_LUT = nullptr;
    request.blue_input_LUT_enabled = 0;
    request.green_input_LUT = nullptr;
    request.green_input_LUT_enabled = 0;
    request.red_input_LUT = nullptr;
    request.red_input_LUT_enabled = 0;
    request.processor = nullptr;
    request.blue_output_min = blue_output_min;
    request.blue_output_max = blue_output_max;
    request.green_output_min = green_output_min;
    request.green_output_max = green_output_max;
    request.red_output_min = red_output_min;
    request.red_output_max = red_output_max;
    request.blue_output_LUT = nullptr;
    request.blue_output_LUT_enabled = 0;
    request.green_output_LUT = nullptr;
    request.green_output_LUT_enabled = 0;
    request.red_output_LUT = nullptr;
    request.red_output_LUT_enabled = 0;
    request.blue_shift_distance = blue_shift_distance;
    request.green_shift_distance = green_shift_distance;
    request.red_shift_distance = red_shift_distance;
    request.output_buffer = output_buffer;
    request.output_format = static_cast<pixel_format>(output_format);
    request.fourth_channel = fourth_channel;
    request.pixel_count = pixel_count;

    return object_of(handle)->transform<width>(&request);
}

uint32_t* LUT_data(kv_color_processor_handle handle, const char* function_label, int32_t line,
                   color_LUT_set color_correction::*set, color_LUT color_LUT_set::*lut) {
    if (prologue(handle, function_label, line) != STATUS_SUCCESS) {
        return nullptr;
    }
    return LUT_library.get_data((object_of(handle)->*set.*lut).handle);
}

int32_t enable_LUTs(kv_color_processor_handle handle, const char* function_label, int32_t line,
                    color_LUT_set color_correction::*set, int32_t blue, int32_t green,
                    int32_t red) {
    if (const int32_t status = prologue(handle, function_label, line)) {
        return status;
    }
    color_LUT_set& LUTs = object_of(handle)->*set;
    LUTs.blue.enabled = blue != 0 ? 1 : 0;
    LUTs.green.enabled = green != 0 ? 1 : 0;
    LUTs.red.enabled = red != 0 ? 1 : 0;
    return STATUS_SUCCESS;
}

}  // namespace

std::mutex& module_mutex() {
    return *std::launder(reinterpret_cast<std::mutex*>(module_mutex_storage));
}

void on_module_load() {
    new (module_mutex_storage) std::mutex();
    platform::register_at_exit(&module_at_exit);
}

void module_at_exit() {
    module_mutex().~mutex();
    // A host that never terminated still gets its log closed. The marker is left as it is.
    if (module_logger != nullptr) {
        delete module_logger;
    }
}

}  // namespace kv

using namespace kv;

extern "C" {

KV_COLOR_API kv_status kv_color_processing_module_initialize(void) {
    // No handler here on purpose: a failed lock or an allocation failure leaves the export as an
    // exception, and the latter leaves the mutex locked.
    module_mutex().lock();
    if (module_reference_count == 0 && module_logger == nullptr) {
        module_logger = new logger_adapter(MODULE_ID);
    }
    ++module_reference_count;
    module_mutex().unlock();
    // Outside the lock and on every call: each initialise loads the LUT module once more.
    return load_LUT_library() ? STATUS_SUCCESS : STATUS_MODULE_NOT_INITIALIZED;
}

KV_COLOR_API kv_status kv_color_processing_module_terminate(void) {
    // The LUT table is emptied on every call, whatever the count says.
    unload_LUT_library();
    module_mutex().lock();
    if (module_reference_count != 0) {
        --module_reference_count;
        if (module_reference_count == 0 && module_logger != nullptr) {
            logger_adapter* logger = module_logger;
            module_logger = nullptr;
            delete logger;
        }
    }
    module_mutex().unlock();
    return STATUS_SUCCESS;
}

KV_COLOR_API kv_color_processor_handle
kv_color_create_color_processor(int32_t input_LUT_bit_depth, int32_t output_LUT_bit_depth) {
    KV_LOG(module_logger, LOG_LEVEL_TRACE, "kv_color_create_color_processor",
           "Creating a color processor instance!");
    const int32_t tier = select_processor_tier();
    return reinterpret_cast<kv_color_processor_handle>(
        create_color_processor_impl(input_LUT_bit_depth, output_LUT_bit_depth, tier));
}

KV_COLOR_API kv_color_processor_handle kv_color_create_color_processor_test(
    int32_t input_LUT_bit_depth, int32_t output_LUT_bit_depth, kv_processor_tier tier) {
    return reinterpret_cast<kv_color_processor_handle>(
        create_color_processor_impl(input_LUT_bit_depth, output_LUT_bit_depth, tier));
}

KV_COLOR_API kv_status kv_color_destroy_color_processor(kv_color_processor_handle processor) {
    if (const int32_t status = prologue(processor, "kv_color_destroy_color_processor", __LINE__)) {
        return status;
    }
    delete object_of(processor);
    return STATUS_SUCCESS;
}

KV_COLOR_API kv_status kv_color_append_matrix(kv_color_processor_handle processor,
                                              const float* matrix) {
    if (const int32_t status = prologue(processor, "kv_color_append_matrix", __LINE__)) {
        return status;
    }
    append_matrix(object_of(processor)->matrix, matrix);
    return STATUS_SUCCESS;
}

KV_COLOR_API kv_status kv_color_clear_matrix(kv_color_processor_handle processor) {
    if (const int32_t status = prologue(processor, "kv_color_clear_matrix", __LINE__)) {
        return status;
    }
    reset_matrix(object_of(processor)->matrix);
    return STATUS_SUCCESS;
}

KV_COLOR_API kv_status kv_color_enable_input_LUTs(kv_color_processor_handle processor, int32_t blue,
                                                  int32_t green, int32_t red) {
    return enable_LUTs(processor, "kv_color_enable_input_LUTs", __LINE__,
                       &color_correction::input_LUTs, blue, green, red);
}

KV_COLOR_API kv_status kv_color_enable_output_LUTs(kv_color_processor_handle processor,
                                                   int32_t blue, int32_t green, int32_t red) {
    return enable_LUTs(processor, "kv_color_enable_output_LUTs", __LINE__,
                       &color_correction::output_LUTs, blue, green, red);
}

KV_COLOR_API uint32_t* kv_color_get_blue_input_LUT(kv_color_processor_handle processor) {
    return LUT_data(processor, "kv_color_get_blue_input_LUT", __LINE__,
                    &color_correction::input_LUTs, &color_LUT_set::blue);
}

KV_COLOR_API uint32_t* kv_color_get_green_input_LUT(kv_color_processor_handle processor) {
    return LUT_data(processor, "kv_color_get_green_input_LUT", __LINE__,
                    &color_correction::input_LUTs, &color_LUT_set::green);
}

KV_COLOR_API uint32_t* kv_color_get_red_input_LUT(kv_color_processor_handle processor) {
    return LUT_data(processor, "kv_color_get_red_input_LUT", __LINE__,
                    &color_correction::input_LUTs, &color_LUT_set::red);
}

KV_COLOR_API uint32_t* kv_color_get_blue_output_LUT(kv_color_processor_handle processor) {
    return LUT_data(processor, "kv_color_get_blue_output_LUT", __LINE__,
                    &color_correction::output_LUTs, &color_LUT_set::blue);
}

KV_COLOR_API uint32_t* kv_color_get_green_output_LUT(kv_color_processor_handle processor) {
    return LUT_data(processor, "kv_color_get_green_output_LUT", __LINE__,
                    &color_correction::output_LUTs, &color_LUT_set::green);
}

KV_COLOR_API uint32_t* kv_color_get_red_output_LUT(kv_color_processor_handle processor) {
    return LUT_data(processor, "kv_color_get_red_output_LUT", __LINE__,
                    &color_correction::output_LUTs, &color_LUT_set::red);
}

// The four transform exports, one signature apart from the stored sample: each names its label,
// its fourth element (none or one) and its output width.
#define KV_TRANSFORM_EXPORT(name, label, fourth_channel, width, sample)                          \
    KV_COLOR_API kv_status name(                                                                 \
        kv_color_processor_handle processor, const uint16_t* input_buffer,                       \
        kv_pixel_format input_format, uint16_t blue_output_min, uint16_t blue_output_max,        \
        uint16_t green_output_min, uint16_t green_output_max, uint16_t red_output_min,           \
        uint16_t red_output_max, int32_t blue_shift_distance, int32_t green_shift_distance,      \
        int32_t red_shift_distance, sample* output_buffer, kv_pixel_format output_format,        \
        int32_t pixel_count) {                                                                   \
        return kv_color_processor_transform_impl<output_width::width>(                           \
            label, fourth_channel, processor, input_buffer, input_format, blue_output_min,       \
            blue_output_max, green_output_min, green_output_max, red_output_min, red_output_max, \
            blue_shift_distance, green_shift_distance, red_shift_distance, output_buffer,        \
            output_format, pixel_count);                                                         \
    }

KV_TRANSFORM_EXPORT(kv_color_transform_48_to_24, "color processing transform 48 to 24", 0, bits_8,
                    uint8_t)
KV_TRANSFORM_EXPORT(kv_color_transform_48_to_32, "color processing transform 48 to 32", 1, bits_8,
                    uint8_t)
KV_TRANSFORM_EXPORT(kv_color_transform_48_to_48, "color processing transform 48 to 48", 0, bits_16,
                    uint16_t)
KV_TRANSFORM_EXPORT(kv_color_transform_48_to_64, "color processing transform 48 to 64", 1, bits_16,
                    uint16_t)

#undef KV_TRANSFORM_EXPORT

}  // extern "C"
