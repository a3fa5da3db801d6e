// CLF and CTF process lists onto one processor. Each node becomes a function on normalised values
// (code / full scale of its bit depth); the per-channel nodes before the Matrix fill the input
// tables, those after it the output tables, and the Matrix, scaled to the tables' ranges, is
// rounded to float once.
#include "color/process_list.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

#include "color/color_error.h"
#include "color/process_list_nodes.h"
#include "color/xml_tree.h"

namespace kv_color {
namespace {

[[noreturn]] void refuse(const std::string& label, const std::string& why) {
    throw color_error(status::process_list_refused, label + ": " + why);
}

// Nodes split around the one Matrix (adjacent Matrix nodes multiplied).
struct list_shape {
    std::vector<channel_function> before, after;
    bool has_matrix = false;
    mat3 matrix{1, 0, 0, 0, 1, 0, 0, 0, 1};
};

list_shape shape_of(const std::vector<process_node>& nodes, const std::string& label) {
    list_shape s;
    for (size_t i = 0; i < nodes.size(); ++i) {
        const process_node& n = nodes[i];
        if (i > 0 && nodes[i - 1].out_depth != n.in_depth) {
            refuse(label, n.where + ": inBitDepth " + n.in_depth + " after an outBitDepth of " +
                              nodes[i - 1].out_depth);
        }
        if (!n.is_matrix) {
            (s.has_matrix ? s.after : s.before).push_back(n.function);
        } else if (s.has_matrix && !s.after.empty()) {
            refuse(label, n.where +
                              ": a second Matrix after LUT1D or Range nodes; the processor "
                              "has one matrix stage between its two table stages");
        } else {
            s.matrix = multiply(n.matrix, s.matrix);
            s.has_matrix = true;
        }
    }
    return s;
}

double run(const std::vector<channel_function>& chain, int channel, double x) {
    for (const channel_function& f : chain) x = f(channel, x);
    return x;
}

// Without a matrix the whole list is one output table over the input codes.
void fold_without_matrix(const list_shape& s, uint32_t top, processor_setup& setup) {
    for (int c = 0; c < 3; ++c) {
        setup.output[size_t(2 - c)] =
            make_table([&](double x) { return run(s.before, c, x); }, top);
    }
    setup.matrix = to_float({1, 0, 0, 0, 1, 0, 0, 0, 1});
}

// The largest value the nodes before the Matrix give a channel, which scales its input table.
double input_peak(const list_shape& s, int c, const std::string& label) {
    double peak = 0.0;
    for (uint32_t i = 0; i < table_entries; ++i) {
        const double y = run(s.before, c, i / 65535.0);
        if (!(y >= -1e-9) || !std::isfinite(y)) {
            refuse(label, "the nodes before the Matrix give " + std::to_string(y) + " for input " +
                              std::to_string(i) +
                              "; the processor holds only values from 0 up "
                              "there");
        }
        peak = std::max(peak, y);
    }
    return peak > 0.0 ? peak : 1.0;
}

void fold_with_matrix(const list_shape& s, double output_top, uint32_t top,
                      const std::string& label, processor_setup& setup) {
    vec3 unscale{};  // from the input tables' 16-bit values back to the nodes' values
    for (int c = 0; c < 3; ++c) {
        const double peak = s.before.empty() ? 1.0 : input_peak(s, c, label);
        unscale[size_t(c)] = peak / 65535.0;
        if (!s.before.empty()) {
            setup.input[size_t(2 - c)] =
                make_table([&](double x) { return run(s.before, c, x) / peak; }, 65535);
        }
        // The output is clamped to [0, 1] after the last node.
        auto output_of = [&](double z) { return std::min(1.0, std::max(0.0, run(s.after, c, z))); };
        for (const double below : {-1e-3, -1.0}) {
            if (output_of(below) != output_of(0.0)) {
                refuse(label,
                       "the nodes after the Matrix map values below 0 apart from 0; the "
                       "processor clamps the matrix result at 0");
            }
        }
        setup.output[size_t(2 - c)] =
            make_table([&](double k) { return run(s.after, c, k * output_top); }, top);
    }
    const mat3 to_index =
        diagonal({65535.0 / output_top, 65535.0 / output_top, 65535.0 / output_top});
    setup.matrix = to_float(multiply(to_index, multiply(s.matrix, diagonal(unscale))));
}

}  // namespace

processor_setup setup_from_process_list(const std::string& text, const std::string& label,
                                        int output_bits) {
    check_output_bits(output_bits);
    if (text.size() > max_process_list_bytes) {
        refuse(label, std::to_string(text.size()) + " bytes, more than the " +
                          std::to_string(max_process_list_bytes) + " accepted");
    }
    const std::unique_ptr<xml_element> root = parse_xml(text, label);
    const std::vector<process_node> nodes = read_process_nodes(*root, label);
    const list_shape s = shape_of(nodes, label);
    processor_setup setup;
    setup.output_bits = output_bits;
    const uint32_t top = output_bits == 8 ? 255 : 65535;
    if (!s.has_matrix) {
        fold_without_matrix(s, top, setup);
    } else {
        try {
            fold_with_matrix(s, matrix_domain_top(nodes), top, label, setup);
        } catch (const color_error& e) {
            if (e.code() != status::invalid_argument) throw;
            refuse(label, e.what());  // a matrix beyond single precision
        }
    }
    for (int c = 0; c < 3; ++c) {
        auto& in = setup.input[size_t(c)];
        auto& out = setup.output[size_t(c)];
        if (!in.empty() && is_identity(in)) in.clear();
        if (top == 65535 && is_identity(out)) out.clear();
    }
    setup.description = label + " (" + std::to_string(nodes.size()) + " nodes), " +
                        std::to_string(output_bits) + " bits";
    return setup;
}

}  // namespace kv_color
