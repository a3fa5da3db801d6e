// The C++17 interface of the colour layer: header-only RAII types over kelvane_qor_color.h that
// set up a kelvane::processor from named spaces, ICC profiles or CLF/CTF process lists.
//
//   kelvane::session library;
//   kelvane::color_conversion c(kelvane::color_space::named("srgb"),
//                               kelvane::color_space::named("display-p3"), 16);
//   kelvane::processor p = c.make_processor(library);    // or c.configure(p) for a 16/16 one
//   p.transform(in, out, c.settings());                  // out: uint16_t elements (16 bits)
//
// Every failure throws kelvane::color_error (a kelvane::error) with the layer's message.
#ifndef KELVANE_QOR_COLOR_HPP
#define KELVANE_QOR_COLOR_HPP

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "kelvane_qor_color.h"
#include "kelvane_qor_color_processing.hpp"

namespace kelvane {

// A refusal of the colour layer: status() is one of the KV_COLOR_LAYER_* codes.
class color_error : public error {
  public:
    color_error(kv_color_layer_status status, const std::string& message)
        : error(message), status_(status) {}
    kv_color_layer_status status() const noexcept { return status_; }

  private:
    kv_color_layer_status status_;
};

namespace detail {

inline void color_check(kv_color_layer_status status) {
    if (status != KV_COLOR_LAYER_OK) throw color_error(status, kv_color_layer_message());
}

struct color_space_deleter {
    void operator()(kv_color_space* s) const noexcept { kv_color_space_destroy(s); }
};
struct color_conversion_deleter {
    void operator()(kv_color_conversion* c) const noexcept { kv_color_conversion_destroy(c); }
};

}  // namespace detail

// The names color_space::named knows.
inline std::vector<std::string> color_space_names() {
    std::vector<std::string> names;
    for (int32_t i = 0; kv_color_space_name(i) != nullptr; ++i)
        names.emplace_back(kv_color_space_name(i));
    return names;
}

// A source or destination. Copies share the same immutable description.
class color_space {
  public:
    // "srgb", "display-p3", "rec709", "rec2020", "adobe-rgb", "prophoto", "dci-p3", "linear-...".
    static color_space named(const std::string& name) {
        kv_color_space* s = nullptr;
        detail::color_check(kv_color_space_named(name.c_str(), &s));
        return color_space(s);
    }
    // An ICC RGB matrix-shaper profile (v2 or v4) from its bytes; `label` names it in messages.
    static color_space from_icc(const void* bytes, size_t size,
                                const std::string& label = "profile") {
        kv_color_space* s = nullptr;
        detail::color_check(kv_color_space_from_icc(bytes, size, label.c_str(), &s));
        return color_space(s);
    }
    static color_space from_icc(const std::vector<uint8_t>& bytes,
                                const std::string& label = "profile") {
        return from_icc(bytes.data(), bytes.size(), label);
    }
    static color_space from_icc_file(const std::string& path) {
        kv_color_space* s = nullptr;
        detail::color_check(kv_color_space_from_icc_file(path.c_str(), &s));
        return color_space(s);
    }

    // The ICC bytes to embed in an output: the profile's own, or one made for a named space.
    std::vector<uint8_t> icc() const {
        size_t size = 0;
        detail::color_check(kv_color_space_icc(handle(), nullptr, 0, &size));
        std::vector<uint8_t> bytes(size);
        detail::color_check(kv_color_space_icc(handle(), bytes.data(), bytes.size(), &size));
        return bytes;
    }
    std::string label() const { return kv_color_space_label(handle()); }
    const kv_color_space* handle() const noexcept { return space_.get(); }

  private:
    explicit color_space(kv_color_space* s) : space_(s, detail::color_space_deleter{}) {}
    std::shared_ptr<kv_color_space> space_;
};

// A processor set-up for output elements of 8 or 16 bits: matrix, six tables of 65,536 entries,
// clamps and shifts. Copies share the same immutable set-up.
class color_conversion {
  public:
    color_conversion(const color_space& source, const color_space& destination, int output_bits) {
        kv_color_conversion* c = nullptr;
        detail::color_check(
            kv_color_conversion_between(source.handle(), destination.handle(), output_bits, &c));
        conversion_.reset(c, detail::color_conversion_deleter{});
    }
    // A CLF or CTF process list from its XML text; `label` names it in messages.
    static color_conversion from_clf(const std::string& text, const std::string& label,
                                     int output_bits) {
        kv_color_conversion* c = nullptr;
        detail::color_check(
            kv_color_conversion_from_clf(text.data(), text.size(), label.c_str(), output_bits, &c));
        return color_conversion(c);
    }
    static color_conversion from_clf_file(const std::string& path, int output_bits) {
        kv_color_conversion* c = nullptr;
        detail::color_check(kv_color_conversion_from_clf_file(path.c_str(), output_bits, &c));
        return color_conversion(c);
    }

    // Replaces the matrix, tables and LUT flags of `p`, which must have 16-bit LUT depths.
    void configure(processor& p) const {
        detail::color_check(kv_color_conversion_configure(handle(), p.handle(), p.input_LUT_bits(),
                                                          p.output_LUT_bits()));
    }
    // A new processor (16-bit LUT depths, the detected tier) set up with this conversion.
    processor make_processor(const session& library) const {
        processor p(library, 16, 16);
        configure(p);
        return p;
    }
    // The same with a forced tier, for tests and benchmarks.
    processor make_processor(const session& library, kv_processor_tier tier) const {
        processor p(library, 16, 16, tier);
        configure(p);
        return p;
    }

    // Clamps and shifts to pass to every transform with this conversion.
    frame_settings settings() const {
        kv_color_frame_settings f{};
        detail::color_check(kv_color_conversion_frame_settings(handle(), &f));
        auto channel_of = [](int32_t minimum, int32_t maximum, int32_t shift) {
            return channel_settings{uint16_t(minimum), uint16_t(maximum), shift};
        };
        return {channel_of(f.blue_minimum, f.blue_maximum, f.blue_shift),
                channel_of(f.green_minimum, f.green_maximum, f.green_shift),
                channel_of(f.red_minimum, f.red_maximum, f.red_shift)};
    }
    int output_bits() const { return kv_color_conversion_output_bits(handle()); }
    std::string description() const { return kv_color_conversion_description(handle()); }
    // By rows, red, green, blue.
    std::array<float, 9> matrix() const {
        std::array<float, 9> m{};
        detail::color_check(kv_color_conversion_matrix(handle(), m.data()));
        return m;
    }
    // The 65,536 entries of one table, or an empty vector for a LUT left off.
    std::vector<uint32_t> LUT(bool output_side, channel c) const {
        std::vector<uint32_t> entries(65536);
        int32_t enabled = 0;
        detail::color_check(kv_color_conversion_LUT(handle(), output_side ? 1 : 0, int32_t(c),
                                                    entries.data(), entries.size(), &enabled));
        if (enabled == 0) entries.clear();
        return entries;
    }
    const kv_color_conversion* handle() const noexcept { return conversion_.get(); }

  private:
    explicit color_conversion(kv_color_conversion* c)
        : conversion_(c, detail::color_conversion_deleter{}) {}
    std::shared_ptr<kv_color_conversion> conversion_;
};

}  // namespace kelvane

#endif  // KELVANE_QOR_COLOR_HPP
