// Helpers shared by the library's tests.
#include "tests/suite/test_support.h"

#include <algorithm>
#include <cstring>

#include "tests/common/reference_model.h"

namespace kv_test {

std::vector<event> journal() {
    std::vector<event> result;
    kv_journal_entry entry;
    for (size_t i = 0; kv_journal_entry_at(i, &entry); ++i) {
        event e{entry.module, entry.event, {}, {}};
        std::copy(entry.values, entry.values + 4, e.values);
        std::copy(entry.texts, entry.texts + KV_JOURNAL_TEXTS, e.texts);
        result.push_back(e);
    }
    return result;
}

std::vector<event> events(const char* module, const char* name) {
    std::vector<event> result;
    for (event& e : journal()) {
        if ((module == nullptr || e.module == module) && (name == nullptr || e.name == name)) {
            result.push_back(e);
        }
    }
    return result;
}

std::vector<std::string> sequence(const std::vector<std::string>& modules) {
    std::vector<std::string> result;
    for (const event& e : journal()) {
        if (std::find(modules.begin(), modules.end(), e.module) != modules.end()) {
            result.push_back(e.module + "." + e.name);
        }
    }
    return result;
}

std::vector<event> log_lines() {
    return events("logger", "qor_log");
}

void expect_own_line(std::map<std::string, int64_t>& lines, const std::string& key, int64_t line) {
    EXPECT_GT(line, 0) << key;
    const auto [at, added] = lines.emplace(key, line);
    EXPECT_EQ(at->second, line) << key << " logged from two lines";
    for (const auto& [other, other_line] : lines) {
        EXPECT_TRUE(other == key || other_line != line)
            << key << " and " << other << " share line " << line;
    }
}

int output_width_of(transform_export e) {
    return e == transform_export::to_24 || e == transform_export::to_32 ? 8 : 16;
}

int elements_per_pixel(transform_export e) {
    return e == transform_export::to_32 || e == transform_export::to_64 ? 4 : 3;
}

namespace {

const char* const names[] = {"kv_color_transform_48_to_24", "kv_color_transform_48_to_32",
                             "kv_color_transform_48_to_48", "kv_color_transform_48_to_64"};

// The four exports differ only in the output element type.
template <typename element>
int32_t call(kv_status (*transform)(kv_color_processor_handle, const uint16_t*, kv_pixel_format,
                                    uint16_t, uint16_t, uint16_t, uint16_t, uint16_t, uint16_t,
                                    int32_t, int32_t, int32_t, element*, kv_pixel_format, int32_t),
             const frame_arguments& a) {
    return transform(a.handle, a.input, a.input_format, a.minimum[0], a.maximum[0], a.minimum[1],
                     a.maximum[1], a.minimum[2], a.maximum[2], a.shift[0], a.shift[1], a.shift[2],
                     static_cast<element*>(a.output), a.output_format, a.pixel_count);
}

}  // namespace

std::string timer_label_of(transform_export e) {
    return std::string("color processing transform 48 to ") + (name_of(e) + 25);
}

const char* name_of(transform_export e) {
    return names[static_cast<int>(e)];
}

const LUT_getter LUT_getters[6] = {
    {"kv_color_get_blue_input_LUT", kv_color_get_blue_input_LUT},
    {"kv_color_get_green_input_LUT", kv_color_get_green_input_LUT},
    {"kv_color_get_red_input_LUT", kv_color_get_red_input_LUT},
    {"kv_color_get_blue_output_LUT", kv_color_get_blue_output_LUT},
    {"kv_color_get_green_output_LUT", kv_color_get_green_output_LUT},
    {"kv_color_get_red_output_LUT", kv_color_get_red_output_LUT},
};

int32_t run_transform(transform_export e, const frame_arguments& a) {
    switch (e) {
        case transform_export::to_24:
            return call(kv_color_transform_48_to_24, a);
        case transform_export::to_32:
            return call(kv_color_transform_48_to_32, a);
        case transform_export::to_48:
            return call(kv_color_transform_48_to_48, a);
        default:
            return call(kv_color_transform_48_to_64, a);
    }
}

frame_buffers::frame_buffers(transform_export e, int32_t pixel_count, uint32_t seed)
    : in(6 * static_cast<size_t>(std::max(pixel_count, 0)), seed),
      out(kv::testing::output_bytes(output_width_of(e), elements_per_pixel(e) == 4, pixel_count),
          seed + 1),
      pixel_count(pixel_count) {}

frame_arguments frame_buffers::arguments(kv_color_processor_handle handle) {
    frame_arguments a;
    a.handle = handle;
    a.input = input();
    a.output = output();
    a.pixel_count = pixel_count;
    return a;
}

std::vector<uint8_t> expected_output(transform_export e, const frame_arguments& a,
                                     const uint8_t input_enabled[3],
                                     const uint8_t output_enabled[3],
                                     const std::vector<uint8_t>& before, int32_t start_index) {
    kv::testing::frame_settings s;
    s.width = output_width_of(e);
    s.input_format = a.input_format;
    s.output_format = a.output_format;
    s.fourth_channel = elements_per_pixel(e) == 4;
    for (int c = 0; c < 3; ++c) {
        s.input_LUT[c] = input_enabled[c] ? LUT_getters[c].get(a.handle) : nullptr;
        s.output_LUT[c] = output_enabled[c] ? LUT_getters[3 + c].get(a.handle) : nullptr;
        s.minimum[c] = a.minimum[c];
        s.maximum[c] = a.maximum[c];
        s.shift_distance[c] = a.shift[c];
    }
    std::vector<uint8_t> result = before;
    // The handle points at the processor, whose first member is the matrix.
    const kv::transform_request r =
        kv::testing::make_request(s, a.input, a.pixel_count, result.data(),
                                  reinterpret_cast<const kv::color_correction_head*>(a.handle));
    kv::reference::run_request(r, output_width_of(e), start_index);
    return result;
}

}  // namespace kv_test
