// PNG, TIFF and the other formats Windows decodes, through the Windows Imaging Component. The file
// is read (within its size bound) into memory and decoded from there; an encoded image is built in
// memory and written through replace_file, so this file never opens a path itself.
#include "platform/windows_api.h"
// The COM and imaging headers need <windows.h> before them.
#include <objbase.h>
#include <objidl.h>
#include <wincodec.h>
#include <wrl/client.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <new>
#include <string>
#include <vector>

#include "image/codec.h"
#include "image/prechecks.h"
#include "image/profile_embedding.h"
#include "pipeline/file_access.h"

namespace kv_tool {
namespace {

using Microsoft::WRL::ComPtr;

const char* format_name(coded_format format) {
    switch (format) {
        case coded_format::png:
            return "PNG";
        case coded_format::tiff:
            return "TIFF";
        case coded_format::other:
            break;
    }
    return "image";
}

// What a decoder's or encoder's failure means to the user; the code follows in brackets.
std::string hresult_words(HRESULT hr) {
    struct wording {
        HRESULT code;
        const char* plain;
    };
    static const wording table[] = {
        {WINCODEC_ERR_COMPONENTNOTFOUND, "no codec on this system handles it"},
        {WINCODEC_ERR_UNKNOWNIMAGEFORMAT, "the codec does not recognise it: it is damaged"},
        {WINCODEC_ERR_BADHEADER, "its header is damaged"},
        {WINCODEC_ERR_BADIMAGE, "its image data is damaged"},
        {WINCODEC_ERR_BADSTREAMDATA, "its image data is damaged"},
        {WINCODEC_ERR_BADMETADATAHEADER, "its metadata is damaged"},
        {WINCODEC_ERR_FRAMEMISSING, "it holds no image"},
        {WINCODEC_ERR_STREAMREAD, "the file ends before its image data is complete"},
        {HRESULT_FROM_WIN32(ERROR_HANDLE_EOF), "the file ends before its image data is complete"},
        {WINCODEC_ERR_UNSUPPORTEDPIXELFORMAT, "its pixel format cannot be converted"},
        {WINCODEC_ERR_UNSUPPORTEDOPERATION, "the codec does not support this"},
        {WINCODEC_ERR_IMAGESIZEOUTOFRANGE, "its size is out of the codec's range"},
        {WINCODEC_ERR_VALUEOUTOFRANGE, "a value in it is out of range"},
        {E_OUTOFMEMORY, "not enough memory"},
        {E_NOTIMPL, "the codec does not support this"},
        {E_FAIL, "the codec gave up (the file may be damaged)"},
    };
    const char* plain = "the Windows Imaging Component failed";
    for (const wording& w : table) {
        if (w.code == hr) {
            plain = w.plain;
            break;
        }
    }
    char code[32];
    std::snprintf(code, sizeof code, " [WIC error 0x%08lX]", static_cast<unsigned long>(hr));
    return plain + std::string(code);
}

// COM for the length of one read or write, on whatever thread a batch runs it. A thread that
// already chose another apartment keeps it; COM is still usable there.
class com_session {
  public:
    com_session() : result_(CoInitializeEx(nullptr, COINIT_MULTITHREADED)) {}
    ~com_session() {
        if (SUCCEEDED(result_)) CoUninitialize();
    }
    com_session(const com_session&) = delete;
    com_session& operator=(const com_session&) = delete;
    HRESULT result() const { return result_ == RPC_E_CHANGED_MODE ? S_OK : result_; }
    // The imaging factory, once COM is up in this thread; the session outlives what it makes.
    HRESULT create_factory(ComPtr<IWICImagingFactory>* factory) const {
        const HRESULT hr = result();
        if (FAILED(hr)) return hr;
        return CoCreateInstance(CLSID_WICImagingFactory, nullptr, CLSCTX_INPROC_SERVER,
                                IID_PPV_ARGS(factory->ReleaseAndGetAddressOf()));
    }

