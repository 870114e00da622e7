// Core Audio identifiers shared by the endpoint list and the audio ports,
// spelled out so that no compiler-specific uuid support is needed.
#pragma once
#include <windows.h>
#include <audioclient.h>
#include <mmdeviceapi.h>

#include <string>

namespace kiv::coreaudio {

const CLSID kClsidDeviceEnumerator = {0xBCDE0395, 0xE52F, 0x467C, {0x8E, 0x3D, 0xC4, 0x57, 0x92, 0x91, 0x69, 0x2E}};
const IID kIidDeviceEnumerator = {0xA95664D2, 0x9614, 0x4F35, {0xA7, 0x46, 0xDE, 0x8D, 0xB6, 0x36, 0x17, 0xE6}};
const IID kIidAudioClient = {0x1CB9AD4C, 0xDBFA, 0x4C32, {0xB1, 0x78, 0xC2, 0xF5, 0x68, 0xA7, 0x03, 0xB2}};
const IID kIidAudioCaptureClient = {0xC8ADBD64, 0xE71E, 0x48A0, {0xA4, 0xDE, 0x18, 0x5C, 0x39, 0x5C, 0xD3, 0x17}};
const IID kIidAudioRenderClient = {0xF294ACFC, 0x3146, 0x4483, {0xA7, 0xBF, 0xAD, 0xDC, 0xA7, 0xC2, 0x60, 0xE2}};
const PROPERTYKEY kKeyFriendlyName = {{0xA45C254E, 0xDF1C, 0x4EFD, {0x80, 0x20, 0x67, 0xD1, 0x46, 0xA8, 0x50, 0xE0}},
                                      14};

// UTF-8 of a wide string; empty when the conversion fails or is empty.
inline std::string Utf8(const wchar_t* text) {
    if (!text) return std::string();
    const int n = WideCharToMultiByte(CP_UTF8, 0, text, -1, nullptr, 0, nullptr, nullptr);
    if (n <= 1) return std::string();
    std::string out(static_cast<size_t>(n), '\0');
    if (WideCharToMultiByte(CP_UTF8, 0, text, -1, &out[0], n, nullptr, nullptr) != n) return std::string();
    out.resize(static_cast<size_t>(n - 1));
    return out;
}

template <class T>
void Release(T*& p) {
    if (p) {
        p->Release();
        p = nullptr;
    }
}

}  // namespace kiv::coreaudio
