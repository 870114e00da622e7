// The narrow seam between the portable core and the operating system.
// Windows implements it with COM, Media Foundation and Win32; the native
// Linux build has no platform start-up and no devices.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

#include "kivcapture.h"

namespace kiv::platform {

struct LocalTime {
    unsigned year, month, day, hour, minute, second, millisecond;
};

// COM apartment of the calling thread. Returns false only for a failure that
// must stop KIV_Init; *initializedHere tells whether an uninitialise is owed.
bool ComInitialize(bool* initializedHere);
void ComUninitialize();
void ComFreeUnusedLibraries();

// Media Foundation start-up; on failure *hr receives the platform result.
bool MediaStartup(uint32_t* hr);
void MediaShutdown();

// Full path of the host process image in the system code page; empty when it
// cannot be had.
std::string ExecutablePath();
unsigned long CurrentThreadId();
unsigned long CurrentProcessId();
LocalTime Now();
void DebugOutput(const char* line);

// Steady clock in 100 ns units (performance counter on Windows).
int64_t SteadyNow100ns();

// Device discovery; the native build finds none.
void EnumerateVideoDevices(std::vector<KivDeviceInfo>* out);
void EnumerateAudioInputDevices(std::vector<KivDeviceInfo>* out);

// A slim exclusive lock (SRW lock on Windows).
class SlimLock {
public:
    SlimLock();
    ~SlimLock();
    SlimLock(const SlimLock&) = delete;
    SlimLock& operator=(const SlimLock&) = delete;
    void Lock();
    void Unlock();

private:
    alignas(void*) unsigned char storage_[64];
};

class SlimLockGuard {
public:
    explicit SlimLockGuard(SlimLock& lock) : lock_(lock) { lock_.Lock(); }
    ~SlimLockGuard() { lock_.Unlock(); }
    SlimLockGuard(const SlimLockGuard&) = delete;
    SlimLockGuard& operator=(const SlimLockGuard&) = delete;

private:
    SlimLock& lock_;
};

}  // namespace kiv::platform
