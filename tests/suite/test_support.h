// Shared helpers of the library's tests: the journal of the fake modules as plain values, a
// fixture that leaves the module down between tests, frames with guard bytes, and the four
// transform exports behind one call.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "kelvane_qor_color_processing.h"
#include "kernels/transform_request.h"
#include "tests/common/failing_allocator.h"
#include "tests/common/frames.h"
#include "tests/fakes/journal.h"

namespace kv_test {

struct event {
    std::string module;
    std::string name;
    int64_t values[4];
    std::string texts[KV_JOURNAL_TEXTS];
};

std::vector<event> journal();
// The events of one module (any module for NULL) and name (any name for NULL), in order.
std::vector<event> events(const char* module, const char* name = nullptr);
// "module.name" for every event of the given modules, in order.
std::vector<std::string> sequence(const std::vector<std::string>& modules);
// The messages that reached qor_log.
std::vector<event> log_lines();

// Log lines name their call site: the same refusal always reports the same line, and different
// refusals different lines. `key` -> line seen so far; fails when a key moves or two keys share a
// line.
void expect_own_line(std::map<std::string, int64_t>& lines, const std::string& key, int64_t line);

using kv::testing::fail_allocation;
using kv::testing::stop_failing_allocations;

// Starts every test with the module down and an empty journal, and brings the module down again
// after it, however the test left it.
class library_test : public ::testing::Test {
  protected:
    void SetUp() override;
    void TearDown() override;
};

// The same with the module initialised, the LUT module complete.
class initialized_test : public library_test {
  protected:
    void SetUp() override;
};

enum class transform_export { to_24, to_32, to_48, to_64 };

constexpr transform_export all_exports[] = {transform_export::to_24, transform_export::to_32,
                                            transform_export::to_48, transform_export::to_64};

int output_width_of(transform_export e);  // 8 or 16
int elements_per_pixel(transform_export e);
std::string timer_label_of(transform_export e);  // its timing line's label
const char* name_of(transform_export e);

// The six table getters, blue, green, red input, then blue, green, red output.
struct LUT_getter {
    const char* name;
    uint32_t* (*get)(kv_color_processor_handle);
};
extern const LUT_getter LUT_getters[6];

// The processor behind a handle (programs that link the library's objects only).
kv::color_correction* object_of(kv_color_processor_handle handle);

// Runs a frame of each output width through `p` (journal reset): only the back-end `isa` (none
// for NULL) is asked. Programs that link the library's objects only.
void expect_route(kv_color_processor_handle p, const char* isa);

// The fifteen arguments of a transform, blue, green, red in the arrays.
struct frame_arguments {
    kv_color_processor_handle handle = nullptr;
    const uint16_t* input = nullptr;
    int32_t input_format = KV_FORMAT_BGR_INTERLEAVED;
    uint16_t minimum[3] = {0, 0, 0};
    uint16_t maximum[3] = {65535, 65535, 65535};
    int32_t shift[3] = {0, 0, 0};
    void* output = nullptr;
    int32_t output_format = KV_FORMAT_BGR_INTERLEAVED;
    int32_t pixel_count = 0;
};

int32_t run_transform(transform_export e, const frame_arguments& a);

// Noise input pixels and a noise-filled output buffer for one export, each against a fence page
// (tests/common/frames.h).
struct frame_buffers {
    frame_buffers(transform_export e, int32_t pixel_count, uint32_t seed);

    uint16_t* input() { return reinterpret_cast<uint16_t*>(in.data()); }
    void* output() { return out.data(); }
    std::vector<uint8_t> input_copy() const { return in.copy(); }
    std::vector<uint8_t> output_copy() const { return out.copy(); }
    bool guards_intact() const { return in.guards_intact() && out.guards_intact(); }
    // A valid frame over these buffers for `handle`, every other argument at its default.
    frame_arguments arguments(kv_color_processor_handle handle);

    kv::testing::guarded_buffer in, out;
    int32_t pixel_count;
};

// What the pipeline stores for pixels start_index.. of `a`, written into a copy of `before`.
std::vector<uint8_t> expected_output(transform_export e, const frame_arguments& a,
                                     const uint8_t input_enabled[3],
                                     const uint8_t output_enabled[3],
                                     const std::vector<uint8_t>& before, int32_t start_index);

}  // namespace kv_test
