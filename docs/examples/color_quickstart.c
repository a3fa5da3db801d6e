/* A C host of the colour layer: two sRGB pixels converted to Display P3 at 16 bits. Exits 0 on
 * success; on a failure prints the layer's message. */
#include <stdio.h>

#include "kelvane_qor_color.h"

int main(void) {
    const uint16_t in[6] = {65535, 0, 0, 32768, 32768, 32768}; /* r g b per pixel */
    uint16_t out[6] = {0};
    kv_color_space *srgb = NULL, *p3 = NULL;
    kv_color_conversion* c = NULL;
    kv_color_processor_handle p = NULL;
    kv_color_frame_settings s;
    int ok = 0;
    if (kv_color_processing_module_initialize() != KV_STATUS_SUCCESS) return 1;
    if (kv_color_space_named("srgb", &srgb) == KV_COLOR_LAYER_OK &&
        kv_color_space_named("display-p3", &p3) == KV_COLOR_LAYER_OK &&
        kv_color_conversion_between(srgb, p3, 16, &c) == KV_COLOR_LAYER_OK &&
        kv_color_conversion_create_processor(c, &p) == KV_COLOR_LAYER_OK &&
        kv_color_conversion_frame_settings(c, &s) == KV_COLOR_LAYER_OK) {
        ok = kv_color_transform_48_to_48(
                 p, in, KV_FORMAT_RGB_INTERLEAVED, s.blue_minimum, s.blue_maximum, s.green_minimum,
                 s.green_maximum, s.red_minimum, s.red_maximum, s.blue_shift, s.green_shift,
                 s.red_shift, out, KV_FORMAT_RGB_INTERLEAVED, 2) == KV_STATUS_SUCCESS;
        printf("%s: red -> %u %u %u\n", kv_color_conversion_description(c), out[0], out[1], out[2]);
    } else {
        fprintf(stderr, "error: %s\n", kv_color_layer_message());
    }
    if (p != NULL) kv_color_destroy_color_processor(p);
    kv_color_conversion_destroy(c);
    kv_color_space_destroy(p3);
    kv_color_space_destroy(srgb);
    kv_color_processing_module_terminate();
    return ok && out[0] > 60000 ? 0 : 1;
}
