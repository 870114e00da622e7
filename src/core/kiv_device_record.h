// Device information records as the lists hold them: names cut to their
// fixed fields (a multibyte UTF-8 character may be split at the cut).
#pragma once
#include <cstdint>
#include <string>

#include "kivcapture.h"

namespace kiv {

// Copies at most fieldBytes - 1 bytes of text and zero-fills the rest.
void CopyTextField(char* field, size_t fieldBytes, const std::string& text);

// A video device record: `friendlyName` may be empty (unreadable), which
// lists the device as "Unknown Device".
KivDeviceInfo MakeVideoDeviceRecord(int32_t index, const std::string& displayName, const std::string& friendlyName);

}  // namespace kiv
