// The C++17 interface of the color processing library: header-only RAII types and frame views over
// the C functions of kelvane_qor_color_processing.h. Every list of three channels runs blue,
// green, red; the matrix alone runs red, green, blue.
//
//   kelvane::session library;                        // initialise ... terminate
//   kelvane::processor p(library, 16, 12);           // input and output LUT bit depths
//   p.output_LUT(kelvane::channel::red)[4095] = 255; // LUTs as spans of 2^bits entries
//   p.enable_output_LUTs(true, true, true);
//   kelvane::input_frame in(pixels, kelvane::layout::bgr_interleaved, count);
//   kelvane::output_frame<uint8_t> out(bytes, kelvane::layout::rgb_interleaved, 3, count);
//   p.transform(in, out, settings);                  // or transform_striped(..., threads)
//
// Everything this header throws derives from kelvane::error (a std::runtime_error), apart from
// std::bad_alloc.
#ifndef KELVANE_QOR_COLOR_PROCESSING_HPP
#define KELVANE_QOR_COLOR_PROCESSING_HPP

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "kelvane_qor_color_processing.h"

namespace kelvane {

// "KV_STATUS_INVALID_CLAMP" and so on; nullptr for a number the library never returns.
inline const char* status_name(kv_status status) noexcept {
    switch (status) {
        case KV_STATUS_SUCCESS:
            return "KV_STATUS_SUCCESS";
        case KV_STATUS_MODULE_NOT_INITIALIZED:
            return "KV_STATUS_MODULE_NOT_INITIALIZED";
        case KV_STATUS_NULL_HANDLE:
            return "KV_STATUS_NULL_HANDLE";
        case KV_STATUS_NULL_INPUT_BUFFER:
            return "KV_STATUS_NULL_INPUT_BUFFER";
        case KV_STATUS_NULL_OUTPUT_BUFFER:
            return "KV_STATUS_NULL_OUTPUT_BUFFER";
        case KV_STATUS_SAME_BUFFER:
            return "KV_STATUS_SAME_BUFFER";
        case KV_STATUS_INVALID_INPUT_FORMAT:
            return "KV_STATUS_INVALID_INPUT_FORMAT";
        case KV_STATUS_INVALID_OUTPUT_FORMAT:
            return "KV_STATUS_INVALID_OUTPUT_FORMAT";
        case KV_STATUS_INVALID_SHIFT:
            return "KV_STATUS_INVALID_SHIFT";
        case KV_STATUS_INVALID_CLAMP:
            return "KV_STATUS_INVALID_CLAMP";
        default:
            return nullptr;
    }
}

// "KV_STATUS_INVALID_CLAMP (12)", or "status 7" for a number without a name.
inline std::string status_text(kv_status status) {
    const char* name = status_name(status);
    return name != nullptr ? std::string(name) + " (" + std::to_string(status) + ")"
                           : "status " + std::to_string(status);
}

// The base of every error of this interface.
class error : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// A call the library answered with a status other than success. what(): "<call> returned
// KV_STATUS_INVALID_CLAMP (12)".
class status_error : public error {
  public:
    status_error(kv_status status, const char* call)
        : error(std::string(call) + " returned " + status_text(status)), status_(status) {}
    kv_status status() const noexcept { return status_; }
    const char* name() const noexcept { return status_name(status_); }

  private:
    kv_status status_;
};

// A frame buffer smaller than its layout, channels, element width and pixel count need, refused
// before the library could overrun it (the library itself cannot know a buffer's size).
class buffer_size_error : public error {
  public:
    buffer_size_error(const char* which, size_t required_bytes, size_t available_bytes,
                      const std::string& shape)
        : error(std::string(which) + " buffer too small: " + shape + " need " +
                std::to_string(required_bytes) + " bytes, the buffer holds " +
                std::to_string(available_bytes)),
          required_(required_bytes),
          available_(available_bytes) {}
    size_t required_bytes() const noexcept { return required_; }
    size_t available_bytes() const noexcept { return available_; }

