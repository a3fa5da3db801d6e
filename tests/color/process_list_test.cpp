// CLF and CTF process lists against an independent double evaluation of the same nodes, written
// here from the arrays the test puts into the XML, and the refusals of everything else.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <functional>
#include <sstream>

#include "bench/color_measure.h"
#include "kelvane_qor_color.hpp"
#include "tests/color/accuracy_targets.h"

namespace {

double srgb_decode(double v) {
    return v <= 0.04045 ? v / 12.92 : std::pow((v + 0.055) / 1.055, 2.4);
}
double srgb_encode(double l) {
    return l <= 0.0031308 ? l * 12.92 : 1.055 * std::pow(l, 1 / 2.4) - 0.055;
}

std::vector<double> sampled(const std::function<double(double)>& f, int n, double scale) {
    std::vector<double> v(static_cast<size_t>(n));
    for (int i = 0; i < n; ++i) v[size_t(i)] = f(double(i) / (n - 1)) * scale;
    return v;
}

double interpolate(const std::vector<double>& table, double x) {
    const double position = std::min(std::max(x, 0.0), 1.0) * double(table.size() - 1);
    const size_t i = std::min(size_t(position), table.size() - 2);
    return table[i] + (table[i + 1] - table[i]) * (position - double(i));
}

// `v` holds `channels` values an entry, red first.
std::string lut1d(const std::vector<double>& v, const char* in, const char* out, int channels = 1) {
    std::ostringstream s;
    s.precision(17);
    s << "<LUT1D inBitDepth=\"" << in << "\" outBitDepth=\"" << out << "\"><Array dim=\""
      << v.size() / size_t(channels) << " " << channels << "\">";
    for (double x : v) s << x << "\n";
    s << "</Array></LUT1D>\n";
    return s.str();
}

std::string matrix(const double (&m)[9], const char* in, const char* out) {
    std::ostringstream s;
    s.precision(17);
    s << "<Matrix inBitDepth=\"" << in << "\" outBitDepth=\"" << out << "\"><Array dim=\"3 3\">";
    for (double x : m) s << x << " ";
    s << "</Array></Matrix>\n";
    return s.str();
}

std::string process_list(const std::string& nodes) {
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<ProcessList id=\"t\" "
           "compCLFversion=\"3\">\n"
           "<Description>test</Description>\n" +
           nodes + "</ProcessList>\n";
}

// sRGB to Display P3 in linear light, published to many decimals.
const double srgb_to_p3[9] = {0.8224621, 0.177538,  0.0,       0.0331941, 0.9668058,
                              0.0,       0.0170827, 0.0723974, 0.9105199};

class ColorProcessLists : public ::testing::Test {
  protected:
    kv_measure::error_stats measure(const std::string& xml, int bits,
                                    const std::function<double(int, const double*)>& exact) {
        const uint64_t seed = 11;
        std::printf("seed %llu\n", (unsigned long long)seed);
        const std::vector<uint16_t> pixels = kv_measure::random_pixels(1 << 15, seed);
        std::vector<double> expected(pixels.size());
        for (size_t p = 0; p < pixels.size(); p += 3) {
            const double rgb[3] = {pixels[p] / 65535.0, pixels[p + 1] / 65535.0,
                                   pixels[p + 2] / 65535.0};
            for (int c = 0; c < 3; ++c) {
                expected[p + size_t(c)] = std::min(1.0, std::max(0.0, exact(c, rgb)));
            }
        }
        const auto c = kelvane::color_conversion::from_clf(xml, "test.clf", bits);
        return kv_measure::compare(kv_measure::run_conversion(c, library, pixels), expected, bits);
    }
    kelvane::session library;
};

TEST_F(ColorProcessLists, SRGBToDisplayP3ThroughLUT1DMatrixLUT1D) {
    const auto decode = sampled(srgb_decode, 4096, 1.0);
    const auto encode = sampled(srgb_encode, 4096, 1023.0);
    const std::string xml =
        process_list(lut1d(decode, "16i", "32f") + matrix(srgb_to_p3, "32f", "32f") +
                     lut1d(encode, "32f", "10i"));
    auto exact = [&](int c, const double* rgb) {
        const double l[3] = {interpolate(decode, rgb[0]), interpolate(decode, rgb[1]),
                             interpolate(decode, rgb[2])};
        const double* m = srgb_to_p3 + 3 * c;
        return interpolate(encode, m[0] * l[0] + m[1] * l[1] + m[2] * l[2]) / 1023.0;
    };
    for (int bits : {8, 16}) {
        const kv_measure::error_stats s = measure(xml, bits, exact);
        SCOPED_TRACE(std::to_string(bits) + " bits: " + kv_measure::format(s));
        expect_accuracy(s, bits);
    }
}

TEST_F(ColorProcessLists, TablesAndRangesWithoutMatrixAreExact) {
    // 10-bit codes in, 12-bit codes out (a curve a channel), then a Range that stretches
    // [256, 3839] to 16 bits.
    std::vector<double> curves[3], interleaved;
    for (int c = 0; c < 3; ++c) {
        curves[c] = sampled([c](double x) { return std::pow(x, 0.45 + 0.2 * c); }, 1024, 4095.0);
    }
    for (size_t i = 0; i < 1024; ++i) {
        for (const auto& curve : curves) interleaved.push_back(curve[i]);
    }
    const std::string xml = process_list(
        lut1d(interleaved, "10i", "12i", 3) +
        "<Range inBitDepth=\"12i\" outBitDepth=\"16i\"><minInValue>256</minInValue>"
        "<maxInValue>3839</maxInValue><minOutValue>0</minOutValue><maxOutValue>65535</maxOutValue>"
        "</Range>");
    auto exact = [&](int c, const double* rgb) {
        const double v = interpolate(curves[c], rgb[c]);
        return (std::min(std::max(v, 256.0), 3839.0) - 256.0) / (3839.0 - 256.0);
    };
    for (int bits : {8, 16}) {
        const kv_measure::error_stats s = measure(xml, bits, exact);
        SCOPED_TRACE(std::to_string(bits) + " bits: " + kv_measure::format(s));
        EXPECT_GE(s.exact, 0.9999);
        EXPECT_LE(s.max, 1);
    }
}

TEST_F(ColorProcessLists, RangeAfterMatrixSetsTheTablesDomain) {
    // Values up to 2.0 after the matrix, scaled back into [0, 1] by the Range: the output table
    // must span [0, 2] and the matrix be scaled to it.
    const double twice[9] = {2, 0, 0, 0, 2, 0, 0, 0, 2};
    const std::string xml = process_list(
        matrix(twice, "32f", "32f") +
        "<Range inBitDepth=\"32f\" outBitDepth=\"16i\"><minInValue>0</minInValue>"
        "<maxInValue>2</maxInValue><minOutValue>0</minOutValue><maxOutValue>65535</maxOutValue>"
        "</Range>");
    const kv_measure::error_stats s =
        measure(xml, 16, [](int c, const double* rgb) { return rgb[c]; });
    SCOPED_TRACE(kv_measure::format(s));
    EXPECT_GE(s.within_one, 0.999);
    EXPECT_LE(s.max, 1);
}

struct refusal {
    const char* what;
    std::string xml;
    const char* message_part;
};

const double identity[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
const std::string ramp = lut1d({0.0, 1.0}, "16i", "16i");

const refusal refusals[] = {
    {"LUT3D", process_list("<LUT3D inBitDepth=\"16i\" outBitDepth=\"16i\"/>"),
     "<LUT3D> at line 4 (offset 111): this node does not map onto one processor"},
    {"offsets",
     process_list("<Matrix inBitDepth=\"32f\" outBitDepth=\"32f\"><Array dim=\"3 4\">"
                  "1 0 0 0.1 0 1 0 0 0 0 1 0</Array></Matrix>"),
     "an offset of 0.100000 in row 0"},
    {"two matrices",
     process_list(matrix(identity, "16i", "16i") + ramp + matrix(identity, "16i", "16i")),
     "a second Matrix after LUT1D or Range nodes"},
    {"depth chain", process_list(lut1d({0.0, 1.0}, "16i", "12i") + ramp),
     "inBitDepth 16i after an outBitDepth of 12i"},
    {"bad depth", process_list(lut1d({0.0, 1.0}, "16i", "14i")), "outBitDepth '14i' is not"},
    {"cubic",
     process_list("<LUT1D inBitDepth=\"16i\" outBitDepth=\"16i\" interpolation=\"cubic\">"
                  "<Array dim=\"2 1\">0 1</Array></LUT1D>"),
     "interpolation=\"cubic\": only linear"},
    {"half domain",
     process_list("<LUT1D inBitDepth=\"16f\" outBitDepth=\"16i\" halfDomain=\"true\">"
                  "<Array dim=\"2 1\">0 1</Array></LUT1D>"),
     "halfDomain=\"true\""},
    {"noClamp",
     process_list("<Range inBitDepth=\"16i\" outBitDepth=\"16i\" style=\"noClamp\">"
                  "<minInValue>0</minInValue><minOutValue>0</minOutValue></Range>"),
     "style=\"noClamp\""},
    {"count",
     process_list("<LUT1D inBitDepth=\"16i\" outBitDepth=\"16i\"><Array dim=\"3 1\">0 1"
                  "</Array></LUT1D>"),
     "2 values where its dim gives 3"},
    {"not a number",
     process_list("<LUT1D inBitDepth=\"16i\" outBitDepth=\"16i\"><Array dim=\"2 1\">0 "
                  "x&#x7f;</Array></LUT1D>"),
     "'x\\x7f' is not a finite number"},
    {"infinite",
     process_list("<LUT1D inBitDepth=\"16i\" outBitDepth=\"16i\"><Array dim=\"2 1\">0 "
                  "1e999</Array></LUT1D>"),
     "'1e999' is not a finite number"},
    {"negative before matrix",
     process_list(lut1d({-0.5, 1.0}, "16i", "32f") + matrix(identity, "32f", "16i")),
     "the nodes before the Matrix give -0.5"},
    {"DOCTYPE", "<?xml version=\"1.0\"?><!DOCTYPE p [<!ENTITY a \"aaaa\">]><ProcessList/>",
     "line 1, offset 33: a DOCTYPE (DTD) is not accepted"},
    {"malformed", process_list("<Matrix inBitDepth=\"16i\">"), "mismatched tag"},
    {"root", "<LUT1D/>", "the root element is not <ProcessList>"},
    {"empty", process_list(""), "no LUT1D, Range or Matrix node"},
};

TEST(ColorProcessListRefusals, EachNamesTheNodeAndTheReason) {
    for (const refusal& r : refusals) {
        kv_color_conversion* c = nullptr;
        EXPECT_EQ(kv_color_conversion_from_clf(r.xml.data(), r.xml.size(), "t.clf", 16, &c),
                  KV_COLOR_LAYER_PROCESS_LIST_REFUSED)
            << r.what;
        EXPECT_EQ(c, nullptr);
        const std::string message = kv_color_layer_message();
        EXPECT_EQ(message.rfind("t.clf: ", 0), 0u) << r.what << ": " << message;
        EXPECT_NE(message.find(r.message_part), std::string::npos) << r.what << ": " << message;
    }
}

}  // namespace
