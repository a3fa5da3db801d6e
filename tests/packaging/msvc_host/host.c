/* A Windows host built with an MSVC-ABI toolchain (clang --target=x86_64-pc-windows-msvc,
 * lld-link) and no C runtime at all: it links kelvane_qor_color_processing.lib from the archive
 * and runs the four transforms at every tier through LUTs, matrix, clamp, shift and narrowing,
 * checking every element. Exit code 0, or 100 x tier + 20 x case + the failed check. */
#include <stddef.h>
#include <stdint.h>

#include "kelvane_qor_color_processing.h"
#if defined(KV_HOST_COLOR_LAYER)
#include "kelvane_qor_color.h"
#endif

__declspec(dllimport) void __stdcall ExitProcess(unsigned int code);
__declspec(dllimport) void* __stdcall GetStdHandle(unsigned long which);
__declspec(dllimport) int __stdcall WriteFile(void* file, const void* data, unsigned long size,
                                              unsigned long* written, void* overlapped);

/* The MSVC ABI's marker that floating point is in use; the C runtime would define it. */
int _fltused = 0;

enum { PIXELS = 1031 }; /* odd, and longer than every vector block */
static uint16_t input[3 * PIXELS];
static uint16_t output[4 * PIXELS];
static uint16_t expected[4 * PIXELS];

static void say(const char* text) {
    unsigned long length = 0, written = 0;
    while (text[length] != 0) ++length;
    WriteFile(GetStdHandle((unsigned long)-11), text, length, &written, NULL);
}

static void say_number(uint32_t value) {
    char digits[11];
    int at = 10;
    digits[10] = 0;
    do {
        digits[--at] = (char)('0' + value % 10);
        value /= 10;
    } while (value != 0);
    say(digits + at);
}

/* Where a pixel's element lies: channel 0 blue, 1 green, 2 red, 3 the fourth. */
static size_t element_at(kv_pixel_format format, int channel, size_t pixel, size_t per_pixel) {
    if (format == KV_FORMAT_BGR_PLANES) return (size_t)channel * PIXELS + pixel;
    if (format == KV_FORMAT_RGB_INTERLEAVED && channel < 3) channel = 2 - channel;
    return per_pixel * pixel + (size_t)channel;
}

static uint32_t clamp(int32_t value, int32_t low, int32_t high) {
    if (value > high) value = high;
    if (value < low) value = low;
    return (uint32_t)value;
}

/* The processor's settings, worked by hand: red inverted by its input LUT (high bits of the entry
 * ignored), red and blue swapped and green halved by the matrix (rounded half up), blue clamped
 * to 100..60000, green tripled by its output LUT, then shifted (8-bit outputs by 8, 9 and 8 to
 * the right; 16-bit outputs green by 1) and cut to the element's width. */
static void expect(kv_pixel_format in_format, kv_pixel_format out_format, int bits, int four) {
    const size_t per_pixel = four ? 4 : 3;
    for (size_t i = 0; i < PIXELS; ++i) {
        const uint32_t b = input[element_at(in_format, 0, i, 3)];
        const uint32_t g = input[element_at(in_format, 1, i, 3)];
        const uint32_t r = input[element_at(in_format, 2, i, 3)];
        uint32_t value[4] = {clamp((int32_t)(65535 - r), 100, 60000), 3 * ((g + 1) / 2), b, 0};
        if (bits == 8) {
            value[0] >>= 8, value[1] >>= 9, value[2] >>= 8;
        } else {
            value[1] >>= 1;
        }
        for (int c = 0; c < (int)per_pixel; ++c)
            expected[element_at(out_format, c, i, per_pixel)] =
                (uint16_t)(value[c] & (bits == 8 ? 0xFFu : 0xFFFFu));
    }
}

static uint8_t output8[4 * PIXELS + 1];

/* One transform into output (16-bit) or output8 (8-bit), every element and the one after the
 * frame compared. 0, or the check number. */
static int run(kv_color_processor_handle p, kv_pixel_format in_format, kv_pixel_format out_format,
               int bits, int four) {
    const size_t count = (four ? 4 : 3) * (size_t)PIXELS;
    kv_status status;
    for (size_t k = 0; k <= count && k < 4 * PIXELS; ++k) output[k] = 0xEEEE;
    for (size_t k = 0; k <= count; ++k) output8[k] = 0xEE;
    expect(in_format, out_format, bits, four);
#define KV_HOST_ARGUMENTS(out)                                                                    \
    p, input, in_format, 100, 60000, 0, 65535, 0, 65535, bits == 8 ? -8 : 0, bits == 8 ? -9 : -1, \
        bits == 8 ? -8 : 0, out, out_format, PIXELS
    if (bits == 8)
        status = four ? kv_color_transform_48_to_32(KV_HOST_ARGUMENTS(output8))
                      : kv_color_transform_48_to_24(KV_HOST_ARGUMENTS(output8));
    else
        status = four ? kv_color_transform_48_to_64(KV_HOST_ARGUMENTS(output))
                      : kv_color_transform_48_to_48(KV_HOST_ARGUMENTS(output));
#undef KV_HOST_ARGUMENTS
    if (status != KV_STATUS_SUCCESS) return 10;
    for (size_t k = 0; k < count; ++k)
        if ((bits == 8 ? output8[k] : output[k]) != expected[k]) return 11;
    if (bits == 8 ? output8[count] != 0xEE : (count < 4 * PIXELS && output[count] != 0xEEEE))
        return 12;
    return 0;
}

