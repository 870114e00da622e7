// The platform side of the video devices, given the device's path (the
// moniker display name of its list record). The native build has none.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

#include "kivcapture.h"

namespace kiv::platform {

// Reads the capability table from the device's capture pin; false when the
// device or its stream configuration cannot be had.
bool ProbeVideoCapabilities(const std::string& path, std::vector<KivVideoCapability>* out);

// Shows the device's own settings dialog, or its crossbar's; returns the
// KivResult of the exported property-page functions.
int32_t ShowVideoPropertyPage(const std::string& path, void* parentWindow, bool crossbar);

}  // namespace kiv::platform
