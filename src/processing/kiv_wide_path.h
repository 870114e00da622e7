// Wide-character (UTF-16) paths: opening files and text for the log.
#pragma once
#include <cstdio>
#include <string>

#include "kivcapture.h"

namespace kiv {

// UTF-8 text of a zero-terminated UTF-16 string; unpaired surrogates become
// U+FFFD. Empty for null.
std::string Utf16ToUtf8(const KivWChar* text);

// The same, cut to at most maxBytes - 1 bytes on a character boundary, for
// fixed-size log buffers.
std::string Utf16ToUtf8Limited(const KivWChar* text, size_t maxBytes);

// fopen for a UTF-16 path: _wfopen on Windows, the UTF-8 path elsewhere.
std::FILE* OpenWideFile(const KivWChar* path, const char* mode);

}  // namespace kiv
