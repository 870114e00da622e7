// Text conversions of the recorder's file path.
#pragma once
#include <string>

#include "recorder_settings.h"

namespace kiv {

// The creation text in the system code page (ANSI on Windows, UTF-8
// elsewhere) as UTF-16; empty for null.
RecorderPath WidenCreationText(const char* text);

// The path as a wchar_t string for "%S" in log lines.
std::wstring PathForLog(const RecorderPath& path);

}  // namespace kiv
