// Native build: there are no video devices to probe or show.
#include "kiv_video_devices.h"

namespace kiv::platform {

bool ProbeVideoCapabilities(const std::string&, std::vector<KivVideoCapability>* out) {
    out->clear();
    return false;
}

int32_t ShowVideoPropertyPage(const std::string&, void*, bool) { return KIV_ERROR_INVALID_ARG; }

}  // namespace kiv::platform
