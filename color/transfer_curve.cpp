// Transfer curves in double: every parametric type is rewritten in the form of type 5,
//   Y = (aX + b)^g + e  for X >= d,     Y = cX + f  for X < d,
// which holds types 1 to 4 with some parameters fixed, so one evaluation and one inverse serve all.
#include "color/transfer_curve.h"

#include <algorithm>
#include <cmath>

#include "color/color_error.h"

namespace kv_color {
namespace {

double clamp01(double v) {
    return v > 0.0 ? (v < 1.0 ? v : 1.0) : 0.0;
}

int parameter_count(int type) {
    static const int counts[] = {0, 1, 3, 4, 5, 7};
    return type >= 1 && type <= 5 ? counts[type] : 0;
}

}  // namespace

transfer_curve transfer_curve::gamma(double g) {
    return parametric(1, &g, "a gamma curve");
}

transfer_curve transfer_curve::parametric(int type, const double* q, const std::string& where) {
    const int count = parameter_count(type);
    if (count == 0) {
        throw color_error(status::invalid_argument,
                          where + ": parametric curve type " + std::to_string(type) +
                              " is not one of the ICC types (1 to 5 here)");
    }
    transfer_curve c;
    c.type_ = type;
    for (int i = 0; i < count; ++i) {
        if (!std::isfinite(q[i])) {
            throw color_error(status::invalid_argument,
                              where + ": parameter " + std::to_string(i) + " is not finite");
        }
        c.given_[size_t(i)] = q[i];
    }
    const double g = q[0];
    if (!(g > 0.0) || (type > 1 && !(q[1] > 0.0))) {
        throw color_error(status::invalid_argument,
                          where + ": the exponent and the factor a must be positive (g " +
                              std::to_string(g) + ")");
    }
    // g, a, b, c, d, e, f in the form of type 5.
    switch (type) {
        case 1:
            c.p_ = {g, 1, 0, 0, 0, 0, 0};
            break;
        case 2:
            c.p_ = {g, q[1], q[2], 0, -q[2] / q[1], 0, 0};
            break;
        case 3:
            c.p_ = {g, q[1], q[2], 0, -q[2] / q[1], q[3], q[3]};
            break;
        case 4:
            c.p_ = {g, q[1], q[2], q[3], q[4], 0, 0};
            break;
        default:
            c.p_ = {g, q[1], q[2], q[3], q[4], q[5], q[6]};
            break;
    }
    if (c.p_[4] > 0.0) c.knee_ = c.decode_parametric(c.p_[4]);
    return c;
}

transfer_curve transfer_curve::sampled(std::vector<double> samples) {
    transfer_curve c;
    c.type_ = 0;
    c.samples_ = std::move(samples);
    return c;
}

double transfer_curve::decode_parametric(double x) const {
    const auto& [g, a, b, c, d, e, f] = p_;
    if (x >= d) {
        const double base = a * x + b;
        return (base > 0.0 ? std::pow(base, g) : 0.0) + e;
    }
    return c * x + f;
}

double transfer_curve::decode(double encoded) const {
    const double x = clamp01(encoded);
    if (samples_.empty()) return clamp01(decode_parametric(x));
    const double position = x * double(samples_.size() - 1);
    const size_t i = std::min(size_t(position), samples_.size() - 2);
    const double t = position - double(i);
    return clamp01(samples_[i] + (samples_[i + 1] - samples_[i]) * t);
}

double transfer_curve::encode_parametric(double y) const {
    const auto& [g, a, b, c, d, e, f] = p_;
    // Below the power branch's value at d the linear toe answers (when there is one).
    if (y < knee_) {
        return c > 0.0 ? std::min((y - f) / c, d) : 0.0;
    }
    const double lifted = y - e;
    return lifted > 0.0 ? (std::pow(lifted, 1.0 / g) - b) / a : std::max(d, -b / a);
}

double transfer_curve::encode_sampled(double y) const {
    // The first sample at or above y; the inverse of the linear piece before it.
    const auto above = std::lower_bound(samples_.begin(), samples_.end(), y);
    if (above == samples_.begin()) return 0.0;
    if (above == samples_.end()) return 1.0;
    const size_t i = size_t(above - samples_.begin()) - 1;
    const double low = samples_[i], high = samples_[i + 1];
    const double t = high > low ? (y - low) / (high - low) : 0.0;
    return (double(i) + t) / double(samples_.size() - 1);
}

double transfer_curve::encode(double linear) const {
    const double y = clamp01(linear);
    return clamp01(samples_.empty() ? encode_parametric(y) : encode_sampled(y));
}

void transfer_curve::check_rising(const std::string& where) const {
    // Parametric curves are looked at on a fine grid, sampled ones at every sample.
    const size_t points = samples_.empty() ? 4097 : samples_.size();
    double previous = decode(0.0);
    for (size_t i = 1; i < points; ++i) {
        const double x = double(i) / double(points - 1);
        const double v = samples_.empty() ? decode(x) : samples_[i];
        if (v < previous) {
            throw color_error(status::profile_refused, where + ": the curve falls (near input " +
                                                           std::to_string(x) +
                                                           "), so it has no inverse for an output");
        }
        previous = v;
    }
    if (!(decode(1.0) > decode(0.0))) {
        throw color_error(status::profile_refused,
                          where + ": the curve is flat, so it has no inverse for an output");
    }
}

bool transfer_curve::operator==(const transfer_curve& other) const {
    return type_ == other.type_ && p_ == other.p_ && samples_ == other.samples_;
}

}  // namespace kv_color