  private:
    size_t required_, available_;
};

// Buffer layouts, the same for input and output. Values other than these three reach the
// library unchanged, which refuses 3 and above and reads anything else as planes.
enum class layout : int32_t {
    bgr_planes = KV_FORMAT_BGR_PLANES,            // all blue, then all green, then all red
    bgr_interleaved = KV_FORMAT_BGR_INTERLEAVED,  // b g r per pixel
    rgb_interleaved = KV_FORMAT_RGB_INTERLEAVED,  // r g b per pixel
};

// Only interleaved frames can be cut into stripes: a planar frame's plane spacing is its pixel
// count, so a part of it is no frame the library can address.
constexpr bool is_interleaved(layout l) noexcept {
    return l == layout::bgr_interleaved || l == layout::rgb_interleaved;
}

enum class channel : int { blue = 0, green = 1, red = 2 };

// Below this many pixels a stripe costs more to start a thread for than it saves: it lies between
// the break-even of the fastest path (matrix only, about 120,000 pixels) and of the six-table path
// (about 30,000 to 65,000), as kv_stripe_benchmark measures them.
constexpr int32_t minimum_stripe_pixels = 65536;

// The cores std::thread reports, at least 1.
inline unsigned core_count() noexcept {
    const unsigned cores = std::thread::hardware_concurrency();
    return cores == 0 ? 1 : cores;
}

// How many stripes transform_striped cuts an interleaved frame of `pixels` into: `threads`
// (0 for every core) but never more than `cores`, nor so many that a stripe holds fewer than
// `minimum_stripe` pixels; at least 1.
constexpr int64_t stripe_count(int32_t pixels, unsigned threads, unsigned cores,
                               int32_t minimum_stripe = minimum_stripe_pixels) noexcept {
    const int64_t wanted = threads == 0 || threads > cores ? cores : threads;
    const int64_t fit = int64_t(pixels) / (minimum_stripe > 1 ? minimum_stripe : 1);
    const int64_t stripes = wanted < fit ? wanted : fit;
    return stripes > 1 ? stripes : 1;
}

// The 2^bits entries of one LUT, owned by its processor and valid while it lives.
class LUT_span {
  public:
    LUT_span() = default;
    LUT_span(uint32_t* data, size_t size) noexcept : data_(data), size_(size) {}
    uint32_t* data() const noexcept { return data_; }
    size_t size() const noexcept { return size_; }
    bool empty() const noexcept { return size_ == 0; }
    uint32_t& operator[](size_t index) const noexcept { return data_[index]; }
    uint32_t* begin() const noexcept { return data_; }
    uint32_t* end() const noexcept { return data_ + size_; }

  private:
    uint32_t* data_ = nullptr;
    size_t size_ = 0;
};

namespace detail {

// Bytes a frame of `pixels` takes at `bytes_per_pixel`; none for a count of 0 or less, which the
// library processes as an empty frame.
constexpr size_t frame_bytes(int32_t pixels, size_t bytes_per_pixel) noexcept {
    return pixels > 0 ? size_t(pixels) * bytes_per_pixel : 0;
}

inline std::string frame_shape(int32_t pixels, int channels, int bits) {
    return std::to_string(pixels) + " pixels of " + std::to_string(channels) + " x " +
           std::to_string(bits) + " bits";
}

template <typename Container>
using element_of = std::remove_pointer_t<decltype(std::declval<Container&>().data())>;

}  // namespace detail

// An input frame: three 16-bit elements a pixel in a layout, 6 bytes a pixel. Throws
// buffer_size_error when `element_count` (in 16-bit elements) is too small for `pixels`.
class input_frame {
  public:
    static constexpr size_t bytes_per_pixel = 6;
    static constexpr size_t required_bytes(int32_t pixels) noexcept {
        return detail::frame_bytes(pixels, bytes_per_pixel);
    }

