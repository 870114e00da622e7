#include "kiv_wide_path.h"

#include <cwchar>

namespace kiv {

namespace {

void AppendUtf8(std::string& out, uint32_t cp) {
    if (cp < 0x80) {
        out.push_back(static_cast<char>(cp));
    } else if (cp < 0x800) {
        out.push_back(static_cast<char>(0xC0 | (cp >> 6)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else if (cp < 0x10000) {
        out.push_back(static_cast<char>(0xE0 | (cp >> 12)));
        out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else {
        out.push_back(static_cast<char>(0xF0 | (cp >> 18)));
        out.push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    }
}

}  // namespace

std::string Utf16ToUtf8Limited(const KivWChar* text, size_t maxBytes) {
    std::string out;
    if (!text || maxBytes == 0) return out;
    for (size_t i = 0; text[i] != 0; ++i) {
        uint32_t cp = static_cast<uint16_t>(text[i]);
        if (cp >= 0xD800 && cp <= 0xDBFF && text[i + 1] >= 0xDC00 && text[i + 1] <= 0xDFFF) {
            cp = 0x10000 + ((cp - 0xD800) << 10) + (static_cast<uint16_t>(text[i + 1]) - 0xDC00);
            ++i;
        } else if (cp >= 0xD800 && cp <= 0xDFFF) {
            cp = 0xFFFD;
        }
        const size_t before = out.size();
        AppendUtf8(out, cp);
        if (out.size() > maxBytes - 1) {
            out.resize(before);
            break;
        }
    }
    return out;
}

std::string Utf16ToUtf8(const KivWChar* text) { return Utf16ToUtf8Limited(text, static_cast<size_t>(-1)); }

std::FILE* OpenWideFile(const KivWChar* path, const char* mode) {
    if (!path || !mode) return nullptr;
#if defined(_WIN32)
    wchar_t wideMode[8] = {};
    for (size_t i = 0; i < 7 && mode[i]; ++i) wideMode[i] = static_cast<wchar_t>(mode[i]);
    return _wfopen(path, wideMode);
#else
    return std::fopen(Utf16ToUtf8(path).c_str(), mode);
#endif
}

}  // namespace kiv
