// Reading LUT1D, Range and Matrix elements of CLF (v2 and v3) and CTF process lists.
#include "color/process_list_nodes.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <sstream>

#include "color/color_error.h"

namespace kv_color {
namespace {

struct node_context {
    const xml_element& element;
    const std::string& label;

    [[noreturn]] void refuse(const std::string& why) const {
        throw color_error(status::process_list_refused,
                          label + ": " + element.where() + ": " + why);
    }
};

// Full scale of a bit depth: values of that depth are normalised by it.
double depth_scale(const node_context& n, const char* key, std::string& depth) {
    const std::string* value = n.element.attribute(key);
    if (value == nullptr) n.refuse(std::string("the attribute ") + key + " is missing");
    depth = *value;
    static const std::pair<const char*, double> scales[] = {{"8i", 255.0},   {"10i", 1023.0},
                                                            {"12i", 4095.0}, {"16i", 65535.0},
                                                            {"16f", 1.0},    {"32f", 1.0}};
    for (const auto& s : scales) {
        if (depth == s.first) return s.second;
    }
    n.refuse(std::string(key) + " '" + escaped(depth) + "' is not 8i, 10i, 12i, 16i, 16f or 32f");
}

std::vector<double> numbers_of(const node_context& n, const std::string& text, size_t count) {
    std::vector<double> values;
    values.reserve(std::min<size_t>(count, 1 << 22));
    const char* p = text.c_str();
    for (;;) {
        while (*p == ' ' || *p == '\t' || *p == '\n' || *p == '\r' || *p == ',') ++p;
        if (*p == '\0') break;
        char* end = nullptr;
        const double v = std::strtod(p, &end);
        if (end == p || !std::isfinite(v)) {
            n.refuse("'" + escaped(std::string(p, std::min<size_t>(20, std::strlen(p)))) +
                     "' is not a finite number");
        }
        if (values.size() == count)
            n.refuse("more than the " + std::to_string(count) + " values its dim gives");
        values.push_back(v);
        p = end;
    }
    if (values.size() != count) {
        n.refuse(std::to_string(values.size()) + " values where its dim gives " +
                 std::to_string(count));
    }
    return values;
}

// The one <Array> child: its dim and its values.
std::vector<double> array_of(const node_context& n, std::vector<long>& dims) {
    const xml_element* array = nullptr;
    for (const auto& child : n.element.children) {
        if (child->name == "IndexMap") n.refuse("an IndexMap is not supported");
        if (child->name == "Array") array = child.get();
    }
    if (array == nullptr) n.refuse("no <Array>");
    const node_context a{*array, n.label};
    const std::string* dim = array->attribute("dim");
    if (dim == nullptr) a.refuse("the attribute dim is missing");
    std::istringstream in(*dim);
    long d = 0;
    size_t count = 1;
    while (in >> d) {
        if (d < 1 || d > (1 << 20) || dims.size() == 3)
            a.refuse("dim '" + escaped(*dim) + "' is out of range");
        dims.push_back(d);
        count *= size_t(d);
    }
    if (!in.eof() || dims.empty()) a.refuse("dim '" + escaped(*dim) + "' is not a list of sizes");
    if (count > (size_t(1) << 22)) a.refuse("more than 4,194,304 values");
    return numbers_of(a, array->text, count);
}

void refuse_attribute(const node_context& n, const char* key, const char* allowed,
                      const char* why) {
    const std::string* v = n.element.attribute(key);
    if (v != nullptr && *v != allowed)
        n.refuse(std::string(key) + "=\"" + escaped(*v) + "\": " + why);
}

process_node read_LUT1D(const node_context& n, process_node node, double in_scale,
                        double out_scale) {
    refuse_attribute(n, "interpolation", "linear",
                     "only linear interpolation maps onto the tables");
    refuse_attribute(n, "halfDomain", "false",
                     "a half-float domain does not map onto 16-bit codes");
    refuse_attribute(n, "rawHalfs", "false", "raw half-float values are not supported");
    refuse_attribute(n, "hueAdjust", "none", "hue adjustment mixes the channels");
    std::vector<long> dims;
    std::vector<double> values = array_of(n, dims);
    if (dims.size() != 2 || (dims[1] != 1 && dims[1] != 3) || dims[0] < 2) {
        n.refuse("a LUT1D's Array has dim \"N 1\" or \"N 3\" with N at least 2");
    }
    for (double& v : values) v /= out_scale;
    const auto table = std::make_shared<const std::vector<double>>(std::move(values));
    const size_t entries = size_t(dims[0]), stride = size_t(dims[1]);
    (void)in_scale;  // a LUT1D spans the full scale of its input depth whatever that is
    node.function = [table, entries, stride](int c, double x) {
        // Clamped to the table, NaN (from extreme values upstream) to its start.
        const double position = (x > 0.0 ? (x < 1.0 ? x : 1.0) : 0.0) * double(entries - 1);
        const size_t i = std::min(size_t(position), entries - 2);
        const size_t k = stride == 3 ? size_t(c) : 0;
        const double low = (*table)[i * stride + k], high = (*table)[(i + 1) * stride + k];
        return low + (high - low) * (position - double(i));
    };
    return node;
}

process_node read_matrix(const node_context& n, process_node node, double in_scale,
                         double out_scale) {
    std::vector<long> dims;
    const std::vector<double> values = array_of(n, dims);
    const size_t columns = dims.size() >= 2 ? size_t(dims[1]) : 0;
    const bool shape_ok = (dims.size() == 2 || (dims.size() == 3 && dims[2] == 3)) &&
                          dims[0] == 3 && (columns == 3 || columns == 4);
    if (!shape_ok)
        n.refuse("a Matrix's Array has dim \"3 3\" or \"3 4\" (or \"3 3 3\", \"3 4 3\")");
    for (size_t row = 0; row < 3; ++row) {
        for (size_t col = 0; col < 3; ++col) {
            node.matrix[3 * row + col] = values[row * columns + col] * in_scale / out_scale;
        }
        if (columns == 4 && values[row * 4 + 3] != 0.0) {
            n.refuse("an offset of " + std::to_string(values[row * 4 + 3]) + " in row " +
                     std::to_string(row) + "; the processor's matrix has no offsets");
        }
    }
    node.is_matrix = true;
    return node;
}

// A child holding one number, or NaN when absent.
double optional_value(const node_context& n, const char* name, double scale) {
    for (const auto& child : n.element.children) {
        if (child->name == name) {
            return numbers_of(node_context{*child, n.label}, child->text, 1)[0] / scale;
        }
    }
    return std::nan("");
}

process_node read_range(const node_context& n, process_node node, double in_scale,
                        double out_scale) {
    refuse_attribute(n, "style", "Clamp", "a Range without clamping has no place in the tables");
    const double min_in = optional_value(n, "minInValue", in_scale);
    const double max_in = optional_value(n, "maxInValue", in_scale);
    const double min_out = optional_value(n, "minOutValue", out_scale);
    const double max_out = optional_value(n, "maxOutValue", out_scale);
    const bool has_min = !std::isnan(min_in), has_max = !std::isnan(max_in);
    if (has_min != !std::isnan(min_out) || has_max != !std::isnan(max_out) ||
        (!has_min && !has_max)) {
        n.refuse("a Range gives minInValue with minOutValue and maxInValue with maxOutValue");
    }
    if (has_min && has_max && !(max_in > min_in)) n.refuse("maxInValue is not above minInValue");
    if (has_min && has_max) {
        const double slope = (max_out - min_out) / (max_in - min_in);
        node.function = [=](int, double x) {
            return (std::min(std::max(x, min_in), max_in) - min_in) * slope + min_out;
        };
        node.clamp_top = max_in;
    } else if (has_min) {
        node.function = [=](int, double x) { return std::max(x, min_out); };
    } else {
        node.function = [=](int, double x) { return std::min(x, max_out); };
        node.clamp_top = max_out;
    }
    return node;
}

bool is_metadata(const std::string& name) {
    return name == "Description" || name == "InputDescriptor" || name == "OutputDescriptor" ||
           name == "Info";
}

}  // namespace

std::vector<process_node> read_process_nodes(const xml_element& root, const std::string& label) {
    const node_context list{root, label};
    if (root.name != "ProcessList") list.refuse("the root element is not <ProcessList>");
    std::vector<process_node> nodes;
    for (const auto& child : root.children) {
        if (is_metadata(child->name)) continue;
        const node_context n{*child, label};
        process_node node;
        node.where = child->where();
        const double in_scale = depth_scale(n, "inBitDepth", node.in_depth);
        const double out_scale = depth_scale(n, "outBitDepth", node.out_depth);
        if (child->name == "LUT1D") {
            nodes.push_back(read_LUT1D(n, std::move(node), in_scale, out_scale));
        } else if (child->name == "Matrix") {
            nodes.push_back(read_matrix(n, std::move(node), in_scale, out_scale));
        } else if (child->name == "Range") {
            nodes.push_back(read_range(n, std::move(node), in_scale, out_scale));
        } else {
            n.refuse("this node does not map onto one processor (LUT1D, Range and Matrix do)");
        }
    }
    if (nodes.empty()) list.refuse("no LUT1D, Range or Matrix node");
    return nodes;
}

double matrix_domain_top(const std::vector<process_node>& nodes) {
    for (size_t i = 0; i + 1 < nodes.size(); ++i) {
        if (nodes[i].is_matrix && !nodes[i + 1].is_matrix) {
            return nodes[i + 1].clamp_top > 0.0 ? nodes[i + 1].clamp_top : 1.0;
        }
    }
    return 1.0;
}

}  // namespace kv_color