    input_frame(const uint16_t* data, size_t element_count, layout l, int32_t pixels)
        : data_(data), layout_(l), pixels_(pixels) {
        const size_t available = data == nullptr ? 0 : element_count * sizeof(uint16_t);
        if (available < required_bytes(pixels)) {
            throw buffer_size_error("input", required_bytes(pixels), available,
                                    detail::frame_shape(pixels, 3, 16));
        }
    }
    // Any contiguous container of uint16_t (std::vector, std::array, ...).
    template <typename Container,
              typename = std::enable_if_t<
                  std::is_same_v<std::remove_const_t<detail::element_of<Container>>, uint16_t>>>
    input_frame(const Container& elements, layout l, int32_t pixels)
        : input_frame(elements.data(), elements.size(), l, pixels) {}
    // A view of a temporary would dangle.
    template <typename Container,
              typename = std::enable_if_t<!std::is_lvalue_reference_v<Container>>>
    input_frame(Container&& elements, layout l, int32_t pixels) = delete;

    const uint16_t* data() const noexcept { return data_; }
    layout pixel_layout() const noexcept { return layout_; }
    int32_t pixels() const noexcept { return pixels_; }
    size_t required_bytes() const noexcept { return required_bytes(pixels_); }

  private:
    const uint16_t* data_;
    layout layout_;
    int32_t pixels_;
};

// An output frame of 8-bit (24 or 32 bits a pixel) or 16-bit (48 or 64) elements, 3 or 4 a pixel.
// Throws error for another channel count and buffer_size_error when `element_count` (in Elements)
// is too small for `pixels`.
template <typename Element>
class output_frame {
    static_assert(std::is_same_v<Element, uint8_t> || std::is_same_v<Element, uint16_t>,
                  "output elements are uint8_t or uint16_t");

  public:
    static constexpr int element_bits = int(8 * sizeof(Element));
    static constexpr size_t bytes_per_pixel(int channels) noexcept {
        return size_t(channels) * sizeof(Element);
    }
    static constexpr size_t required_bytes(int32_t pixels, int channels) noexcept {
        return detail::frame_bytes(pixels, bytes_per_pixel(channels));
    }

    output_frame(Element* data, size_t element_count, layout l, int channels, int32_t pixels)
        : data_(data), layout_(l), channels_(channels), pixels_(pixels) {
        if (channels != 3 && channels != 4) {
            throw error("an output frame has 3 or 4 channels, not " + std::to_string(channels));
        }
        const size_t available = data == nullptr ? 0 : element_count * sizeof(Element);
        if (available < required_bytes(pixels, channels)) {
            throw buffer_size_error("output", required_bytes(pixels, channels), available,
                                    detail::frame_shape(pixels, channels, element_bits));
        }
    }
    template <typename Container,
              typename = std::enable_if_t<std::is_same_v<detail::element_of<Container>, Element>>>
    output_frame(Container& elements, layout l, int channels, int32_t pixels)
        : output_frame(elements.data(), elements.size(), l, channels, pixels) {}

    Element* data() const noexcept { return data_; }
    layout pixel_layout() const noexcept { return layout_; }
    int channels() const noexcept { return channels_; }
    int32_t pixels() const noexcept { return pixels_; }
    size_t required_bytes() const noexcept { return required_bytes(pixels_, channels_); }