  private:
    HRESULT result_;
};

// The samples a pixel format decodes to, as the tool keeps them: `depth` 1 (gray), 3 (RGB) or 4
// (RGBA), of `bits` 8 or 16, and the format WIC delivers them in.
struct layout {
    int depth;
    int bits;
};

const GUID& wic_format(layout l) {
    switch (l.depth * 100 + l.bits) {
        case 108:
            return GUID_WICPixelFormat8bppGray;
        case 116:
            return GUID_WICPixelFormat16bppGray;
        case 308:
            return GUID_WICPixelFormat24bppRGB;
        case 316:
            return GUID_WICPixelFormat48bppRGB;
        case 408:
            return GUID_WICPixelFormat32bppRGBA;
        default:
            return GUID_WICPixelFormat64bppRGBA;
    }
}

// The layout a decoded pixel format maps to, so that a file reads as libpng and libtiff read it:
// gray stays gray (spread to RGB later), gray + alpha and palettes with transparency gain RGBA,
// 8 bits stay 8 (widened later), anything deeper becomes 16.
HRESULT layout_of(IWICImagingFactory* factory, IWICBitmapFrameDecode* frame, layout* out) {
    WICPixelFormatGUID format{};
    HRESULT hr = frame->GetPixelFormat(&format);
    if (FAILED(hr)) return hr;
    struct known {
        const GUID* format;
        layout l;
    };
    static const known table[] = {
        {&GUID_WICPixelFormatBlackWhite, {1, 8}}, {&GUID_WICPixelFormat2bppGray, {1, 8}},
        {&GUID_WICPixelFormat4bppGray, {1, 8}},   {&GUID_WICPixelFormat8bppGray, {1, 8}},
        {&GUID_WICPixelFormat16bppGray, {1, 16}}, {&GUID_WICPixelFormat24bppRGB, {3, 8}},
        {&GUID_WICPixelFormat24bppBGR, {3, 8}},   {&GUID_WICPixelFormat32bppBGR, {3, 8}},
        {&GUID_WICPixelFormat48bppRGB, {3, 16}},  {&GUID_WICPixelFormat48bppBGR, {3, 16}},
    };
    for (const known& k : table) {
        if (IsEqualGUID(format, *k.format)) {
            *out = k.l;
            return S_OK;
        }
    }
    if (IsEqualGUID(format, GUID_WICPixelFormat1bppIndexed) ||
        IsEqualGUID(format, GUID_WICPixelFormat2bppIndexed) ||
        IsEqualGUID(format, GUID_WICPixelFormat4bppIndexed) ||
        IsEqualGUID(format, GUID_WICPixelFormat8bppIndexed)) {
        ComPtr<IWICPalette> palette;
        BOOL alpha = FALSE;
        hr = factory->CreatePalette(&palette);
        if (SUCCEEDED(hr)) hr = frame->CopyPalette(palette.Get());
        if (SUCCEEDED(hr)) hr = palette->HasAlpha(&alpha);
        *out = layout{alpha ? 4 : 3, 8};
        return hr;
    }
    // Anything else by what the system says of it: 8-bit channels stay 8, deeper ones become 16.
    ComPtr<IWICComponentInfo> info;
    ComPtr<IWICPixelFormatInfo2> pixel_info;
    UINT bits = 0, channels = 0;
    BOOL alpha = FALSE;
    hr = factory->CreateComponentInfo(format, &info);
    if (SUCCEEDED(hr)) hr = info.As(&pixel_info);
    if (SUCCEEDED(hr)) hr = pixel_info->GetBitsPerPixel(&bits);
    if (SUCCEEDED(hr)) hr = pixel_info->GetChannelCount(&channels);
    if (SUCCEEDED(hr)) hr = pixel_info->SupportsTransparency(&alpha);
    if (FAILED(hr)) return hr;
    *out = layout{alpha ? 4 : 3, channels != 0 && bits / channels <= 8 ? 8 : 16};
    return S_OK;
}

// Rows a band of CopyPixels or WritePixels holds: about 4 MiB, at least one row.
uint32_t band_rows(uint64_t row_bytes) {
    return uint32_t(std::max<uint64_t>(1, (uint64_t(4) << 20) / std::max<uint64_t>(row_bytes, 1)));
}

// The pre-checks libpng and libtiff would make, for decoders that accept more: a PNG's header and
// cut, a TIFF's strips. Returns where the PNG's chunks stop (nothing cut for other formats).
png_chunks precheck(const std::string& path, coded_format format, const std::string& bytes,
                    const std::string& prefix) {
    const png_chunks chunks = format == coded_format::png ? walk_png(bytes) : png_chunks{};
    if (format == coded_format::png) {
        const std::string fault = png_header_fault(bytes);
        if (!fault.empty()) throw file_error(path, prefix + fault);
        if (chunks.cut && !chunks.after_image_data) {
            throw file_error(path, prefix + png_cut_fault(false, 0, 0, bytes.size()));
        }
    }
    tiff_strips strips;
    if (format == coded_format::tiff && read_tiff_strips(bytes, &strips)) {
        const std::string fault = tiff_strips_fault(strips, bytes.size());
        if (!fault.empty()) throw file_error(path, prefix + fault);
    }
    return chunks;
}

// A file's first frame, and what it takes to read it.
struct decoding {
    ComPtr<IWICImagingFactory> factory;
    ComPtr<IWICStream> stream;
    ComPtr<IWICBitmapDecoder> decoder;
    ComPtr<IWICBitmapFrameDecode> frame;
};

// A file whose first bytes name its format goes to that format's decoder, which then speaks for
// the file rather than "no decoder knows it"; anything else to whichever accepts it.
HRESULT open_frame(const com_session& com, coded_format format, const std::string& bytes,
                   decoding* d) {
    HRESULT hr = com.create_factory(&d->factory);
    if (SUCCEEDED(hr)) hr = d->factory->CreateStream(&d->stream);
    if (SUCCEEDED(hr)) {
        hr = d->stream->InitializeFromMemory(
            reinterpret_cast<BYTE*>(const_cast<char*>(bytes.data())), DWORD(bytes.size()));
    }
    if (SUCCEEDED(hr) && format == coded_format::other) {
        hr = d->factory->CreateDecoderFromStream(d->stream.Get(), nullptr,
                                                 WICDecodeMetadataCacheOnDemand, &d->decoder);
    } else if (SUCCEEDED(hr)) {
        hr = d->factory->CreateDecoder(
            format == coded_format::png ? GUID_ContainerFormatPng : GUID_ContainerFormatTiff,
            nullptr, &d->decoder);
        if (SUCCEEDED(hr))
            hr = d->decoder->Initialize(d->stream.Get(), WICDecodeMetadataCacheOnDemand);
    }
    if (SUCCEEDED(hr)) hr = d->decoder->GetFrame(0, &d->frame);
    return hr;
}

// The frame as `l` lays its samples out, through a converter when it decodes to another format.
HRESULT source_in(const decoding& d, layout l, ComPtr<IWICBitmapSource>* source) {
    *source = d.frame;
    WICPixelFormatGUID delivered{};
    HRESULT hr = d.frame->GetPixelFormat(&delivered);
    if (SUCCEEDED(hr) && !IsEqualGUID(delivered, wic_format(l))) {
        ComPtr<IWICFormatConverter> converter;
        hr = d.factory->CreateFormatConverter(&converter);
        if (SUCCEEDED(hr)) {
            hr = converter->Initialize(d.frame.Get(), wic_format(l), WICBitmapDitherTypeNone,
                                       nullptr, 0.0, WICBitmapPaletteTypeCustom);
        }
        if (SUCCEEDED(hr)) *source = converter;
    }
    return hr;
}

// The frame's first ICC colour context (PNG iCCP, TIFF tag 34675, JPEG APP2...), or the EXIF
// colour space sRGB, into `profile`. A decoder without colour contexts leaves the image untagged.
void read_color_context(const decoding& d, color_profile* profile) {
    UINT count = 0;
    if (FAILED(d.frame->GetColorContexts(0, nullptr, &count)) || count == 0) return;
    std::vector<ComPtr<IWICColorContext>> contexts(std::min<UINT>(count, 8));
    std::vector<IWICColorContext*> raw;
    for (ComPtr<IWICColorContext>& c : contexts) {
        if (FAILED(d.factory->CreateColorContext(&c))) return;
        raw.push_back(c.Get());
    }
    if (FAILED(d.frame->GetColorContexts(UINT(raw.size()), raw.data(), &count))) return;
    for (UINT i = 0; i < std::min<UINT>(count, UINT(raw.size())); ++i) {
        WICColorContextType type{};
        if (FAILED(raw[i]->GetType(&type))) continue;
        UINT size = 0;
        if (type == WICColorContextProfile &&
            SUCCEEDED(raw[i]->GetProfileBytes(0, nullptr, &size))) {
            if (size > max_embedded_profile) {
                profile->fault = "its ICC profile is " + std::to_string(size) +
                                 " bytes, more than the " + std::to_string(max_embedded_profile) +
                                 " accepted";
                return;
            }
            std::vector<uint8_t> bytes(size);
            if (SUCCEEDED(raw[i]->GetProfileBytes(size, bytes.data(), &size)) &&
                size <= bytes.size()) {
                bytes.resize(size);
                profile->icc = std::move(bytes);
                return;
            }
        }
        UINT exif = 0;
        if (type == WICColorContextExifColorSpace && SUCCEEDED(raw[i]->GetExifColorSpace(&exif)) &&
            exif == 1) {
            profile->srgb = true;
        }
    }
}

// The samples of `source`, in bands of rows, widened to 16 bits.
image copy_samples(const std::string& path, const std::string& prefix, IWICBitmapSource* source,
                   UINT width, UINT height, layout l) {
    const uint64_t row_bytes = uint64_t(width) * l.depth * (l.bits / 8);
    image out = empty_image(width, height, l.depth);
    const uint32_t band = std::min<uint32_t>(band_rows(row_bytes), height);
    const size_t row_samples = size_t(width) * l.depth;
    try {
        std::vector<unsigned char> bytes_of_band(size_t(row_bytes) * band);
        std::vector<uint16_t> row(row_samples);
        for (uint32_t y = 0; y < height; y += band) {
            const uint32_t rows = std::min(band, height - y);
            const WICRect rect{0, INT(y), INT(width), INT(rows)};
            const HRESULT hr = source->CopyPixels(&rect, UINT(row_bytes), UINT(row_bytes * rows),
                                                  bytes_of_band.data());
            if (FAILED(hr)) {
                throw file_error(path, prefix + "rows " + std::to_string(y) + " to " +
                                           std::to_string(y + rows - 1) +
                                           " cannot be read: " + hresult_words(hr));
            }
            for (uint32_t r = 0; r < rows; ++r) {
                const unsigned char* from = bytes_of_band.data() + size_t(r) * row_bytes;
                if (l.bits == 16) {
                    std::memcpy(row.data(), from, row_samples * 2);  // little-endian, as the host
                } else {
                    for (size_t i = 0; i < row_samples; ++i) row[i] = uint16_t(from[i] * 257);
                }
                append_row(&out, row.data(), width, l.depth);
            }
        }
    } catch (const std::bad_alloc&) {
        throw no_memory(path, width, height, out.channels);
    }
    return out;
}

image decode(const std::string& path, coded_format format, const std::string& bytes) {
    const std::string kind = format_name(format);
    const std::string prefix = format == coded_format::other ? std::string() : kind + ": ";
    const auto fail = [&](HRESULT hr) {
        if (format == coded_format::other &&
            (hr == WINCODEC_ERR_COMPONENTNOTFOUND || hr == WINCODEC_ERR_UNKNOWNIMAGEFORMAT)) {
            return file_error(path,
                              "not a PNG, PPM, PGM, PAM or TIFF image, nor one Windows "
                              "decodes");
        }
        return file_error(path, prefix + "not " + (format == coded_format::other ? "an" : "a") +
                                    " " + kind + " file the tool can read: " + hresult_words(hr));
    };
    const png_chunks chunks = precheck(path, format, bytes, prefix);
    const com_session com;
    decoding d;
    HRESULT hr = open_frame(com, format, bytes, &d);
    UINT width = 0, height = 0;
    if (SUCCEEDED(hr)) hr = d.frame->GetSize(&width, &height);
    layout l{};
    if (SUCCEEDED(hr)) hr = layout_of(d.factory.Get(), d.frame.Get(), &l);
    if (FAILED(hr)) throw fail(hr);
    check_size(path, width, height);
    // No codec the system has packs more than 65536 bytes of samples into one byte of file (the
    // bound the TIFF reader uses for its unknown codecs); a header claiming more is refused unread.
    const uint64_t row_bytes = uint64_t(width) * l.depth * (l.bits / 8);
    if (row_bytes * height / 65536 > bytes.size()) {
        throw file_error(path, prefix + "its header claims " + std::to_string(width) + "x" +
                                   std::to_string(height) + " pixels, more than a " +
                                   std::to_string(bytes.size()) + "-byte file can hold");
    }
    if (row_bytes > 0xFFFFFFFFu) throw file_error(path, prefix + "its rows are too long to decode");
    ComPtr<IWICBitmapSource> source;
    hr = source_in(d, l, &source);
    if (FAILED(hr)) throw fail(hr);
    image out = copy_samples(path, prefix, source.Get(), width, height, l);
    read_color_context(d, &out.profile);
    if (!out.profile.present() && chunks.srgb) out.profile.srgb = true;  // Wine's decoder omits it
    // Decoded whole, yet cut short after its image data: refused as libpng refuses it.
    if (chunks.cut)
        throw file_error(path, prefix + png_cut_fault(true, height, height, bytes.size()));
    return out;
}

// An encoder writing into a stream in memory, and its one frame.
struct encoding {
    ComPtr<IWICImagingFactory> factory;
    ComPtr<IStream> stream;
    ComPtr<IWICBitmapEncoder> encoder;
    ComPtr<IWICBitmapFrameEncode> frame;
    ComPtr<IPropertyBag2> options;
};

// Sets up the encoder and its frame for `picture`; `offered` gets the pixel format the encoder
// accepts, which may differ from the one asked for.
HRESULT start_encoder(const com_session& com, coded_format format, const image& picture,
                      encoding* e, WICPixelFormatGUID* offered) {
    HRESULT hr = com.create_factory(&e->factory);
    if (SUCCEEDED(hr)) hr = CreateStreamOnHGlobal(nullptr, TRUE, &e->stream);
    if (SUCCEEDED(hr)) {
        hr = e->factory->CreateEncoder(
            format == coded_format::png ? GUID_ContainerFormatPng : GUID_ContainerFormatTiff,
            nullptr, &e->encoder);
    }
    if (SUCCEEDED(hr)) hr = e->encoder->Initialize(e->stream.Get(), WICBitmapEncoderNoCache);
    if (SUCCEEDED(hr)) hr = e->encoder->CreateNewFrame(&e->frame, &e->options);
    if (SUCCEEDED(hr) && format == coded_format::tiff) {
        // Deflate, lossless at both depths; an encoder without the option keeps its default.
        PROPBAG2 option{};
        option.pstrName = const_cast<LPOLESTR>(L"TiffCompressionMethod");
        VARIANT value{};
        value.vt = VT_UI1;
        value.bVal = WICTiffCompressionZIP;
        e->options->Write(1, &option, &value);
    }
    if (SUCCEEDED(hr)) hr = e->frame->Initialize(e->options.Get());
    if (SUCCEEDED(hr)) hr = e->frame->SetSize(UINT(picture.width), UINT(picture.height));
    if (SUCCEEDED(hr)) hr = e->frame->SetPixelFormat(offered);
    return hr;
}

// The samples in bands of rows, as the encoders take them natively: 8-bit ones in BGR order.
HRESULT write_samples(const std::string& path, const std::string& prefix, const image& picture,
                      IWICBitmapFrameEncode* frame) {
    const bool wide = picture.bits == 16;
    const uint64_t row_samples = uint64_t(picture.width) * picture.channels;
    const uint64_t row_bytes = row_samples * (wide ? 2 : 1);
    if (row_bytes > 0xFFFFFFFFu) throw file_error(path, prefix + "its rows are too long to encode");
    const uint32_t band = std::min<uint32_t>(band_rows(row_bytes), uint32_t(picture.height));
    std::vector<unsigned char> packed;
    try {
        packed.resize(size_t(row_bytes) * band);
    } catch (const std::bad_alloc&) {
        throw file_error(path, prefix + "not enough memory to encode");
    }
    HRESULT hr = S_OK;
    for (uint32_t y = 0; SUCCEEDED(hr) && y < uint32_t(picture.height); y += band) {
        const uint32_t rows = std::min(band, uint32_t(picture.height) - y);
        const uint16_t* from = picture.samples.data() + size_t(y) * row_samples;
        const size_t count = size_t(row_samples) * rows;
        pack_samples(from, count, picture.bits, packed.data());
        if (!wide) {
            for (size_t i = 0; i < count; i += picture.channels)
                std::swap(packed[i], packed[i + 2]);
        }
        hr = frame->WritePixels(rows, UINT(row_bytes), UINT(row_bytes * rows), packed.data());
    }
    return hr;
}

// The encoded bytes, from the stream's memory.
std::string encoded_bytes(const std::string& path, const std::string& prefix, IStream* stream) {
    STATSTG status{};
    HRESULT hr = stream->Stat(&status, STATFLAG_NONAME);
    HGLOBAL memory = nullptr;
    if (SUCCEEDED(hr)) hr = GetHGlobalFromStream(stream, &memory);
    if (FAILED(hr)) throw file_error(path, prefix + "cannot encode: " + hresult_words(hr));
    struct locked {
        HGLOBAL memory;
        const char* data;
        ~locked() {
            if (data != nullptr) GlobalUnlock(memory);
        }
    } bytes{memory, static_cast<const char*>(GlobalLock(memory))};
    if (bytes.data == nullptr) throw file_error(path, prefix + "cannot encode: no memory to read");
    return std::string(bytes.data, size_t(status.cbSize.QuadPart));
}

// The encoder's bytes with the picture's profile embedded (the encoders are given no colour
// context: Wine's refuse one, and one way on every system is one way tested).
std::string with_profile(const std::string& path, const std::string& prefix, coded_format format,
                         const image& picture, std::string encoded) {
    const color_profile& profile = picture.profile;
    try {
        if (format == coded_format::png && (profile.srgb || !profile.icc.empty()))
            return png_with_profile(encoded, profile);
        if (format == coded_format::tiff && !profile.icc.empty())
            return tiff_with_profile(encoded, profile.icc);
    } catch (const embedding_error& e) {
        throw file_error(
            path, prefix + "cannot embed the colour profile: " + e.what() + "; nothing written");
    }
    return encoded;
}

// Encodes `picture` into a stream in memory, then writes the bytes to `path`.
void encode(const std::string& path, coded_format format, const image& picture) {
    const std::string prefix = std::string(format_name(format)) + ": ";
    const bool wide = picture.bits == 16;
    const bool alpha = picture.channels == 4;
    const GUID& wanted = wide
                             ? (alpha ? GUID_WICPixelFormat64bppRGBA : GUID_WICPixelFormat48bppRGB)
                             : (alpha ? GUID_WICPixelFormat32bppBGRA : GUID_WICPixelFormat24bppBGR);
    const com_session com;
    encoding e;
    WICPixelFormatGUID offered = wanted;
    HRESULT hr = start_encoder(com, format, picture, &e, &offered);
    if (SUCCEEDED(hr) && !IsEqualGUID(offered, wanted)) {
        throw file_error(path, prefix + "this system's encoder cannot write " +
                                   std::to_string(picture.bits) + "-bit " +
                                   (alpha ? "RGBA" : "RGB") + " samples");
    }
    if (SUCCEEDED(hr)) hr = write_samples(path, prefix, picture, e.frame.Get());
    if (SUCCEEDED(hr)) hr = e.frame->Commit();
    if (SUCCEEDED(hr)) hr = e.encoder->Commit();
    if (FAILED(hr)) throw file_error(path, prefix + "cannot encode: " + hresult_words(hr));
    const std::string bytes =
        with_profile(path, prefix, format, picture, encoded_bytes(path, prefix, e.stream.Get()));
    write_file(path, bytes.data(), bytes.size());
}

}  // namespace

bool codec_handles(coded_format format) {
    return format == coded_format::png || format == coded_format::tiff ||
           format == coded_format::other;
}

image codec_read(const std::string& path, coded_format format, std::FILE* file, uint64_t size) {
    // The memory stream the decoders read counts its bytes in 32 bits.
    if (size > 0xFFFFFFFFu) {
        throw file_error(path, "is " + std::to_string(size) +
                                   " bytes; the Windows decoders read files of at most 4 GiB");
    }
    return decode(path, format, read_whole(path, file, size));
}

void codec_write(const std::string& path, coded_format format, const image& picture) {
    encode(path, format, picture);
}

}  // namespace kv_tool
