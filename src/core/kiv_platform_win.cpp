// Windows platform layer: COM apartment, Media Foundation start-up, the
// process image path, debugger output and the slim reader/writer lock.
#include <windows.h>
#include <mfapi.h>
#include <objbase.h>

#include <new>

#include "kiv_platform.h"

namespace kiv::platform {

bool ComInitialize(bool* initializedHere) {
    HRESULT hr = CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
    *initializedHere = SUCCEEDED(hr);
    return SUCCEEDED(hr) || hr == RPC_E_CHANGED_MODE;
}
void ComUninitialize() { CoUninitialize(); }
void ComFreeUnusedLibraries() {
    CoFreeUnusedLibraries();
    CoFreeUnusedLibrariesEx(0, 0);
}

bool MediaStartup(uint32_t* hr) {
    HRESULT result = MFStartup(MF_VERSION, MFSTARTUP_FULL);
    *hr = static_cast<uint32_t>(result);
    return SUCCEEDED(result);
}
void MediaShutdown() { MFShutdown(); }

std::string ExecutablePath() {
    char buffer[MAX_PATH];
    DWORD n = GetModuleFileNameA(nullptr, buffer, MAX_PATH);
    if (n == 0 || n >= MAX_PATH) return std::string();
    return std::string(buffer, n);
}

unsigned long CurrentThreadId() { return GetCurrentThreadId(); }
unsigned long CurrentProcessId() { return GetCurrentProcessId(); }

LocalTime Now() {
    SYSTEMTIME st;
    GetLocalTime(&st);
    return LocalTime{st.wYear, st.wMonth, st.wDay, st.wHour, st.wMinute, st.wSecond, st.wMilliseconds};
}

void DebugOutput(const char* line) { OutputDebugStringA(line); }

int64_t SteadyNow100ns() {
    static const int64_t frequency = [] {
        LARGE_INTEGER f;
        QueryPerformanceFrequency(&f);
        return static_cast<int64_t>(f.QuadPart);
    }();
    LARGE_INTEGER counter;
    QueryPerformanceCounter(&counter);
    const int64_t ticks = counter.QuadPart;
    // Split to avoid overflow of ticks * 10^7.
    return (ticks / frequency) * 10000000 + (ticks % frequency) * 10000000 / frequency;
}

static_assert(sizeof(SRWLOCK) <= 64, "SlimLock storage too small");

SlimLock::SlimLock() { InitializeSRWLock(reinterpret_cast<SRWLOCK*>(storage_)); }
SlimLock::~SlimLock() {}
void SlimLock::Lock() { AcquireSRWLockExclusive(reinterpret_cast<SRWLOCK*>(storage_)); }
void SlimLock::Unlock() { ReleaseSRWLockExclusive(reinterpret_cast<SRWLOCK*>(storage_)); }

}  // namespace kiv::platform
