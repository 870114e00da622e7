#include "recorder_path.h"

namespace kiv {

namespace {

// Decodes one UTF-8 sequence at `s`; malformed input gives U+FFFD and
// consumes one byte.
char32_t DecodeUtf8(const unsigned char*& s) {
    const unsigned char lead = *s++;
    int extra = 0;
    char32_t cp = 0;
    if (lead < 0x80) return lead;
    if ((lead & 0xE0) == 0xC0) {
        extra = 1;
        cp = lead & 0x1F;
    } else if ((lead & 0xF0) == 0xE0) {
        extra = 2;
        cp = lead & 0x0F;
    } else if ((lead & 0xF8) == 0xF0) {
        extra = 3;
        cp = lead & 0x07;
    } else {
        return 0xFFFD;
    }
    const unsigned char* p = s;
    for (int i = 0; i < extra; ++i, ++p) {
        if ((*p & 0xC0) != 0x80) return 0xFFFD;
        cp = (cp << 6) | (*p & 0x3F);
    }
    static const char32_t kMin[4] = {0, 0x80, 0x800, 0x10000};
    if (cp < kMin[extra] || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return 0xFFFD;
    s = p;
    return cp;
}

}  // namespace

RecorderPath WidenCreationText(const char* text) {
    RecorderPath wide;
    if (!text) return wide;
    const unsigned char* s = reinterpret_cast<const unsigned char*>(text);
    while (*s) {
        const char32_t cp = DecodeUtf8(s);
        if (cp >= 0x10000) {
            wide.push_back(static_cast<KivWChar>(0xD800 + ((cp - 0x10000) >> 10)));
            wide.push_back(static_cast<KivWChar>(0xDC00 + ((cp - 0x10000) & 0x3FF)));
        } else {
            wide.push_back(static_cast<KivWChar>(cp));
        }
    }
    return wide;
}

std::wstring PathForLog(const RecorderPath& path) {
    std::wstring out;
    out.reserve(path.size());
    for (size_t i = 0; i < path.size(); ++i) {
        char32_t unit = path[i];
        if (unit >= 0xD800 && unit <= 0xDBFF && i + 1 < path.size() && path[i + 1] >= 0xDC00 && path[i + 1] <= 0xDFFF) {
            unit = 0x10000 + ((unit - 0xD800) << 10) + (path[i + 1] - 0xDC00);
            ++i;
        }
        out.push_back(static_cast<wchar_t>(unit));
    }
    return out;
}

}  // namespace kiv
