// Reading ICC matrix-shaper profiles with LittleCMS and making profiles for named spaces. The
// profile is judged tag by tag, so a refusal names the tag or header field at fault.
#include "color/icc_profile.h"

#include <lcms2.h>

#include <algorithm>
#include <cmath>
#include <iterator>
#include <memory>

#include "color/color_error.h"

namespace kv_color {
namespace {

// One LittleCMS context per call, whose error handler keeps the library's last message.
struct lcms_context {
    std::string message;
    cmsContext context = nullptr;

    lcms_context() {
        context = cmsCreateContext(nullptr, this);
        if (context == nullptr) throw std::bad_alloc();
        cmsSetLogErrorHandlerTHR(context, [](cmsContext c, cmsUInt32Number, const char* text) {
            try {
                static_cast<lcms_context*>(cmsGetContextUserData(c))->message = text;
            } catch (...) {  // no room for the message: the status alone must do
            }
        });
    }
    ~lcms_context() { cmsDeleteContext(context); }
    lcms_context(const lcms_context&) = delete;
    lcms_context& operator=(const lcms_context&) = delete;

    std::string said() const {
        return message.empty() ? "" : " (LittleCMS: " + escaped(message) + ")";
    }
};

struct profile_closer {
    void operator()(void* h) const { cmsCloseProfile(h); }
};
using profile_ptr = std::unique_ptr<void, profile_closer>;

[[noreturn]] void refuse(const std::string& label, const std::string& why) {
    throw color_error(status::profile_refused, label + ": " + why);
}

std::string signature_text(uint32_t sig) {
    std::string s;
    for (int shift = 24; shift >= 0; shift -= 8) s += char((sig >> shift) & 0xff);
    return "'" + escaped(s) + "'";
}

void check_kind(cmsHPROFILE h, const std::string& label) {
    const cmsProfileClassSignature cls = cmsGetDeviceClass(h);
    if (cls == cmsSigLinkClass)
        refuse(label, "a device link profile, not a description of RGB data");
    if (cls == cmsSigAbstractClass)
        refuse(label, "an abstract profile, not a description of RGB data");
    if (cls == cmsSigNamedColorClass)
        refuse(label, "a named-colour profile, not a description of RGB data");
    if (cls != cmsSigDisplayClass && cls != cmsSigInputClass && cls != cmsSigColorSpaceClass &&
        cls != cmsSigOutputClass) {
        refuse(label, "device class " + signature_text(cls) + " is not one LittleCMS knows");
    }
    const cmsColorSpaceSignature space = cmsGetColorSpace(h);
    if (space == cmsSigGrayData) refuse(label, "a gray profile; the data is RGB");
    if (space == cmsSigCmykData) refuse(label, "a CMYK profile; the data is RGB");
    if (space == cmsSigLabData) refuse(label, "a Lab profile; the data is RGB");
    if (space != cmsSigRgbData)
        refuse(label, "colour space " + signature_text(space) + ", not RGB");
    if (cmsGetPCS(h) != cmsSigXYZData) {
        refuse(label, "connection space " + signature_text(cmsGetPCS(h)) +
                          ": a matrix-shaper profile connects through XYZ");
    }
    static const cmsTagSignature lut_tags[] = {cmsSigAToB0Tag, cmsSigAToB1Tag, cmsSigAToB2Tag,
                                               cmsSigBToA0Tag, cmsSigBToA1Tag, cmsSigBToA2Tag,
                                               cmsSigDToB0Tag, cmsSigBToD0Tag};
    for (cmsTagSignature tag : lut_tags) {
        if (cmsIsTag(h, tag)) {
            refuse(label, "LUT-based (tag " + signature_text(tag) +
                              "); only matrix-shaper profiles map onto one processor");
        }
    }
}

const void* read_tag(cmsHPROFILE h, cmsTagSignature tag, const std::string& label,
                     const lcms_context& lcms) {
    if (!cmsIsTag(h, tag)) {
        refuse(label, "tag " + signature_text(tag) +
                          " is missing; a matrix-shaper profile has "
                          "rXYZ, gXYZ, bXYZ, rTRC, gTRC and bTRC");
    }
    const void* data = cmsReadTag(h, tag);
    if (data == nullptr) refuse(label, "tag " + signature_text(tag) + " is damaged" + lcms.said());
    return data;
}

transfer_curve curve_of(const cmsToneCurve* t, const std::string& where) {
    const int type = cmsGetToneCurveParametricType(t);
    if (type > 0) {
        try {
            return transfer_curve::parametric(type, cmsGetToneCurveParams(t), where);
        } catch (const color_error& e) {
            throw color_error(status::profile_refused, e.what());
        }
    }
    if (type < 0) {
        throw color_error(status::profile_refused, where + ": an inverted parametric curve");
    }
    const cmsUInt32Number n = cmsGetToneCurveEstimatedTableEntries(t);
    const cmsUInt16Number* table = cmsGetToneCurveEstimatedTable(t);
    if (n < 2 || table == nullptr) {
        throw color_error(status::profile_refused,
                          where + ": a sampled curve of fewer than two entries");
    }
    std::vector<double> samples(n);
    for (cmsUInt32Number i = 0; i < n; ++i) samples[i] = table[i] / 65535.0;
    return transfer_curve::sampled(std::move(samples));
}

std::string description_of(cmsHPROFILE h) {
    char text[256] = {0};
    cmsGetProfileInfoASCII(h, cmsInfoDescription, "en", "US", text, sizeof text);
    return escaped(text, 80);
}

}  // namespace

rgb_space read_icc_profile(const uint8_t* bytes, size_t size, const std::string& label) {
    if (size < 132) refuse(label, std::to_string(size) + " bytes, too short for an ICC profile");
    if (size > max_profile_bytes) {
        refuse(label, std::to_string(size) + " bytes, more than the " +
                          std::to_string(max_profile_bytes) + " accepted");
    }
    const uint32_t declared =
        uint32_t(bytes[0]) << 24 | uint32_t(bytes[1]) << 16 | uint32_t(bytes[2]) << 8 | bytes[3];
    if (declared > size) {
        refuse(label, "the header declares " + std::to_string(declared) + " bytes, only " +
                          std::to_string(size) + " are there (offset 0)");
    }
    lcms_context lcms;
    profile_ptr profile(cmsOpenProfileFromMemTHR(lcms.context, bytes, cmsUInt32Number(size)));
    if (!profile) refuse(label, "not a readable ICC profile" + lcms.said());
    cmsHPROFILE h = profile.get();
    check_kind(h, label);

    rgb_space s;
    const std::string description = description_of(h);
    s.label = description.empty() ? label : label + " (" + description + ")";
    static const cmsTagSignature colorants[] = {cmsSigRedColorantTag, cmsSigGreenColorantTag,
                                                cmsSigBlueColorantTag};
    static const cmsTagSignature curves[] = {cmsSigRedTRCTag, cmsSigGreenTRCTag, cmsSigBlueTRCTag};
    for (int k = 0; k < 3; ++k) {
        const auto* xyz = static_cast<const cmsCIEXYZ*>(read_tag(h, colorants[k], label, lcms));
        const double column[3] = {xyz->X, xyz->Y, xyz->Z};
        for (int row = 0; row < 3; ++row) {
            if (!std::isfinite(column[row])) refuse(label, "a colorant is not finite");
            s.to_xyz[size_t(3 * row + k)] = column[row];
        }
        const auto* trc = static_cast<const cmsToneCurve*>(read_tag(h, curves[k], label, lcms));
        s.curves[size_t(k)] = curve_of(trc, label + ", tag " + signature_text(curves[k]));
    }
    try {
        inverse(s.to_xyz, "the colorant matrix");
    } catch (const color_error& e) {
        refuse(label, e.what());
    }
    s.white = d50_white();
    s.icc.assign(bytes, bytes + size);
    return s;
}

namespace {

std::vector<uint8_t> saved(cmsHPROFILE h, const std::string& label, const lcms_context& lcms) {
    cmsUInt32Number size = 0;
    if (!cmsSaveProfileToMem(h, nullptr, &size))
        throw color_error(status::internal, "no profile for " + label + lcms.said());
    std::vector<uint8_t> bytes(size);
    if (size < 128 || !cmsSaveProfileToMem(h, bytes.data(), &size))
        throw color_error(status::internal, "no profile for " + label + lcms.said());
    bytes.resize(size);
    return bytes;
}

}  // namespace

std::vector<uint8_t> icc_bytes(const rgb_space& space) {
    if (!space.icc.empty()) return space.icc;
    auto xy_of = [](double x, double y, double z) {
        return cmsCIExyY{x / (x + y + z), y / (x + y + z), 1.0};
    };
    const mat3& m = space.to_xyz;
    const cmsCIExyY white = xy_of(space.white[0], space.white[1], space.white[2]);
    const cmsCIExyYTRIPLE primaries = {xy_of(m[0], m[3], m[6]), xy_of(m[1], m[4], m[7]),
                                       xy_of(m[2], m[5], m[8])};
    lcms_context lcms;
    cmsToneCurve* tone[3] = {nullptr, nullptr, nullptr};
    for (int k = 0; k < 3; ++k) {
        const transfer_curve& c = space.curves[size_t(k)];
        tone[k] = cmsBuildParametricToneCurve(lcms.context, c.type(), c.parameters().data());
    }
    profile_ptr h(tone[0] && tone[1] && tone[2]
                      ? cmsCreateRGBProfileTHR(lcms.context, &white, &primaries, tone)
                      : nullptr);
    for (cmsToneCurve* t : tone) {
        if (t != nullptr) cmsFreeToneCurve(t);
    }
    if (!h) throw color_error(status::internal, "no profile for " + space.label + lcms.said());
    cmsSetProfileVersion(h.get(), 4.3);
    cmsMLU* text = cmsMLUalloc(lcms.context, 1);
    const bool described = text != nullptr &&
                           cmsMLUsetASCII(text, "en", "US", space.label.c_str()) &&
                           cmsWriteTag(h.get(), cmsSigProfileDescriptionTag, text);
    if (text != nullptr) cmsMLUfree(text);
    if (!described)
        throw color_error(status::internal, "no profile for " + space.label + lcms.said());
    std::vector<uint8_t> bytes = saved(h.get(), space.label, lcms);
    // LittleCMS dates a new profile with the clock; a fixed date and the MD5 profile ID make the
    // same space give the same bytes in every run, so converted files are reproducible.
    static const uint8_t fixed_date[12] = {0x07, 0xEA, 0, 1, 0, 1, 0, 0, 0, 0, 0, 0};
    std::copy(std::begin(fixed_date), std::end(fixed_date), bytes.begin() + 24);
    profile_ptr dated(
        cmsOpenProfileFromMemTHR(lcms.context, bytes.data(), cmsUInt32Number(bytes.size())));
    if (!dated || !cmsMD5computeID(dated.get())) {
        throw color_error(status::internal, "no profile for " + space.label + lcms.said());
    }
    return saved(dated.get(), space.label, lcms);
}

}  // namespace kv_color
