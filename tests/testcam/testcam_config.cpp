#include "testcam_config.h"

#include <cstdlib>

namespace testcam {
namespace {

std::vector<std::wstring> Split(const std::wstring& text, wchar_t sep) {
    std::vector<std::wstring> parts;
    size_t start = 0;
    for (;;) {
        const size_t end = text.find(sep, start);
        parts.push_back(text.substr(start, end == std::wstring::npos ? std::wstring::npos : end - start));
        if (end == std::wstring::npos) return parts;
        start = end + 1;
    }
}

std::string Narrow(const std::wstring& s) { return std::string(s.begin(), s.end()); }

}  // namespace

CamConfig ParseConfig(const std::wstring& text) {
    CamConfig config;
    for (const std::wstring& entry : Split(text, L';')) {
        const size_t eq = entry.find(L'=');
        if (eq == std::wstring::npos) continue;
        const std::wstring key = entry.substr(0, eq);
        const std::wstring value = entry.substr(eq + 1);
        if (key == L"cap") {
            const std::vector<std::wstring> f = Split(value, L':');
            if (f.size() != 7) continue;
            CamCap cap;
            cap.subtype = Narrow(f[0]);
            cap.width = std::wcstol(f[1].c_str(), nullptr, 10);
            cap.height = std::wcstol(f[2].c_str(), nullptr, 10);
            cap.vih2 = f[3] == L"vih2";
            cap.avg = std::wcstoll(f[4].c_str(), nullptr, 10);
            cap.min = std::wcstoll(f[5].c_str(), nullptr, 10);
            cap.max = std::wcstoll(f[6].c_str(), nullptr, 10);
            config.caps.push_back(cap);
        } else if (key == L"page") {
            config.page = value == L"1";
        } else if (key == L"nocfg") {
            config.noStreamConfig = value == L"1";
        } else if (key == L"record") {
            config.recordPath = value;
        } else if (key == L"h264") {
            config.h264Path = value;
        }
    }
    return config;
}

}  // namespace testcam