  private:
    Element* data_;
    layout layout_;
    int channels_;
    int32_t pixels_;
};

// Clamp limits and shift of one channel: the matrix result is clamped to [minimum, maximum]
// (maximum at most the last entry of an enabled output LUT); shift -15..15, positive left.
struct channel_settings {
    uint16_t minimum = 0;
    uint16_t maximum = 65535;
    int32_t shift = 0;
};

// The per-frame settings of a transform, blue, green, red.
struct frame_settings {
    channel_settings blue, green, red;
};

namespace detail {

// The library empties its LUT table on every terminate, nested or not, so a terminate while any
// processor lives would break that processor. The sessions and processors of this program
// therefore share one initialise, made when the first of them starts and terminated when the last
// goes. (Per binary: a DLL or shared object with hidden inline symbols keeps a count of its own.)
struct library_count {
    std::mutex mutex;
    long owners = 0;
};

inline library_count& library_owners() {
    static library_count count;
    return count;
}

// One owner of the shared initialise.
struct library_reference {
    library_reference() {
        library_count& count = library_owners();
        std::lock_guard<std::mutex> lock(count.mutex);
        if (count.owners == 0) {
            const kv_status status = kv_color_processing_module_initialize();
            if (status != KV_STATUS_SUCCESS) {
                // A failed initialise still counts and needs its terminate.
                kv_color_processing_module_terminate();
                throw status_error(status, "kv_color_processing_module_initialize");
            }
        }
        ++count.owners;
    }
    library_reference(const library_reference&) = delete;
    library_reference& operator=(const library_reference&) = delete;
    ~library_reference() {
        library_count& count = library_owners();
        std::lock_guard<std::mutex> lock(count.mutex);
        if (--count.owners == 0) kv_color_processing_module_terminate();
    }
};

}  // namespace detail

// The library started: the first session of the program calls
// kv_color_processing_module_initialize, and the terminate follows when every session and every
// processor is gone, so processors may outlive the session object they were made from. A failed
// initialise is terminated at once and thrown as status_error (1: the LUT module is missing or
// incomplete). Move-only. The first start and the last end must not overlap another thread's
// library call.
class session {
  public:
    session() : reference_(std::make_shared<detail::library_reference>()) {}
    session(session&&) noexcept = default;
    session& operator=(session&&) noexcept = default;
    session(const session&) = delete;
    session& operator=(const session&) = delete;

    // False once moved from.
    explicit operator bool() const noexcept { return reference_ != nullptr; }

  private:
    friend class processor;
    std::shared_ptr<detail::library_reference> reference_;
};

// A color processor: created on construction, destroyed before its session's terminate. Move-
// only. Configuration (matrix, LUT contents, enable flags) must not overlap a transform on the
// same processor; transforms may run at once on one processor from any number of threads.
class processor {
  public:
    // LUT bit depths 0 to 16 for the input and the output tables; the tier is detected.
    processor(const session& library, int32_t input_LUT_bits, int32_t output_LUT_bits)
        : processor(library, input_LUT_bits, output_LUT_bits, nullptr) {}
    // The same with a forced tier (KV_TIER_SCALAR ... KV_TIER_AVX512), for tests and benchmarks; a
    // tier the processor lacks falls back safely.
    processor(const session& library, int32_t input_LUT_bits, int32_t output_LUT_bits,
              kv_processor_tier tier)
        : processor(library, input_LUT_bits, output_LUT_bits, &tier) {}

    processor(processor&& other) noexcept { swap(other); }
    processor& operator=(processor&& other) noexcept {
        processor(std::move(other)).swap(*this);
        return *this;
    }
    processor(const processor&) = delete;
    processor& operator=(const processor&) = delete;
    ~processor() {
        if (handle_ != nullptr) kv_color_destroy_color_processor(handle_);
    }

    kv_color_processor_handle handle() const noexcept { return handle_; }
    int32_t input_LUT_bits() const noexcept { return input_bits_; }
    int32_t output_LUT_bits() const noexcept { return output_bits_; }

    // matrix: nine floats by rows, red, green, blue; appended last means applied first.
    void append_matrix(const float (&matrix)[9]) {
        check(kv_color_append_matrix(handle_, matrix), "kv_color_append_matrix");
    }
    void clear_matrix() { check(kv_color_clear_matrix(handle_), "kv_color_clear_matrix"); }
    void enable_input_LUTs(bool blue, bool green, bool red) {
        check(kv_color_enable_input_LUTs(handle_, blue, green, red), "kv_color_enable_input_LUTs");
    }
    void enable_output_LUTs(bool blue, bool green, bool red) {
        check(kv_color_enable_output_LUTs(handle_, blue, green, red),
              "kv_color_enable_output_LUTs");
    }

