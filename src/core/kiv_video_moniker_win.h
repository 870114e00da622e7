// Finding a video capture device again by the path of its list record.
#pragma once
#include <windows.h>
#include <strmif.h>

#include <string>

namespace kiv::platform {

std::string WideToUtf8(const wchar_t* text);

// The moniker of the video input device whose UTF-8 display name equals
// `path`; E_FAIL (or the failing call's result) when there is none.
HRESULT FindVideoDeviceMoniker(const std::string& path, IMoniker** out);

}  // namespace kiv::platform
