// Timing and statistics shared by the benchmarks (bench/*.cpp and kelvane-color bench): repeated
// runs of one piece of work, their best and median time, and text for their JSON files.
// Header-only, so a benchmark includes it as "bench/bench_timing.h" and links nothing more.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

namespace kv {
namespace bench {

struct timing {
    double best_seconds = 0, median_seconds = 0;
    int runs = 0;
};

// Runs `work` once untimed (caches, page tables, branch predictors), then times it until the timed
// runs add up to `min_time` seconds and there are at least `min_runs` of them.
inline timing measure(const std::function<void()>& work, double min_time, int min_runs) {
    work();
    std::vector<double> times;
    double total = 0;
    while (total < min_time || int(times.size()) < min_runs) {
        const auto start = std::chrono::steady_clock::now();
        work();
        const double t =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        times.push_back(t);
        total += t;
    }
    std::sort(times.begin(), times.end());
    return {times.front(), times[times.size() / 2], int(times.size())};
}

// `text` as a JSON string, quotes included: quote and backslash escaped, control bytes as \u00XX.
inline std::string json_string(const std::string& text) {
    std::string out = "\"";
    for (const char c : text) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\u%04x", static_cast<unsigned char>(c));
            out += escaped;
        } else {
            out += c;
        }
    }
    return out + "\"";
}

}  // namespace bench
}  // namespace kv
