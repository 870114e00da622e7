// Native (non-Windows) platform layer: no COM, no Media Foundation, no devices.
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <climits>
#include <mutex>
#include <new>

#include "kiv_platform.h"

namespace kiv::platform {

bool ComInitialize(bool* initializedHere) {
    *initializedHere = false;
    return true;
}
void ComUninitialize() {}
void ComFreeUnusedLibraries() {}

bool MediaStartup(uint32_t* hr) {
    *hr = 0;
    return true;
}
void MediaShutdown() {}

std::string ExecutablePath() {
    char buffer[PATH_MAX];
    ssize_t n = readlink("/proc/self/exe", buffer, sizeof(buffer) - 1);
    if (n <= 0) return std::string();
    return std::string(buffer, static_cast<size_t>(n));
}

unsigned long CurrentThreadId() { return static_cast<unsigned long>(syscall(SYS_gettid)); }
unsigned long CurrentProcessId() { return static_cast<unsigned long>(getpid()); }

LocalTime Now() {
    timespec ts{};
    clock_gettime(CLOCK_REALTIME, &ts);
    tm local{};
    localtime_r(&ts.tv_sec, &local);
    return LocalTime{static_cast<unsigned>(local.tm_year + 1900), static_cast<unsigned>(local.tm_mon + 1),
                     static_cast<unsigned>(local.tm_mday),        static_cast<unsigned>(local.tm_hour),
                     static_cast<unsigned>(local.tm_min),         static_cast<unsigned>(local.tm_sec),
                     static_cast<unsigned>(ts.tv_nsec / 1000000)};
}

void DebugOutput(const char*) {}

int64_t SteadyNow100ns() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 10000000 + ts.tv_nsec / 100;
}

void EnumerateVideoDevices(std::vector<KivDeviceInfo>* out) { out->clear(); }
void EnumerateAudioInputDevices(std::vector<KivDeviceInfo>* out) { out->clear(); }

static_assert(sizeof(std::mutex) <= 64, "SlimLock storage too small");

SlimLock::SlimLock() { new (storage_) std::mutex(); }
SlimLock::~SlimLock() { reinterpret_cast<std::mutex*>(storage_)->~mutex(); }
void SlimLock::Lock() { reinterpret_cast<std::mutex*>(storage_)->lock(); }
void SlimLock::Unlock() { reinterpret_cast<std::mutex*>(storage_)->unlock(); }

}  // namespace kiv::platform
