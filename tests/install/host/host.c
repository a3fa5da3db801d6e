/* The C host of the installed library: the suite's C round trip through the exports
 * (tests/suite/c_header_test.c), built against the install. Exits 0; 2 when the library cannot
 * start (its LUT module missing or broken); 1 when a later step goes wrong. */
#include <stdio.h>

#include "kelvane_qor_color_processing.h"

int kv_c_header_round_trip(void);

int main(void) {
    const int step = kv_c_header_round_trip();
    if (step == 0) {
        printf("host: round trip checked\n");
        return 0;
    }
    fprintf(stderr, "host: step %d of the round trip went wrong\n", step);
    if (step == 1) {
        kv_color_processing_module_terminate(); /* owed even after a failed start */
        return 2;
    }
    return 1;
}
