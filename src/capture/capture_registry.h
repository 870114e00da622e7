// Process-wide state of the capture devices, guarded by one device lock: the
// port that owns each device's graph, and what every port asked of a device.
#pragma once
#include <cstdint>
#include <mutex>

#include "capture_negotiation.h"

class KivVideoInput;

namespace kiv::capture {

std::mutex& DeviceLock();

// All of the following require DeviceLock().
KivVideoInput* ActiveSourceLocked(int32_t device);
void SetActiveSourceLocked(int32_t device, KivVideoInput* source);
// Removes the entry only while it still names source; true when it did.
bool RemoveActiveSourceLocked(int32_t device, KivVideoInput* source);

// A port registers one request per device; registering again replaces it.
void RegisterRequestLocked(int32_t device, const ClientRequest& request);
void RemoveRequestLocked(int32_t device, const void* port);
MergedRequest MergeDeviceRequestsLocked(int32_t device);

// Takes the lock for the merge.
MergedRequest MergeDeviceRequests(int32_t device);

}  // namespace kiv::capture
