// Process-wide library state shared by the exported functions.
#pragma once
#include <atomic>
#include <string>
#include <cstdint>
#include <vector>

#include "kivcapture.h"

namespace kiv {

bool LibraryInitialized();

// Device lists, rebuilt by KIV_Init and KIV_RefreshDeviceList.
const std::vector<KivDeviceInfo>& VideoDevices();
const std::vector<KivDeviceInfo>& AudioInputDevices();

// Process-wide default pipeline mode seeding each new render port.
int32_t DefaultPipelineMode();
void StoreDefaultPipelineMode(int32_t mode);

// Log file control used by KIV_EnableLog and the lifecycle.
int32_t EnableLog(int32_t enable);
void CloseLogWithTrailer();
void OpenLogForAppend();
std::string LogFilePath();

}  // namespace kiv
