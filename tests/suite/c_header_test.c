/* The public header compiled as C: a host's round trip through the exports. Returns 0, or the
 * number of the step that went wrong. */
#include <stddef.h>
#include <string.h>

#include "kelvane_qor_color_processing.h"

int kv_c_header_round_trip(void) {
    const float swap_red_blue[9] = {0, 0, 1, 0, 1, 0, 1, 0, 0};
    uint16_t input[6] = {1, 2, 3, 400, 500, 600}; /* b g r, interleaved */
    uint16_t output[8];
    kv_color_processor_handle processor;
    uint32_t* table;

    if (kv_color_processing_module_initialize() != KV_STATUS_SUCCESS) return 1;
    processor = kv_color_create_color_processor_test(4, 16, KV_TIER_SCALAR);
    if (processor == NULL) return 2;
    if (kv_color_append_matrix(processor, swap_red_blue) != KV_STATUS_SUCCESS) return 3;
    table = kv_color_get_green_output_LUT(processor);
    if (table == NULL) return 4;
    table[500] = 0xBEEF;
    table[2] = 0x1234;
    if (kv_color_enable_output_LUTs(processor, 0, 1, 0) != KV_STATUS_SUCCESS) return 5;
    memset(output, 0xFF, sizeof output);
    if (kv_color_transform_48_to_64(processor, input, KV_FORMAT_BGR_INTERLEAVED, 0, 0xFFFF, 0,
                                    0xFFFF, 0, 0xFFFF, 0, 0, 0, output, KV_FORMAT_RGB_INTERLEAVED,
                                    2) != KV_STATUS_SUCCESS)
        return 6;
    /* r g b x per pixel; red and blue swapped by the matrix, green through its LUT. */
    if (output[0] != 1 || output[1] != 0x1234 || output[2] != 3 || output[3] != 0) return 7;
    if (output[4] != 400 || output[5] != 0xBEEF || output[6] != 600 || output[7] != 0) return 8;
    if (kv_color_transform_48_to_24(processor, input, 7, 0, 0, 0, 0, 0, 0, 0, 0, 0,
                                    (uint8_t*)output, 0, 2) != KV_STATUS_INVALID_INPUT_FORMAT)
        return 9;
    if (kv_color_destroy_color_processor(processor) != KV_STATUS_SUCCESS) return 10;
    if (kv_color_processing_module_terminate() != KV_STATUS_SUCCESS) return 11;
    if (kv_color_destroy_color_processor(NULL) != KV_STATUS_MODULE_NOT_INITIALIZED) return 12;
    return 0;
}
