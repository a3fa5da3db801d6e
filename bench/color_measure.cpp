// The measurement instruments: seeded pixels, the LittleCMS double and 16-bit transforms, and the
// error statistics.
#include "bench/color_measure.h"

#include <lcms2.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <memory>
#include <random>
#include <stdexcept>

namespace kv_measure {
namespace {

struct profile_closer {
    void operator()(void* h) const { cmsCloseProfile(h); }
};
using profile_ptr = std::unique_ptr<void, profile_closer>;

struct definition {
    const char* name;
    double xy[8];  // red, green, blue, white
    int curve_type;
    double curve[5];
};

// The published definitions: IEC 61966-2-1, SMPTE EG 432-1, ITU-R BT.709, BT.2020 and BT.1886,
// Adobe RGB (1998), ROMM RGB (ISO 22028-2), SMPTE RP 431-2.
const definition definitions[] = {
    {"srgb",
     {0.64, 0.33, 0.30, 0.60, 0.15, 0.06, 0.3127, 0.3290},
     4,
     {2.4, 1 / 1.055, 0.055 / 1.055, 1 / 12.92, 0.04045}},
    {"display-p3",
     {0.680, 0.320, 0.265, 0.690, 0.150, 0.060, 0.3127, 0.3290},
     4,
     {2.4, 1 / 1.055, 0.055 / 1.055, 1 / 12.92, 0.04045}},
    {"rec709", {0.64, 0.33, 0.30, 0.60, 0.15, 0.06, 0.3127, 0.3290}, 1, {2.4}},
    {"rec2020", {0.708, 0.292, 0.170, 0.797, 0.131, 0.046, 0.3127, 0.3290}, 1, {2.4}},
    {"adobe-rgb", {0.64, 0.33, 0.21, 0.71, 0.15, 0.06, 0.3127, 0.3290}, 1, {563.0 / 256}},
    {"prophoto",
     {0.7347, 0.2653, 0.1596, 0.8404, 0.0366, 0.0001, 0.3457, 0.3585},
     4,
     {1.8, 1, 0, 1.0 / 16, 1.0 / 32}},
    {"dci-p3", {0.680, 0.320, 0.265, 0.690, 0.150, 0.060, 0.314, 0.351}, 1, {2.6}},
};

profile_ptr open_named(const std::string& name) {
    const bool linear = name.rfind("linear-", 0) == 0;
    const std::string base = linear ? name.substr(7) : name;
    for (const definition& d : definitions) {
        if (base != d.name) continue;
        const cmsCIExyY white{d.xy[6], d.xy[7], 1.0};
        const cmsCIExyYTRIPLE primaries{
            {d.xy[0], d.xy[1], 1.0}, {d.xy[2], d.xy[3], 1.0}, {d.xy[4], d.xy[5], 1.0}};
        const double one = 1.0;
        cmsToneCurve* t = cmsBuildParametricToneCurve(nullptr, linear ? 1 : d.curve_type,
                                                      linear ? &one : d.curve);
        cmsToneCurve* curves[3] = {t, t, t};
        profile_ptr p(cmsCreateRGBProfile(&white, &primaries, curves));
        cmsFreeToneCurve(t);
        if (p) return p;
    }
    throw std::runtime_error("no definition of " + name);
}

profile_ptr open(const endpoint& e) {
    if (!e.name.empty()) return open_named(e.name);
    profile_ptr p(cmsOpenProfileFromMem(e.icc.data(), cmsUInt32Number(e.icc.size())));
    if (!p) throw std::runtime_error("LittleCMS cannot open a profile");
    return p;
}

template <class Out>
std::vector<Out> run(const endpoint& source, const endpoint& destination, cmsUInt32Number in_format,
                     const void* input, size_t pixels, cmsUInt32Number out_format,
                     cmsUInt32Number flags) {
    profile_ptr s = open(source), d = open(destination);
    cmsHTRANSFORM t =
        cmsCreateTransform(s.get(), in_format, d.get(), out_format, INTENT_PERCEPTUAL, flags);
    if (t == nullptr) throw std::runtime_error("LittleCMS cannot make the transform");
    std::vector<Out> out(3 * pixels);
    cmsDoTransform(t, input, out.data(), cmsUInt32Number(pixels));
    cmsDeleteTransform(t);
    return out;
}

}  // namespace

endpoint named(const std::string& name) {
    return {{}, name};
}
endpoint profile(std::vector<uint8_t> icc) {
    return {std::move(icc), {}};
}

std::vector<uint16_t> random_pixels(size_t pixels, uint64_t seed) {
    std::mt19937_64 generator(seed);
    std::vector<uint16_t> rgb(3 * pixels);
    for (uint16_t& v : rgb) v = uint16_t(generator() >> 48);
    return rgb;
}

std::vector<double> reference(const endpoint& source_icc, const endpoint& destination_icc,
                              const std::vector<uint16_t>& rgb) {
    std::vector<double> input(rgb.size());
    for (size_t i = 0; i < rgb.size(); ++i) input[i] = rgb[i] / 65535.0;
    std::vector<double> out =
        run<double>(source_icc, destination_icc, TYPE_RGB_DBL, input.data(), rgb.size() / 3,
                    TYPE_RGB_DBL, cmsFLAGS_NOOPTIMIZE | cmsFLAGS_NOCACHE);
    for (double& v : out) v = std::isnan(v) ? 0.0 : std::min(1.0, std::max(0.0, v));
    return out;
}

std::vector<uint16_t> lcms_transform(const endpoint& source_icc, const endpoint& destination_icc,
                                     const std::vector<uint16_t>& rgb, int output_bits) {
    const size_t pixels = rgb.size() / 3;
    if (output_bits == 16) {
        return run<uint16_t>(source_icc, destination_icc, TYPE_RGB_16, rgb.data(), pixels,
                             TYPE_RGB_16, 0);
    }
    const std::vector<uint8_t> bytes =
        run<uint8_t>(source_icc, destination_icc, TYPE_RGB_16, rgb.data(), pixels, TYPE_RGB_8, 0);
    return std::vector<uint16_t>(bytes.begin(), bytes.end());
}

std::vector<uint16_t> run_conversion(const kelvane::color_conversion& conversion,
                                     const kelvane::session& library,
                                     const std::vector<uint16_t>& rgb) {
    const kelvane::processor p = conversion.make_processor(library);
    const int32_t pixels = int32_t(rgb.size() / 3);
    const kelvane::input_frame in(rgb, kelvane::layout::rgb_interleaved, pixels);
    if (conversion.output_bits() == 16) {
        std::vector<uint16_t> out(rgb.size());
        p.transform(
            in, kelvane::output_frame<uint16_t>(out, kelvane::layout::rgb_interleaved, 3, pixels),
            conversion.settings());
        return out;
    }
    std::vector<uint8_t> out(rgb.size());
    p.transform(in,
                kelvane::output_frame<uint8_t>(out, kelvane::layout::rgb_interleaved, 3, pixels),
                conversion.settings());
    return std::vector<uint16_t>(out.begin(), out.end());
}

error_stats compare(const std::vector<uint16_t>& result, const std::vector<double>& reference,
                    int bits) {
    const double top = bits == 8 ? 255.0 : 65535.0;
    std::vector<uint32_t> counts(65536, 0);
    for (size_t i = 0; i < result.size(); ++i) {
        const long expected = std::lround(reference[i] * top);
        ++counts[size_t(std::labs(long(result[i]) - expected))];
    }
    error_stats s;
    s.samples = result.size();
    s.exact = double(counts[0]) / double(s.samples);
    s.within_one = double(counts[0] + counts[1]) / double(s.samples);
    size_t seen = 0;
    bool percentile_found = false;
    for (size_t e = 0; e < counts.size(); ++e) {
        if (counts[e] == 0) continue;
        seen += counts[e];
        s.max = int(e);
        if (!percentile_found && double(seen) >= 0.999 * double(s.samples)) {
            s.p999 = int(e);
            percentile_found = true;
        }
    }
    return s;
}

std::string format(const error_stats& s) {
    char text[160];
    std::snprintf(text, sizeof text, "exact %.2f %%, within one %.2f %%, p99.9 %d, max %d",
                  100.0 * s.exact, 100.0 * s.within_one, s.p999, s.max);
    return text;
}

}  // namespace kv_measure
