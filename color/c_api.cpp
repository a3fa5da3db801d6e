// The C ABI of the colour layer: each function runs its C++ body under one guard that turns a
// color_error into its status and the thread's message.
#include <cstring>
#include <new>
#include <string>

#include "color/color_error.h"
#include "color/file_input.h"
#include "color/icc_profile.h"
#include "color/process_list.h"
#include "color/processor_setup.h"
#include "color/rgb_space.h"
#include "kelvane_qor_color.h"

struct kv_color_space {
    kv_color::rgb_space space;
};

struct kv_color_conversion {
    kv_color::processor_setup setup;
};

namespace {

using kv_color::color_error;
using kv_color::status;

std::string& thread_message() {
    thread_local std::string message;
    return message;
}

template <class Body>
kv_color_layer_status guarded(Body&& body) noexcept {
    try {
        try {
            body();
            thread_message().clear();
            return KV_COLOR_LAYER_OK;
        } catch (const color_error& e) {
            thread_message() = e.what();
            return kv_color_layer_status(e.code());
        } catch (const std::bad_alloc&) {
            thread_message() = "out of memory";
            return KV_COLOR_LAYER_OUT_OF_MEMORY;
        } catch (const std::exception& e) {
            thread_message() = std::string("internal error: ") + e.what();
            return KV_COLOR_LAYER_INTERNAL;
        }
    } catch (...) {  // the message itself could not be stored
        return KV_COLOR_LAYER_OUT_OF_MEMORY;
    }
}

template <class T>
T& required(T* pointer, const char* what) {
    if (pointer == nullptr) {
        throw color_error(status::invalid_argument, std::string(what) + " is NULL");
    }
    return *pointer;
}

std::string label_or(const char* label, const char* fallback) {
    return kv_color::escaped(label != nullptr ? label : fallback);
}

const kv_color::processor_setup& setup_of(const kv_color_conversion* c) {
    return required(c, "the conversion").setup;
}

}  // namespace

