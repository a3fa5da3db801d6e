// The values the options take: channel prefixes, matrices, layouts, tiers, whole numbers, clamp
// bounds, shifts and curves, each refused with a message that names the option.
#include "cli/option_values.h"

#include <algorithm>
#include <cmath>

#include "cli/numbers.h"
#include "cli/tool_error.h"

namespace kv_tool {
namespace {

constexpr const char* channel_names[3] = {"blue", "green", "red"};

}  // namespace

unsigned split_channels(const std::string& text, const std::string& option, std::string* value) {
    const size_t equals = text.find('=');
    if (equals != std::string::npos) {
        const std::string prefix = text.substr(0, equals);
        unsigned mask = 0;
        for (int c = 0; c < 3; ++c) {
            if (prefix == channel_names[c]) mask = 1u << c;
        }
        if (mask == 0 && !prefix.empty() && prefix.find_first_not_of("bgr") == std::string::npos) {
            for (char letter : prefix) mask |= letter == 'b' ? 1u : letter == 'g' ? 2u : 4u;
        }
        if (mask != 0) {
            *value = text.substr(equals + 1);
            return mask;
        }
        if (prefix.find_first_of("/\\.") == std::string::npos) {
            throw usage_error(option + ": '" + prefix +
                              "' is not a channel list (b, g, r, any of them together, or blue, "
                              "green, red)");
        }
    }
    *value = text;
    return 7u;
}

std::array<float, 9> parse_matrix(const std::string& text) {
    std::string spaced = text;
    std::replace(spaced.begin(), spaced.end(), ',', ' ');
    std::vector<std::string> words;
    size_t pos = 0;
    while (pos < spaced.size()) {
        const size_t start = spaced.find_first_not_of(" \t", pos);
        if (start == std::string::npos) break;
        const size_t end = spaced.find_first_of(" \t", start);
        words.push_back(spaced.substr(start, end - start));
        pos = end == std::string::npos ? spaced.size() : end;
    }
    if (words.size() != 9) {
        throw usage_error("--matrix: expected nine numbers (three rows of red, green, blue), got " +
                          std::to_string(words.size()) + " in '" + text + "'");
    }
    std::array<float, 9> m{};
    for (size_t i = 0; i < 9; ++i) {
        double v;
        if (!parse_double(words[i], &v) || std::fabs(v) > 3.4e38) {
            throw usage_error("--matrix: '" + words[i] + "' is not a number in '" + text + "'");
        }
        m[i] = float(v);
    }
    return m;
}

int32_t parse_layout(const std::string& text, const std::string& option) {
    if (text == "planes") return 0;
    if (text == "bgr") return 1;
    if (text == "rgb") return 2;
    int64_t v;
    if (parse_integer(text, INT32_MIN, INT32_MAX, &v)) return int32_t(v);
    throw usage_error(option + ": '" + text + "' is not a layout (planes, bgr, rgb)");
}

int32_t parse_tier(const std::string& text) {
    static const char* names[] = {"scalar", "sse", "avx2", "avx512"};
    for (int32_t t = 0; t < 4; ++t) {
        if (text == names[t]) return t;
    }
    int64_t v;
    if (parse_integer(text, INT32_MIN, INT32_MAX, &v)) return int32_t(v);
    throw usage_error("--tier: '" + text + "' is not a tier (scalar, sse, avx2, avx512 or 0 to 3)");
}

int64_t parse_whole(const std::string& text, const std::string& option, int64_t low, int64_t high) {
    int64_t v;
    if (!parse_integer(text, low, high, &v)) {
        throw usage_error(option + ": '" + text + "' is not a whole number from " +
                          std::to_string(low) + " to " + std::to_string(high));
    }
    return v;
}

void parse_clamp(const std::string& text, settings* s) {
    std::string value;
    const unsigned mask = split_channels(text, "--clamp", &value);
    const size_t colon = value.find(':');
    if (colon == std::string::npos) {
        throw usage_error("--clamp: expected MIN:MAX, as in 0:65535, got '" + text + "'");
    }
    const auto minimum = uint16_t(parse_whole(value.substr(0, colon), "--clamp", 0, 65535));
    const auto maximum = uint16_t(parse_whole(value.substr(colon + 1), "--clamp", 0, 65535));
    for (int c = 0; c < 3; ++c) {
        if (mask & (1u << c)) {
            s->clamp_min[c] = minimum;
            s->clamp_max[c] = maximum;
        }
    }
}

void parse_shift(const std::string& text, settings* s) {
    std::string value;
    const unsigned mask = split_channels(text, "--shift", &value);
    int64_t v;
    if (!parse_integer(value, INT32_MIN, INT32_MAX, &v)) {
        throw usage_error("--shift: '" + value + "' is not a whole number");
    }
    for (int c = 0; c < 3; ++c) {
        if (mask & (1u << c)) s->shift[c] = int32_t(v);
    }
}

void parse_LUT(const std::string& text, const std::string& option, std::array<curve, 3>* LUTs) {
    std::string value;
    const unsigned mask = split_channels(text, option, &value);
    const curve c = parse_curve(value, option);
    for (int ch = 0; ch < 3; ++ch) {
        if (mask & (1u << ch)) (*LUTs)[ch] = c;
    }
}

}  // namespace kv_tool
