// The nodes of a process list that map onto a processor (LUT1D, Range, Matrix), each read into a
// function on normalised values.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "color/matrix3.h"
#include "color/xml_tree.h"

namespace kv_color {

// Channel 0 red, 1 green, 2 blue; values normalised to the full scale of the bit depths.
using channel_function = std::function<double(int channel, double x)>;

struct process_node {
    std::string where;  // "<LUT1D> at line 4 (offset 120)"
    std::string in_depth, out_depth;
    bool is_matrix = false;
    mat3 matrix{};              // a Matrix, normalised
    channel_function function;  // a LUT1D or Range
    double clamp_top = 0.0;     // a Range's normalised maxInValue; 0 without one
};

// The nodes of <ProcessList>, in order. Descriptions and metadata are skipped; any other node,
// attribute value or array shape that the processor cannot hold throws color_error
// (process_list_refused) naming the element and its line.
std::vector<process_node> read_process_nodes(const xml_element& root, const std::string& label);

// The top of the Matrix result's useful range: the maxInValue of a Range right after the Matrix,
// else 1 (a LUT1D's domain, or the output's full scale).
double matrix_domain_top(const std::vector<process_node>& nodes);

}  // namespace kv_color