extern "C" {

const char* kv_color_layer_message(void) {
    return thread_message().c_str();
}

const char* kv_color_layer_status_name(kv_color_layer_status s) {
    static const char* const names[] = {"KV_COLOR_LAYER_OK",
                                        "KV_COLOR_LAYER_INVALID_ARGUMENT",
                                        "KV_COLOR_LAYER_UNREADABLE_FILE",
                                        "KV_COLOR_LAYER_PROFILE_REFUSED",
                                        "KV_COLOR_LAYER_PROCESS_LIST_REFUSED",
                                        "KV_COLOR_LAYER_LIBRARY_FAILED",
                                        "KV_COLOR_LAYER_OUT_OF_MEMORY",
                                        "KV_COLOR_LAYER_INTERNAL"};
    return s >= 0 && s < 8 ? names[s] : nullptr;
}

const char* kv_color_space_name(int32_t index) {
    static const std::vector<std::string> names = kv_color::named_space_names();
    return index >= 0 && size_t(index) < names.size() ? names[size_t(index)].c_str() : nullptr;
}

kv_color_layer_status kv_color_space_named(const char* name, kv_color_space** space) {
    return guarded([&] {
        const char* n = &required(name, "the space name");
        kv_color_space** out = &required(space, "the space pointer");
        *out = new kv_color_space{kv_color::named_space(n)};
    });
}

kv_color_layer_status kv_color_space_from_icc(const void* bytes, size_t size, const char* label,
                                              kv_color_space** space) {
    return guarded([&] {
        kv_color_space** out = &required(space, "the space pointer");
        if (bytes == nullptr && size != 0)
            required(static_cast<const char*>(bytes), "the profile bytes");
        *out = new kv_color_space{kv_color::read_icc_profile(static_cast<const uint8_t*>(bytes),
                                                             size, label_or(label, "profile"))};
    });
}

kv_color_layer_status kv_color_space_from_icc_file(const char* path, kv_color_space** space) {
    return guarded([&] {
        const std::string p = &required(path, "the profile path");
        kv_color_space** out = &required(space, "the space pointer");
        const std::vector<uint8_t> bytes =
            kv_color::read_file(p, kv_color::max_profile_bytes, "ICC profile");
        *out = new kv_color_space{kv_color::read_icc_profile(
            bytes.data(), bytes.size(), "profile " + kv_color::escaped(kv_color::base_name(p)))};
    });
}

kv_color_layer_status kv_color_space_icc(const kv_color_space* space, void* buffer, size_t capacity,
                                         size_t* size) {
    return guarded([&] {
        const std::vector<uint8_t> bytes = kv_color::icc_bytes(required(space, "the space").space);
        required(size, "the size pointer") = bytes.size();
        if (capacity >= bytes.size()) {
            std::memcpy(&required(static_cast<uint8_t*>(buffer), "the buffer"), bytes.data(),
                        bytes.size());
        }
    });
}

const char* kv_color_space_label(const kv_color_space* space) {
    return space != nullptr ? space->space.label.c_str() : "";
}

void kv_color_space_destroy(kv_color_space* space) {
    delete space;
}

kv_color_layer_status kv_color_conversion_between(const kv_color_space* source,
                                                  const kv_color_space* destination,
                                                  int32_t output_bits,
                                                  kv_color_conversion** conversion) {
    return guarded([&] {
        const kv_color::rgb_space& s = required(source, "the source").space;
        const kv_color::rgb_space& d = required(destination, "the destination").space;
        kv_color_conversion** out = &required(conversion, "the conversion pointer");
        *out = new kv_color_conversion{kv_color::setup_between(s, d, output_bits)};
    });
}

kv_color_layer_status kv_color_conversion_from_clf(const void* text, size_t size, const char* label,
                                                   int32_t output_bits,
                                                   kv_color_conversion** conversion) {
    return guarded([&] {
        kv_color_conversion** out = &required(conversion, "the conversion pointer");
        if (text == nullptr && size != 0)
            required(static_cast<const char*>(text), "the process list text");
        const std::string xml(static_cast<const char*>(text), size);
        *out = new kv_color_conversion{
            kv_color::setup_from_process_list(xml, label_or(label, "process list"), output_bits)};
    });
}

kv_color_layer_status kv_color_conversion_from_clf_file(const char* path, int32_t output_bits,
                                                        kv_color_conversion** conversion) {
    return guarded([&] {
        const std::string p = &required(path, "the process list path");
        kv_color_conversion** out = &required(conversion, "the conversion pointer");
        const std::vector<uint8_t> bytes =
            kv_color::read_file(p, kv_color::max_process_list_bytes, "process list");
        const std::string xml(bytes.begin(), bytes.end());
        *out = new kv_color_conversion{kv_color::setup_from_process_list(
            xml, kv_color::escaped(kv_color::base_name(p)), output_bits)};
    });
}

void kv_color_conversion_destroy(kv_color_conversion* conversion) {
    delete conversion;
}

kv_color_layer_status kv_color_conversion_create_processor(const kv_color_conversion* conversion,
                                                           kv_color_processor_handle* processor) {
    return guarded([&] {
        const kv_color::processor_setup& s = setup_of(conversion);
        kv_color_processor_handle* out = &required(processor, "the processor pointer");
        kv_color_processor_handle p =
            kv_color_create_color_processor(kv_color::table_bits, kv_color::table_bits);
        if (p == nullptr) {
            throw color_error(status::library_failed,
                              "kv_color_create_color_processor returned NULL (is the module "
                              "initialised? the library's log says why)");
        }
        try {
            kv_color::apply(s, p);
        } catch (...) {
            kv_color_destroy_color_processor(p);
            throw;
        }
        *out = p;
    });
}

kv_color_layer_status kv_color_conversion_configure(const kv_color_conversion* conversion,
                                                    kv_color_processor_handle processor,
                                                    int32_t input_LUT_bits,
                                                    int32_t output_LUT_bits) {
    return guarded([&] {
        const kv_color::processor_setup& s = setup_of(conversion);
        if (input_LUT_bits != kv_color::table_bits || output_LUT_bits != kv_color::table_bits) {
            throw color_error(status::invalid_argument,
                              "a processor with LUT depths " + std::to_string(input_LUT_bits) +
                                  " and " + std::to_string(output_LUT_bits) +
                                  " bits: the conversion needs 16 and 16");
        }
        kv_color::apply(s, &required(processor, "the processor"));
    });
}

kv_color_layer_status kv_color_conversion_frame_settings(const kv_color_conversion* conversion,
                                                         kv_color_frame_settings* settings) {
    return guarded([&] {
        const kv_color::processor_setup& s = setup_of(conversion);
        kv_color_frame_settings& f = required(settings, "the settings pointer");
        f = {s.minimum[0], s.maximum[0], s.shift[0],   s.minimum[1], s.maximum[1],
             s.shift[1],   s.minimum[2], s.maximum[2], s.shift[2]};
    });
}

int32_t kv_color_conversion_output_bits(const kv_color_conversion* conversion) {
    return conversion != nullptr ? conversion->setup.output_bits : 0;
}

const char* kv_color_conversion_description(const kv_color_conversion* conversion) {
    return conversion != nullptr ? conversion->setup.description.c_str() : "";
}

kv_color_layer_status kv_color_conversion_matrix(const kv_color_conversion* conversion,
                                                 float* matrix) {
    return guarded([&] {
        const kv_color::processor_setup& s = setup_of(conversion);
        std::memcpy(&required(matrix, "the matrix pointer"), s.matrix.data(), sizeof s.matrix);
    });
}

kv_color_layer_status kv_color_conversion_LUT(const kv_color_conversion* conversion,
                                              int32_t output_side, int32_t channel,
                                              uint32_t* entries, size_t count, int32_t* enabled) {
    return guarded([&] {
        const kv_color::processor_setup& s = setup_of(conversion);
        if ((output_side != 0 && output_side != 1) || channel < 0 || channel > 2) {
            throw color_error(status::invalid_argument, "LUT side " + std::to_string(output_side) +
                                                            " channel " + std::to_string(channel) +
                                                            ": sides are 0 and 1, channels 0 to 2");
        }
        const auto& table = (output_side == 1 ? s.output : s.input)[size_t(channel)];
        int32_t& on = required(enabled, "the enabled pointer");
        if (!table.empty()) {
            if (count < table.size()) {
                throw color_error(status::invalid_argument, "room for " + std::to_string(count) +
                                                                " entries, a LUT has " +
                                                                std::to_string(table.size()));
            }
            std::memcpy(&required(entries, "the entries pointer"), table.data(),
                        table.size() * sizeof(uint32_t));
        }
        on = table.empty() ? 0 : 1;
    });
}

}  // extern "C"
