// Media types of the test camera and the H.264 access-unit reader.
#include "testcam.h"

#include <dvdmedia.h>

#include <cstdio>
#include <cstring>

namespace testcam {
namespace {

struct SubtypeInfo {
    const char* name;
    DWORD fourcc;  // BI_RGB for the RGB types
    WORD bits;
    GUID guid;
};

constexpr DWORD Fourcc(char a, char b, char c, char d) {
    return static_cast<DWORD>(static_cast<BYTE>(a)) | (static_cast<DWORD>(static_cast<BYTE>(b)) << 8) |
           (static_cast<DWORD>(static_cast<BYTE>(c)) << 16) | (static_cast<DWORD>(static_cast<BYTE>(d)) << 24);
}

GUID FourccGuid(DWORD fourcc) {
    GUID g = {fourcc, 0x0000, 0x0010, {0x80, 0x00, 0x00, 0xaa, 0x00, 0x38, 0x9b, 0x71}};
    return g;
}

const SubtypeInfo* Subtypes() {
    static const SubtypeInfo table[] = {
        {"YUY2", Fourcc('Y', 'U', 'Y', '2'), 16, FourccGuid(Fourcc('Y', 'U', 'Y', '2'))},
        {"NV12", Fourcc('N', 'V', '1', '2'), 12, FourccGuid(Fourcc('N', 'V', '1', '2'))},
        {"RGB24", BI_RGB, 24, MEDIASUBTYPE_RGB24},
        {"RGB32", BI_RGB, 32, MEDIASUBTYPE_RGB32},
        {"MJPG", Fourcc('M', 'J', 'P', 'G'), 24, FourccGuid(Fourcc('M', 'J', 'P', 'G'))},
        {"H264", Fourcc('H', '2', '6', '4'), 24, FourccGuid(Fourcc('H', '2', '6', '4'))},
        {"P010", Fourcc('P', '0', '1', '0'), 24, FourccGuid(Fourcc('P', '0', '1', '0'))},
        {nullptr, 0, 0, GUID_NULL},
    };
    return table;
}

const SubtypeInfo* FindSubtype(const std::string& name) {
    for (const SubtypeInfo* s = Subtypes(); s->name; ++s)
        if (name == s->name) return s;
    return nullptr;
}

const SubtypeInfo* FindSubtype(const GUID& guid) {
    for (const SubtypeInfo* s = Subtypes(); s->name; ++s)
        if (IsEqualGUID(guid, s->guid)) return s;
    return nullptr;
}

}  // namespace

void BuildMediaType(const CamCap& cap, AM_MEDIA_TYPE* mt) {
    const SubtypeInfo* info = FindSubtype(cap.subtype);
    if (!info) info = FindSubtype(std::string("YUY2"));
    std::memset(mt, 0, sizeof(*mt));
    mt->majortype = MEDIATYPE_Video;
    mt->subtype = info->guid;
    const bool compressed = cap.subtype == "MJPG" || cap.subtype == "H264";
    mt->bFixedSizeSamples = compressed ? FALSE : TRUE;
    mt->bTemporalCompression = cap.subtype == "H264";

    BITMAPINFOHEADER bmi{};
    bmi.biSize = sizeof(bmi);
    bmi.biWidth = cap.width;
    bmi.biHeight = cap.height;
    bmi.biPlanes = 1;
    bmi.biBitCount = info->bits;
    bmi.biCompression = info->fourcc;
    const long absHeight = cap.height < 0 ? -cap.height : cap.height;
    bmi.biSizeImage = static_cast<DWORD>(cap.width) * static_cast<DWORD>(absHeight) * info->bits / 8;
    mt->lSampleSize = compressed ? 0 : bmi.biSizeImage;

    if (cap.vih2) {
        auto* vih = static_cast<VIDEOINFOHEADER2*>(CoTaskMemAlloc(sizeof(VIDEOINFOHEADER2)));
        std::memset(vih, 0, sizeof(*vih));
        vih->AvgTimePerFrame = cap.avg;
        vih->dwPictAspectRatioX = static_cast<DWORD>(cap.width);
        vih->dwPictAspectRatioY = static_cast<DWORD>(absHeight);
        vih->bmiHeader = bmi;
        mt->formattype = FORMAT_VideoInfo2;
        mt->cbFormat = sizeof(VIDEOINFOHEADER2);
        mt->pbFormat = reinterpret_cast<BYTE*>(vih);
    } else {
        auto* vih = static_cast<VIDEOINFOHEADER*>(CoTaskMemAlloc(sizeof(VIDEOINFOHEADER)));
        std::memset(vih, 0, sizeof(*vih));
        vih->AvgTimePerFrame = cap.avg;
        vih->bmiHeader = bmi;
        mt->formattype = FORMAT_VideoInfo;
        mt->cbFormat = sizeof(VIDEOINFOHEADER);
        mt->pbFormat = reinterpret_cast<BYTE*>(vih);
    }
}

void FreeMediaType(AM_MEDIA_TYPE* mt) {
    if (mt->pbFormat) CoTaskMemFree(mt->pbFormat);
    if (mt->pUnk) mt->pUnk->Release();
    std::memset(mt, 0, sizeof(*mt));
}

void CopyMediaType(AM_MEDIA_TYPE* dst, const AM_MEDIA_TYPE* src) {
    *dst = *src;
    if (src->cbFormat && src->pbFormat) {
        dst->pbFormat = static_cast<BYTE*>(CoTaskMemAlloc(src->cbFormat));
        std::memcpy(dst->pbFormat, src->pbFormat, src->cbFormat);
    } else {
        dst->pbFormat = nullptr;
        dst->cbFormat = 0;
    }
    if (dst->pUnk) dst->pUnk->AddRef();
}

bool ReadVideoHeader(const AM_MEDIA_TYPE* mt, BITMAPINFOHEADER* bmi, REFERENCE_TIME* avg) {
    if (!mt->pbFormat) return false;
    if (IsEqualGUID(mt->formattype, FORMAT_VideoInfo) && mt->cbFormat >= sizeof(VIDEOINFOHEADER)) {
        const auto* vih = reinterpret_cast<const VIDEOINFOHEADER*>(mt->pbFormat);
        *bmi = vih->bmiHeader;
        *avg = vih->AvgTimePerFrame;
        return true;
    }
    if (IsEqualGUID(mt->formattype, FORMAT_VideoInfo2) && mt->cbFormat >= sizeof(VIDEOINFOHEADER2)) {
        const auto* vih = reinterpret_cast<const VIDEOINFOHEADER2*>(mt->pbFormat);
        *bmi = vih->bmiHeader;
        *avg = vih->AvgTimePerFrame;
        return true;
    }
    return false;
}

int FindCap(const std::vector<CamCap>& caps, const AM_MEDIA_TYPE* mt) {
    BITMAPINFOHEADER bmi;
    REFERENCE_TIME avg;
    if (!IsEqualGUID(mt->majortype, MEDIATYPE_Video) || !ReadVideoHeader(mt, &bmi, &avg)) return -1;
    const SubtypeInfo* info = FindSubtype(mt->subtype);
    if (!info) return -1;
    const bool vih2 = IsEqualGUID(mt->formattype, FORMAT_VideoInfo2);
    for (size_t i = 0; i < caps.size(); ++i) {
        const CamCap& c = caps[i];
        if (c.subtype == info->name && c.vih2 == vih2 && c.width == bmi.biWidth && c.height == bmi.biHeight)
            return static_cast<int>(i);
    }
    return -1;
}

std::string DescribeMediaType(const AM_MEDIA_TYPE* mt) {
    BITMAPINFOHEADER bmi;
    REFERENCE_TIME avg;
    const SubtypeInfo* info = FindSubtype(mt->subtype);
    if (!info || !ReadVideoHeader(mt, &bmi, &avg)) return "unknown";
    char text[128];
    std::snprintf(text, sizeof(text), "%s:%ld:%ld:%s:%lld", info->name, static_cast<long>(bmi.biWidth),
                  static_cast<long>(bmi.biHeight), IsEqualGUID(mt->formattype, FORMAT_VideoInfo2) ? "vih2" : "vih",
                  static_cast<long long>(avg));
    return text;
}

std::vector<std::vector<BYTE>> ReadAccessUnits(const std::wstring& path) {
    std::vector<std::vector<BYTE>> units;
    FILE* f = _wfopen(path.c_str(), L"rb");
    if (!f) return units;
    std::vector<BYTE> data;
    BYTE chunk[65536];
    size_t n;
    while ((n = std::fread(chunk, 1, sizeof(chunk), f)) > 0) data.insert(data.end(), chunk, chunk + n);
    std::fclose(f);

    // NAL units start after 00 00 01; a new access unit begins at an access
    // unit delimiter, SPS, PPS or SEI, or at a slice whose first macroblock
    // is 0, once the current unit holds a slice.
    std::vector<size_t> starts;  // offsets of the start codes (3 or 4 bytes)
    for (size_t i = 0; i + 3 <= data.size(); ++i) {
        if (data[i] == 0 && data[i + 1] == 0 && data[i + 2] == 1) {
            starts.push_back(i > 0 && data[i - 1] == 0 ? i - 1 : i);
            i += 2;
        }
    }
    std::vector<BYTE> current;
    bool hasSlice = false;
    for (size_t k = 0; k < starts.size(); ++k) {
        const size_t begin = starts[k];
        const size_t end = k + 1 < starts.size() ? starts[k + 1] : data.size();
        size_t header = begin + (data[begin + 2] == 1 ? 3 : 4);
        if (header >= end) continue;
        const int type = data[header] & 0x1f;
        const bool slice = type == 1 || type == 5;
        const bool firstSlice = slice && header + 1 < end && (data[header + 1] & 0x80) != 0;
        const bool opensUnit = type == 9 || type == 7 || type == 8 || type == 6 || firstSlice;
        if (opensUnit && hasSlice) {
            units.push_back(current);
            current.clear();
            hasSlice = false;
        }
        current.insert(current.end(), data.begin() + static_cast<std::ptrdiff_t>(begin),
                       data.begin() + static_cast<std::ptrdiff_t>(end));
        hasSlice = hasSlice || slice;
    }
    if (hasSlice) units.push_back(current);
    return units;
}

}  // namespace testcam