    // The tables to fill: an input LUT maps a 16-bit value through the low 16 bits of its entry
    // (enabled, it must cover every value of the frames); an output LUT maps the clamped result.
    LUT_span input_LUT(channel c) const {
        using getter = uint32_t* (*)(kv_color_processor_handle);
        const getter getters[3] = {kv_color_get_blue_input_LUT, kv_color_get_green_input_LUT,
                                   kv_color_get_red_input_LUT};
        return table(getters[channel_index(c)], input_bits_, "an input LUT");
    }
    LUT_span output_LUT(channel c) const {
        using getter = uint32_t* (*)(kv_color_processor_handle);
        const getter getters[3] = {kv_color_get_blue_output_LUT, kv_color_get_green_output_LUT,
                                   kv_color_get_red_output_LUT};
        return table(getters[channel_index(c)], output_bits_, "an output LUT");
    }

    // One frame on the calling thread. The pixel counts of the two frames must agree. A refusal
    // throws status_error and leaves both buffers untouched.
    template <typename Element>
    void transform(const input_frame& input, const output_frame<Element>& output,
                   const frame_settings& settings = {}) const {
        check_pixels(input.pixels(), output.pixels());
        check(run(input.data(), input.pixel_layout(), output.data(), output.pixel_layout(),
                  output.channels(), settings, input.pixels()),
              transform_name<Element>(output.channels()));
    }

    // The same frame cut into stripes of whole pixels, all transformed at once on this processor
    // (one stripe on the calling thread), with output identical to transform(). `threads` 0 means
    // every core; more than the machine's cores are not started, and no stripe is cut below
    // `minimum_stripe` pixels (see stripe_count). Frames with a planar side run whole on the
    // calling thread. A thread that cannot be started leaves its stripe to the calling thread.
    // Every stripe is validated alike, so a refusal throws status_error with neither buffer
    // touched, as in transform().
    template <typename Element>
    void transform_striped(const input_frame& input, const output_frame<Element>& output,
                           const frame_settings& settings, unsigned threads = 0,
                           int32_t minimum_stripe = minimum_stripe_pixels) const {
        check_pixels(input.pixels(), output.pixels());
        const int32_t pixels = input.pixels();
        const bool stripes_possible =
            is_interleaved(input.pixel_layout()) && is_interleaved(output.pixel_layout());
        const int64_t stripes =
            stripes_possible ? stripe_count(pixels, threads, core_count(), minimum_stripe) : 1;
        if (stripes == 1) {
            transform(input, output, settings);
            return;
        }
        std::vector<kv_status> statuses(size_t(stripes), KV_STATUS_SUCCESS);
        std::vector<std::exception_ptr> failures{size_t(stripes)};
        auto run_stripe = [&](int64_t s) noexcept {
            const int64_t first = pixels * s / stripes;
            const int64_t count = pixels * (s + 1) / stripes - first;
            try {
                statuses[size_t(s)] =
                    run(input.data() + 3 * first, input.pixel_layout(),
                        output.data() + output.channels() * first, output.pixel_layout(),
                        output.channels(), settings, int32_t(count));
            } catch (...) {
                failures[size_t(s)] = std::current_exception();
            }
        };
        std::vector<std::thread> workers;
        workers.reserve(size_t(stripes - 1));
        for (int64_t s = 1; s < stripes; ++s) {
            try {
                workers.emplace_back(run_stripe, s);
            } catch (const std::system_error&) {
                run_stripe(s);  // no thread to be had: this stripe runs here instead
            }
        }
        run_stripe(0);
        for (std::thread& worker : workers) worker.join();
        for (const std::exception_ptr& failure : failures) {
            if (failure) std::rethrow_exception(failure);
        }
        for (kv_status status : statuses) check(status, transform_name<Element>(output.channels()));
    }

