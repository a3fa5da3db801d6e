// --info FILE: what colour profile an image carries, in words.
#pragma once

#include <string>

#include "image/image.h"

namespace kv_tool {

// "'sRGB IEC61966-2.1', ICC 2.1, 3144 bytes", "sRGB (PNG sRGB chunk)", "none (taken as sRGB)", or
// why the file's profile cannot be used.
std::string profile_text(const color_profile& profile);

// Whether --to would take the profile as a source: "" or the colour layer's reason.
std::string profile_refusal(const color_profile& profile);

}  // namespace kv_tool
