// The accuracy every conversion test holds a conversion to: at 8 bits 99.5 % of samples correctly
// rounded and none off by more than 2; at 16 bits 88 % within one code value and a 99.9th
// percentile of at most `p999_limit`.
#pragma once

#include <gtest/gtest.h>

#include "bench/color_measure.h"

inline void expect_accuracy(const kv_measure::error_stats& s, int bits, int p999_limit = 16) {
    if (bits == 8) {
        EXPECT_GE(s.exact, 0.995);
        EXPECT_LE(s.max, 2);
    } else {
        EXPECT_GE(s.within_one, 0.88);
        EXPECT_LE(s.p999, p999_limit);
    }
}