/* A processor of the given tier, configured as expect() describes. NULL on failure. */
static kv_color_processor_handle make_processor(kv_processor_tier tier) {
    const float swap_and_halve[9] = {0, 0, 1, 0, 0.5f, 0, 1, 0, 0};
    kv_color_processor_handle p = kv_color_create_color_processor_test(16, 16, tier);
    uint32_t *red_in, *green_out;
    if (p == NULL) return NULL;
    red_in = kv_color_get_red_input_LUT(p);
    green_out = kv_color_get_green_output_LUT(p);
    for (uint32_t v = 0; v < 65536; ++v) {
        red_in[v] = 0xABCD0000u | (65535 - v);
        green_out[v] = 3 * v;
    }
    if (kv_color_append_matrix(p, swap_and_halve) != KV_STATUS_SUCCESS ||
        kv_color_enable_input_LUTs(p, 0, 0, 1) != KV_STATUS_SUCCESS ||
        kv_color_enable_output_LUTs(p, 0, 1, 0) != KV_STATUS_SUCCESS) {
        kv_color_destroy_color_processor(p);
        return NULL;
    }
    return p;
}

/* Every tier, every transform, each with its own pair of layouts. 0, or the check number. */
static int run_all(void) {
    static const struct {
        kv_pixel_format in, out;
        int bits, four;
    } cases[] = {{KV_FORMAT_BGR_INTERLEAVED, KV_FORMAT_RGB_INTERLEAVED, 8, 0},
                 {KV_FORMAT_RGB_INTERLEAVED, KV_FORMAT_BGR_PLANES, 8, 1},
                 {KV_FORMAT_BGR_PLANES, KV_FORMAT_BGR_INTERLEAVED, 16, 0},
                 {KV_FORMAT_BGR_INTERLEAVED, KV_FORMAT_RGB_INTERLEAVED, 16, 1}};
    for (kv_processor_tier tier = KV_TIER_SCALAR; tier <= KV_TIER_AVX512; ++tier) {
        kv_color_processor_handle p = make_processor(tier);
        if (p == NULL) return 3;
        for (size_t c = 0; c < sizeof cases / sizeof cases[0]; ++c) {
            const int failed = run(p, cases[c].in, cases[c].out, cases[c].bits, cases[c].four);
            if (failed != 0) return 100 * (int)tier + 20 * (int)c + failed;
        }
        if (kv_color_destroy_color_processor(p) != KV_STATUS_SUCCESS) return 4;
        say("msvc host: tier ");
        say_number((uint32_t)tier);
        say(": 4 transforms checked\r\n");
    }
    return 0;
}

#if defined(KV_HOST_COLOR_LAYER)
/* sRGB to linear sRGB through the colour layer's processor: black and white stay, and the middle
 * code 32768 becomes about 0.214 of white (round(65535 x 0.21404) = 14027, the layer's tests
 * check every code exactly). 0, or the check number (50 and up). */
static int run_color_layer(void) {
    static const uint16_t in[9] = {0, 0, 0, 32768, 32768, 32768, 65535, 65535, 65535};
    uint16_t out[9] = {0};
    kv_color_space *from = NULL, *to = NULL;
    kv_color_conversion* conversion = NULL;
    kv_color_processor_handle p = NULL;
    kv_color_frame_settings f;
    int failed = 0;
    if (kv_color_space_named("srgb", &from) != KV_COLOR_LAYER_OK ||
        kv_color_space_named("linear-srgb", &to) != KV_COLOR_LAYER_OK ||
        kv_color_conversion_between(from, to, 16, &conversion) != KV_COLOR_LAYER_OK ||
        kv_color_conversion_frame_settings(conversion, &f) != KV_COLOR_LAYER_OK ||
        kv_color_conversion_create_processor(conversion, &p) != KV_COLOR_LAYER_OK) {
        failed = 50;
    } else if (kv_color_transform_48_to_48(
                   p, in, KV_FORMAT_BGR_INTERLEAVED, (uint16_t)f.blue_minimum,
                   (uint16_t)f.blue_maximum, (uint16_t)f.green_minimum, (uint16_t)f.green_maximum,
                   (uint16_t)f.red_minimum, (uint16_t)f.red_maximum, f.blue_shift, f.green_shift,
                   f.red_shift, out, KV_FORMAT_BGR_INTERLEAVED, 3) != KV_STATUS_SUCCESS) {
        failed = 51;
    } else {
        for (int k = 0; k < 3; ++k) {
            if (out[k] != 0 || out[6 + k] != 65535 || out[3 + k] < 14020 || out[3 + k] > 14035)
                failed = 52;
        }
    }
    if (p != NULL) kv_color_destroy_color_processor(p);
    kv_color_conversion_destroy(conversion);
    kv_color_space_destroy(to);
    kv_color_space_destroy(from);
    if (failed == 0) say("msvc host: colour layer checked\r\n");
    return failed;
}
#endif

void kv_host_start(void) {
    uint32_t state = 20240611u; /* fixed seed of the pixel values (LCG) */
    int failed;
    say("msvc host: seed 20240611\r\n");
    for (size_t k = 0; k < 3 * PIXELS; ++k) {
        state = state * 1664525u + 1013904223u;
        input[k] = (uint16_t)(state >> 16);
    }
    if (kv_color_processing_module_initialize() != KV_STATUS_SUCCESS) {
        say("msvc host: initialize failed\r\n");
        kv_color_processing_module_terminate();
        ExitProcess(2);
    }
    failed = run_all();
#if defined(KV_HOST_COLOR_LAYER)
    if (failed == 0) failed = run_color_layer();
#endif
    kv_color_processing_module_terminate();
    say(failed == 0 ? "msvc host: all checked\r\n" : "msvc host: a check failed\r\n");
    ExitProcess((unsigned int)failed);
}
