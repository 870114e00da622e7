// Lets tests stand in for the Media Foundation sink writer (which Wine does
// not have), so the encoder's use of it can be checked call by call.
#pragma once
#include <windows.h>

#include <mfidl.h>
#include <mfreadwrite.h>

namespace kiv {

using SinkWriterFactory = HRESULT (*)(const wchar_t* url, IMFAttributes* attributes, IMFSinkWriter** writer);

// Null goes back to MFCreateSinkWriterFromURL.
void SetSinkWriterFactory(SinkWriterFactory factory);

}  // namespace kiv
