// The list of active audio capture endpoints, in Core Audio's enumeration
// order; the audio input port selects its endpoint by the same index.
#include <algorithm>
#include <cstring>

#include "kiv_core_audio_win.h"
#include "kiv_platform.h"

namespace kiv::platform {

namespace {

void CopyCut(char* dst, size_t capacity, const std::string& text) {
    const size_t n = std::min(text.size(), capacity - 1);  // a multibyte character may be split
    std::memcpy(dst, text.data(), n);
    dst[n] = '\0';
}

std::string FriendlyName(IMMDevice* device) {
    IPropertyStore* store = nullptr;
    if (FAILED(device->OpenPropertyStore(STGM_READ, &store)) || !store) return std::string();
    std::string name;
    PROPVARIANT value;
    PropVariantInit(&value);
    if (SUCCEEDED(store->GetValue(coreaudio::kKeyFriendlyName, &value)) && value.vt == VT_LPWSTR) {
        name = coreaudio::Utf8(value.pwszVal);
    }
    PropVariantClear(&value);
    store->Release();
    return name;
}

}  // namespace

void EnumerateAudioInputDevices(std::vector<KivDeviceInfo>* out) {
    out->clear();
    IMMDeviceEnumerator* enumerator = nullptr;
    if (FAILED(CoCreateInstance(coreaudio::kClsidDeviceEnumerator, nullptr, CLSCTX_ALL, coreaudio::kIidDeviceEnumerator,
                                reinterpret_cast<void**>(&enumerator)))) {
        return;
    }
    IMMDeviceCollection* collection = nullptr;
    UINT count = 0;
    if (SUCCEEDED(enumerator->EnumAudioEndpoints(eCapture, DEVICE_STATE_ACTIVE, &collection)) &&
        SUCCEEDED(collection->GetCount(&count))) {
        for (UINT i = 0; i < count; ++i) {
            IMMDevice* device = nullptr;
            if (FAILED(collection->Item(i, &device)) || !device) break;
            KivDeviceInfo info;
            std::memset(&info, 0, sizeof info);
            info.index = static_cast<int32_t>(out->size());
            CopyCut(info.name, sizeof info.name, FriendlyName(device));
            LPWSTR id = nullptr;
            if (SUCCEEDED(device->GetId(&id)) && id) {
                CopyCut(info.path, sizeof info.path, coreaudio::Utf8(id));
                CoTaskMemFree(id);
            }
            if (info.name[0] == '\0') CopyCut(info.name, sizeof info.name, "Unknown Audio Device");
            out->push_back(info);
            device->Release();
        }
    }
    coreaudio::Release(collection);
    enumerator->Release();
}

}  // namespace kiv::platform
