// Exported capability tables and property pages of the video devices.
#include "../core/kiv_log.h"
#include "../core/kiv_state.h"
#include "../core/kiv_video_caps.h"
#include "../core/kiv_video_devices.h"

namespace {

int32_t CapabilityCount(int32_t device) {
    if (!kiv::LibraryInitialized()) return 0;
    const int32_t count = kiv::EnsureVideoCapabilities(device)
                              ? static_cast<int32_t>(kiv::VideoCapabilities(device).size())
                              : 0;
    KIV_LOG("Video capability count device=%d count=%d", device, count);
    return count;
}

KivResult Capability(int32_t device, int32_t index, KivVideoCapability* out) {
    if (!kiv::LibraryInitialized()) return KIV_ERROR_NOT_INITIALIZED;
    if (!out || index < 0 || !kiv::EnsureVideoCapabilities(device)) return KIV_ERROR_INVALID_ARG;
    const std::vector<KivVideoCapability>& table = kiv::VideoCapabilities(device);
    if (index >= static_cast<int32_t>(table.size())) return KIV_ERROR_INVALID_ARG;
    *out = table[static_cast<size_t>(index)];
    return KIV_OK;
}

// The device is found by the path of its list record; a device that is not
// listed (bad index, or the library not started) cannot be found.
KivResult ShowProps(int32_t device, void* parent, bool crossbar) {
    const std::vector<KivDeviceInfo>& devices = kiv::VideoDevices();
    if (device < 0 || device >= static_cast<int32_t>(devices.size())) return KIV_ERROR_INVALID_ARG;
    return kiv::platform::ShowVideoPropertyPage(devices[static_cast<size_t>(device)].path, parent, crossbar);
}

}  // namespace

extern "C" {

int32_t KIV_CALL KIV_GetVideoCapabilityCount(int32_t deviceIndex) { return CapabilityCount(deviceIndex); }

KivResult KIV_CALL KIV_GetVideoCapability(int32_t deviceIndex, int32_t index, KivVideoCapability* out) {
    return Capability(deviceIndex, index, out);
}

int32_t KIV_CALL KIV_GetVideoFormatCount(int32_t deviceIndex) { return CapabilityCount(deviceIndex); }

KivResult KIV_CALL KIV_GetVideoFormatInfo(int32_t deviceIndex, int32_t index, KivVideoCapability* out) {
    return Capability(deviceIndex, index, out);
}

KivResult KIV_CALL KIV_ShowVideoDevicePropertyPage(int32_t deviceIndex, void* parentWindow) {
    return ShowProps(deviceIndex, parentWindow, false);
}

KivResult KIV_CALL KIV_ShowVideoCrossbarPropertyPage(int32_t deviceIndex, void* parentWindow) {
    return ShowProps(deviceIndex, parentWindow, true);
}

}  // extern "C"
