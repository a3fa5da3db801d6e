// A channel's transfer function, encoded value to linear light, in the ICC families: the five
// parametric forms (numbered as LittleCMS numbers them, 1 to 5) and sampled curves, evaluated and
// inverted in double.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace kv_color {

class transfer_curve {
  public:
    // Y = X^g: gamma 1 is linear.
    static transfer_curve gamma(double g);
    // LittleCMS types 1 to 5 with their parameters (g, a, b, c, d, e, f; as many as the type has).
    // Throws color_error (invalid_argument) for another type or a parameter that leaves the
    // curve undefined; `where` names the curve in the message.
    static transfer_curve parametric(int type, const double* parameters, const std::string& where);
    // Linear interpolation between samples in [0, 1] taken at equal steps over [0, 1].
    static transfer_curve sampled(std::vector<double> samples);

    // Encoded value in [0, 1] (clamped) to linear light, clamped to [0, 1].
    double decode(double encoded) const;
    // The inverse: linear light in [0, 1] to the encoded value. For a curve that rises (see
    // check_rising); a flat stretch answers its first point.
    double encode(double linear) const;

    // Throws color_error (profile_refused) naming `where` unless the curve rises from its start
    // to its end and never falls, which its inverse needs.
    void check_rising(const std::string& where) const;
    bool is_identity() const { return samples_.empty() && type_ == 1 && p_[0] == 1.0; }
    bool operator==(const transfer_curve& other) const;

    int type() const { return samples_.empty() ? type_ : 0; }
    // g, a, b, c, d, e, f as the type defines them (for a profile made from the curve).
    const std::array<double, 7>& parameters() const { return given_; }
    const std::vector<double>& samples() const { return samples_; }

  private:
    double decode_parametric(double x) const;
    double encode_parametric(double y) const;
    double encode_sampled(double y) const;

    int type_ = 1;
    std::array<double, 7> given_{1, 0, 0, 0, 0, 0, 0};
    std::array<double, 7> p_{1, 1, 0, 0, 0, 0, 0};  // every type in the form of type 5
    double knee_ = -1.0;  // the power branch's value at d, below which the toe answers (d > 0)
    std::vector<double> samples_;
};

}  // namespace kv_color
