// The bench results as a table, as JSON and as an SVG bar chart.
#include <algorithm>
#include <cstdio>

#include "bench/bench.h"
#include "bench/bench_timing.h"
#include "cli/tool_error.h"
#include "pipeline/plan.h"

namespace kv_tool {
namespace {

using kv::bench::json_string;

std::string number(double value, int decimals) {
    char text[64];
    std::snprintf(text, sizeof text, "%.*f", decimals, value);
    return text;
}

// Text for SVG: control bytes as \xNN first, then the five XML specials as entities.
std::string xml_text(const std::string& text) {
    std::string out;
    for (char c : printable(text)) {
        switch (c) {
            case '&':
                out += "&amp;";
                break;
            case '<':
                out += "&lt;";
                break;
            case '>':
                out += "&gt;";
                break;
            case '"':
                out += "&quot;";
                break;
            case '\'':
                out += "&apos;";
                break;
            default:
                out += c;
        }
    }
    return out;
}

// The settings line shared by the table and the chart.
std::string settings_text(const bench_result& r, const settings& s) {
    return r.source + " " + std::to_string(r.width) + "x" + std::to_string(r.height) + ", 48 to " +
           std::to_string(s.bits * s.channels) + " bits, " + layout_name(s.input_layout) + " to " +
           layout_name(s.output_layout);
}

std::string threads_text(const bench_result& r) {
    return std::to_string(r.threads) + (r.threads == 1 ? " thread" : " threads");
}

}  // namespace

std::string bench_table(const bench_result& r, const settings& s) {
    std::string out = "kelvane-color bench: " + printable(settings_text(r, s)) +
                      "; detected tier " + tier_name(r.detected_tier) + "; " + threads_text(r) +
                      "\n";
    char line[256];
    std::snprintf(line, sizeof line, "  %-8s %12s %12s %7s  %s\n", "tier", "Mpix/s", "best",
                  "frames", "result");
    out += line;
    for (const bench_row& row : r.tiers) {
        if (row.measured) {
            std::snprintf(
                line, sizeof line, "  %-8s %12.1f %12.1f %7d  %s\n", tier_name(row.tier).c_str(),
                row.mpix_per_s, row.best_mpix_per_s, row.frames,
                row.matches_scalar ? "output identical to scalar" : "OUTPUT DIFFERS FROM SCALAR");
        } else {
            std::snprintf(line, sizeof line, "  %-8s %12s %12s %7s  %s\n",
                          tier_name(row.tier).c_str(), "-", "-", "-", row.status.c_str());
        }
        out += line;
    }
    std::snprintf(line, sizeof line, "  %-8s %12.1f %12s %7s  %.2f GB/s of input bytes\n", "memcpy",
                  r.memcpy_mpix_per_s, "", "", r.memcpy_gb_per_s);
    out += line;
    return out;
}

std::string bench_json(const bench_result& r, const settings& s) {
    std::string out = "{\n";
    out += "  \"source\": " + json_string(r.source) + ",\n";
    out += "  \"width\": " + std::to_string(r.width) + ",\n";
    out += "  \"height\": " + std::to_string(r.height) + ",\n";
    out += "  \"output_bits\": " + std::to_string(s.bits) + ",\n";
    out += "  \"output_channels\": " + std::to_string(s.channels) + ",\n";
    out += "  \"input_layout\": " + json_string(layout_name(s.input_layout)) + ",\n";
    out += "  \"output_layout\": " + json_string(layout_name(s.output_layout)) + ",\n";
    out += "  \"detected_tier\": " + json_string(tier_name(r.detected_tier)) + ",\n";
    out += "  \"threads\": " + std::to_string(r.threads) + ",\n";
    out += "  \"tiers\": [\n";
    for (size_t i = 0; i < r.tiers.size(); ++i) {
        const bench_row& row = r.tiers[i];
        out += "    {\"tier\": " + std::to_string(row.tier) +
               ", \"name\": " + json_string(tier_name(row.tier)) +
               ", \"measured\": " + (row.measured ? "true" : "false") +
               ", \"status\": " + json_string(row.status);
        if (row.measured) {
            out += ", \"mpix_per_s\": " + number(row.mpix_per_s, 3) +
                   ", \"best_mpix_per_s\": " + number(row.best_mpix_per_s, 3) +
                   ", \"frames\": " + std::to_string(row.frames) +
                   ", \"matches_scalar\": " + (row.matches_scalar ? "true" : "false");
        }
        out += i + 1 < r.tiers.size() ? "},\n" : "}\n";
    }
    out += "  ],\n";
    out +=
        "  \"memcpy\": {\"bytes_per_pixel\": 6, \"mpix_per_s\": " + number(r.memcpy_mpix_per_s, 3) +
        ", \"gb_per_s\": " + number(r.memcpy_gb_per_s, 3) + "}\n}\n";
    return out;
}

std::string bench_svg(const bench_result& r, const settings& s) {
    struct bar {
        std::string label, css;
        double value;
    };
    std::vector<bar> bars;
    for (const bench_row& row : r.tiers) {
        if (row.measured) bars.push_back({tier_name(row.tier), "tier-bar", row.mpix_per_s});
    }
    bars.push_back({"memcpy", "memcpy-bar", r.memcpy_mpix_per_s});
    double top = 0;
    for (const bar& b : bars) top = std::max(top, b.value);
    if (!(top > 0)) top = 1;

    constexpr int width = 760, left = 90, bar_room = 520, row_height = 36, head = 74;
    const int height = head + int(bars.size()) * row_height + 16;
    std::string out = "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" + std::to_string(width) +
                      "\" height=\"" + std::to_string(height) + "\" viewBox=\"0 0 " +
                      std::to_string(width) + " " + std::to_string(height) +
                      "\" font-family=\"sans-serif\" font-size=\"13\">\n";
    out += "<title>kelvane-color bench on " + xml_text(r.processor) + "</title>\n";
    out += "<rect width=\"100%\" height=\"100%\" fill=\"#ffffff\"/>\n";
    out +=
        "<text x=\"12\" y=\"24\" font-size=\"15\" font-weight=\"bold\">kelvane-color bench, "
        "median Mpix/s on " +
        xml_text(r.processor) + "</text>\n";
    out += "<text x=\"12\" y=\"46\">" + xml_text(settings_text(r, s)) + "; detected tier " +
           xml_text(tier_name(r.detected_tier)) + "; " + threads_text(r) + "</text>\n";
    for (size_t i = 0; i < bars.size(); ++i) {
        const bar& b = bars[i];
        const int y = head + int(i) * row_height;
        const double length = std::max(1.0, b.value / top * bar_room);
        const char* fill = b.css == "memcpy-bar" ? "#9a9a9a" : "#3b6fb6";
        out += "<text x=\"" + std::to_string(left - 8) + "\" y=\"" + std::to_string(y + 18) +
               "\" text-anchor=\"end\">" + xml_text(b.label) + "</text>\n";
        out += "<rect class=\"" + b.css + "\" x=\"" + std::to_string(left) + "\" y=\"" +
               std::to_string(y + 4) + "\" width=\"" + number(length, 1) + "\" height=\"" +
               std::to_string(row_height - 10) + "\" fill=\"" + fill + "\"/>\n";
        out += "<text x=\"" + number(left + length + 6, 1) + "\" y=\"" + std::to_string(y + 18) +
               "\">" + number(b.value, 1) + "</text>\n";
    }
    return out + "</svg>\n";
}

}  // namespace kv_tool
