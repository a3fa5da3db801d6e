// Profiles described through LittleCMS (its description tag) and judged by the colour layer.
#include "pipeline/profile_info.h"

#include <lcms2.h>

#include <memory>

#include "cli/tool_error.h"
#include "kelvane_qor_color.hpp"

namespace kv_tool {
namespace {

struct profile_closer {
    void operator()(void* h) const { cmsCloseProfile(h); }
};

// The description tag in ASCII, cut at 100 characters; "" when there is none.
std::string description_of(const std::vector<uint8_t>& icc) {
    const std::unique_ptr<void, profile_closer> h(
        cmsOpenProfileFromMem(icc.data(), cmsUInt32Number(icc.size())));
    if (!h) return std::string();
    char text[101] = {};
    const cmsUInt32Number got =
        cmsGetProfileInfoASCII(h.get(), cmsInfoDescription, "en", "US", text, sizeof text);
    return got > 0 ? std::string(text) : std::string();
}

}  // namespace

std::string profile_text(const color_profile& profile) {
    if (!profile.fault.empty()) return "unusable: " + profile.fault;
    if (profile.icc.empty()) return profile.srgb ? "sRGB (PNG sRGB chunk)" : "none (taken as sRGB)";
    const std::string description = description_of(profile.icc);
    std::string text = description.empty() ? "no description" : excerpt(description, 100);
    if (profile.icc.size() >= 10) {
        text +=
            ", ICC " + std::to_string(profile.icc[8]) + "." + std::to_string(profile.icc[9] >> 4);
    }
    return text + ", " + std::to_string(profile.icc.size()) + " bytes";
}

std::string profile_refusal(const color_profile& profile) {
    if (profile.icc.empty()) return std::string();
    try {
        kelvane::color_space::from_icc(profile.icc, "profile");
        return std::string();
    } catch (const kelvane::color_error& e) {
        return e.what();
    }
}

}  // namespace kv_tool
