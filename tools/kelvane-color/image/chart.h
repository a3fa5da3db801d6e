// The built-in synthetic 16-bit test chart, for runs without an input file.
#pragma once

#include <cstdint>

#include "image/image.h"

namespace kv_tool {

// Four bands from top to bottom: a gray ramp over the full 16-bit range, eight full-range color
// bars, a hue sweep, and a 16-step gray wedge whose lower steps sit near black. Deterministic for
// every size from 1x1 up.
image make_chart(int32_t width, int32_t height);

}  // namespace kv_tool
