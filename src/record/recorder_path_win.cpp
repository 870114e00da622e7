#include <windows.h>

#include "recorder_path.h"

namespace kiv {

RecorderPath WidenCreationText(const char* text) {
    if (!text || !*text) return RecorderPath();
    const int count = MultiByteToWideChar(CP_ACP, 0, text, -1, nullptr, 0);
    if (count <= 1) return RecorderPath();
    RecorderPath wide(static_cast<size_t>(count), L'\0');
    MultiByteToWideChar(CP_ACP, 0, text, -1, &wide[0], count);
    wide.resize(static_cast<size_t>(count - 1));
    return wide;
}

std::wstring PathForLog(const RecorderPath& path) { return path; }

}  // namespace kiv
