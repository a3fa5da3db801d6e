/* A minimal C host of the installed library: start it, create a processor, scale the channels
 * with a matrix, transform a few pixels, check them, and stop. Exits non-zero on any mismatch.
 * The exports' arithmetic at every width is the suite's; this shows the install serves a host. */
#include <stdio.h>

#include "kelvane_qor_color_processing.h"

static int failures = 0;

static void expect(int condition, const char* what) {
    if (!condition) {
        fprintf(stderr, "host: %s\n", what);
        ++failures;
    }
}

int main(void) {
    /* Rows red, green, blue: red halved, green kept, blue doubled. */
    static const float matrix[9] = {0.5f, 0, 0, 0, 1, 0, 0, 0, 2};
    /* Nine pixels, blue green red each, so a vector back-end and the scalar tail both work. */
    uint16_t input[27], wide[27];
    kv_color_processor_handle processor;
    int i;

    for (i = 0; i < 9; ++i) {
        input[3 * i + 0] = (uint16_t)(100 + i);     /* blue */
        input[3 * i + 1] = (uint16_t)(200 + i);     /* green */
        input[3 * i + 2] = (uint16_t)(301 + 2 * i); /* red, odd: halves end in .5 */
    }
    input[0] = 40000; /* doubled past 65535: clamped */

    if (kv_color_processing_module_initialize() != KV_STATUS_SUCCESS) {
        fprintf(stderr, "host: the library could not start (LUT module missing?)\n");
        kv_color_processing_module_terminate();
        return 2;
    }
    processor = kv_color_create_color_processor(0, 0);
    expect(processor != NULL, "no processor");
    if (processor != NULL) {
        expect(kv_color_append_matrix(processor, matrix) == KV_STATUS_SUCCESS, "append_matrix");
        expect(kv_color_transform_48_to_48(processor, input, KV_FORMAT_BGR_INTERLEAVED, 0, 65535, 0,
                                           65535, 0, 65535, 0, 0, 0, wide,
                                           KV_FORMAT_RGB_INTERLEAVED, 9) == KV_STATUS_SUCCESS,
               "48_to_48");
        for (i = 0; i < 9; ++i) {
            const unsigned red = (unsigned)(301 + 2 * i) / 2 + 1; /* x.5 rounds up */
            const unsigned green = 200u + (unsigned)i;
            const unsigned blue = i == 0 ? 65535u : 2u * (100u + (unsigned)i);
            expect(wide[3 * i + 0] == red && wide[3 * i + 1] == green && wide[3 * i + 2] == blue,
                   "48-bit pixel differs");
        }
        expect(kv_color_destroy_color_processor(processor) == KV_STATUS_SUCCESS, "destroy");
    }
    expect(kv_color_processing_module_terminate() == KV_STATUS_SUCCESS, "terminate");
    if (failures == 0) printf("host: 9 pixels checked\n");
    return failures == 0 ? 0 : 1;
}