  private:
    processor(const session& library, int32_t input_bits, int32_t output_bits,
              const kv_processor_tier* tier)
        : reference_(library.reference_), input_bits_(input_bits), output_bits_(output_bits) {
        if (!reference_) throw error("a processor needs a started session, not a moved-from one");
        handle_ = tier != nullptr
                      ? kv_color_create_color_processor_test(input_bits, output_bits, *tier)
                      : kv_color_create_color_processor(input_bits, output_bits);
        if (handle_ == nullptr) {
            throw error(std::string(tier != nullptr ? "kv_color_create_color_processor_test"
                                                    : "kv_color_create_color_processor") +
                        " returned NULL for LUT bit depths " + std::to_string(input_bits) +
                        " and " + std::to_string(output_bits) +
                        " (each must be 0 to 16; the library's log says why)");
        }
    }

    void swap(processor& other) noexcept {
        std::swap(reference_, other.reference_);
        std::swap(handle_, other.handle_);
        std::swap(input_bits_, other.input_bits_);
        std::swap(output_bits_, other.output_bits_);
    }

    static void check(kv_status status, const char* call) {
        if (status != KV_STATUS_SUCCESS) throw status_error(status, call);
    }

    static int channel_index(channel c) {
        const int index = int(c);
        if (index < 0 || index > 2) {
            throw error("channel " + std::to_string(index) +
                        " is none of blue (0), green (1), red (2)");
        }
        return index;
    }

    static void check_pixels(int32_t input_pixels, int32_t output_pixels) {
        if (input_pixels != output_pixels) {
            throw error("the input frame has " + std::to_string(input_pixels) +
                        " pixels, the output frame " + std::to_string(output_pixels));
        }
    }

    LUT_span table(uint32_t* (*getter)(kv_color_processor_handle), int32_t bits,
                   const char* what) const {
        uint32_t* data = getter(handle_);
        if (data == nullptr) {
            throw error(std::string("the library handed out no table for ") + what +
                        " (a moved-from processor, or the session ended)");
        }
        return LUT_span(data, size_t(1) << bits);
    }

    template <typename Element>
    static const char* transform_name(int channels) {
        if (sizeof(Element) == 1) {
            return channels == 4 ? "kv_color_transform_48_to_32" : "kv_color_transform_48_to_24";
        }
        return channels == 4 ? "kv_color_transform_48_to_64" : "kv_color_transform_48_to_48";
    }

    template <typename Element>
    kv_status run(const uint16_t* input, layout input_layout, Element* output, layout output_layout,
                  int channels, const frame_settings& s, int32_t pixels) const {
        const auto in = kv_pixel_format(input_layout);
        const auto out = kv_pixel_format(output_layout);
        const channel_settings &b = s.blue, &g = s.green, &r = s.red;
        if constexpr (sizeof(Element) == 1) {
            return (channels == 4 ? kv_color_transform_48_to_32 : kv_color_transform_48_to_24)(
                handle_, input, in, b.minimum, b.maximum, g.minimum, g.maximum, r.minimum,
                r.maximum, b.shift, g.shift, r.shift, output, out, pixels);
        } else {
            return (channels == 4 ? kv_color_transform_48_to_64 : kv_color_transform_48_to_48)(
                handle_, input, in, b.minimum, b.maximum, g.minimum, g.maximum, r.minimum,
                r.maximum, b.shift, g.shift, r.shift, output, out, pixels);
        }
    }

    std::shared_ptr<detail::library_reference> reference_;
    kv_color_processor_handle handle_ = nullptr;
    int32_t input_bits_ = 0;
    int32_t output_bits_ = 0;
};

}  // namespace kelvane

#endif  // KELVANE_QOR_COLOR_PROCESSING_HPP
