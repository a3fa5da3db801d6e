// What a conversion puts into one processor: the matrix, six 65,536-entry tables (an empty table
// leaves its LUT off), and the frame's clamps and shifts. Built in double, rounded once.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "color/matrix3.h"
#include "color/rgb_space.h"
#include "kelvane_qor_color_processing.h"

namespace kv_color {

// Every table of a setup has this many entries: processors are made with 16-bit LUT depths.
constexpr uint32_t table_entries = 65536;
constexpr int table_bits = 16;

struct processor_setup {
    int output_bits = 16;                        // 8 or 16: the element the tables produce
    std::array<float, 9> matrix{};               // by rows, red, green, blue
    std::array<std::vector<uint32_t>, 3> input;  // blue, green, red; empty: LUT off
    std::array<std::vector<uint32_t>, 3> output;
    std::array<uint16_t, 3> minimum{0, 0, 0};  // blue, green, red
    std::array<uint16_t, 3> maximum{65535, 65535, 65535};
    std::array<int32_t, 3> shift{0, 0, 0};
    std::string description;
};

// Throws color_error (invalid_argument) unless bits is 8 or 16.
void check_output_bits(int bits);

// A table of 65,536 entries: entry i = round(f(i / 65535) x top), f clamped to [0, 1]. Entries
// that equal their index at top 65535 leave an identity table, which the caller may drop.
std::vector<uint32_t> make_table(const std::function<double(double)>& f, uint32_t top);
bool is_identity(const std::vector<uint32_t>& table);

// The float matrix of a double one: each element rounded once.
std::array<float, 9> to_float(const mat3& m);

// Source to destination: input tables from the source curves, the matrix from the two spaces
// (Bradford between different whites), output tables from the inverse destination curves.
processor_setup setup_between(const rgb_space& source, const rgb_space& destination,
                              int output_bits);

// Writes the setup into a processor made with 16-bit input and output LUT depths. Throws
// color_error (library_failed) when the library refuses a call.
void apply(const processor_setup& setup, kv_color_processor_handle processor);

}  // namespace kv_color
