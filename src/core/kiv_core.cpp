// Library start-up and shutdown, the device lists and the runtime log.
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>

#include "kiv_log.h"
#include "kiv_platform.h"
#include "kiv_state.h"
#include "kiv_video_caps.h"

namespace kiv {
namespace {

constexpr const char* kVersion = "6.0.6";
constexpr const char* kLogName = "kivcapture.log";
constexpr size_t kMaxPath = 260;
constexpr size_t kMessageBytes = 2048;
constexpr size_t kLineBytes = 2400;

std::atomic<bool> g_initialized{false};
bool g_comInitializedHere = false;
std::atomic<int32_t> g_logEnabled{0};
std::atomic<int32_t> g_defaultPipelineMode{0};
FILE* g_logFile = nullptr;  // guarded by LogLock()
std::vector<KivDeviceInfo> g_videoDevices;
std::vector<KivDeviceInfo> g_audioDevices;

platform::SlimLock& LogLock() {
    static platform::SlimLock lock;
    return lock;
}

// Requires LogLock().
bool OpenLogLocked(bool truncate) {
    if (g_logFile) return true;
    g_logFile = std::fopen(LogFilePath().c_str(), truncate ? "wb" : "ab");
    if (!g_logFile) return false;
    const platform::LocalTime t = platform::Now();
    std::fprintf(g_logFile, "==== kivcapture log started %04u-%02u-%02u %02u:%02u:%02u pid=%lu ====\r\n", t.year,
                 t.month, t.day, t.hour, t.minute, t.second, platform::CurrentProcessId());
    std::fflush(g_logFile);
    return true;
}

// Requires LogLock().
void CloseLogLocked(const char* trailer) {
    if (!g_logFile) return;
    std::fputs(trailer, g_logFile);
    std::fflush(g_logFile);
    std::fclose(g_logFile);
    g_logFile = nullptr;
}

const char* BaseName(const char* path) {
    if (!path) return "";
    const char* slash = std::strrchr(path, '/');
    const char* backslash = std::strrchr(path, '\\');
    const char* last = slash > backslash ? slash : backslash;
    return last ? last + 1 : path;
}

void RebuildDeviceLists() {
    platform::EnumerateVideoDevices(&g_videoDevices);
    platform::EnumerateAudioInputDevices(&g_audioDevices);
    ResetVideoCapabilityCache(g_videoDevices.size());
}

}  // namespace

bool LogEnabled() { return g_logEnabled.load() != 0; }
bool LibraryInitialized() { return g_initialized.load(); }
const std::vector<KivDeviceInfo>& VideoDevices() { return g_videoDevices; }
const std::vector<KivDeviceInfo>& AudioInputDevices() { return g_audioDevices; }
int32_t DefaultPipelineMode() { return g_defaultPipelineMode.load() == 1 ? 1 : 0; }
void StoreDefaultPipelineMode(int32_t mode) { g_defaultPipelineMode.exchange(mode); }

std::string LogFilePath() {
    const std::string exe = platform::ExecutablePath();
    if (exe.empty() || exe.size() >= kMaxPath) return kLogName;
    const size_t cut = exe.find_last_of("/\\");
    std::string path = cut == std::string::npos ? std::string() : exe.substr(0, cut + 1);
    if (path.size() < kMaxPath - 1) {
        path += kLogName;
        if (path.size() > kMaxPath - 1) path.resize(kMaxPath - 1);
    }
    return path;
}

int32_t EnableLog(int32_t enable) {
    platform::SlimLockGuard guard(LogLock());
    if (enable) {
        if (g_logEnabled.load() == 0) {
            CloseLogLocked("");
        } else if (g_logFile) {
            return KIV_OK;  // already on: the file is recreated once per run
        }
        const bool opened = OpenLogLocked(true);
        g_logEnabled.exchange(opened ? 1 : 0);
        if (!opened) return KIV_ERROR_FAILED;
        std::fputs("[LOG] runtime logging enabled, file is recreated for this application run.\r\n", g_logFile);
        std::fflush(g_logFile);
        return KIV_OK;
    }
    g_logEnabled.exchange(0);
    CloseLogLocked("[LOG] runtime logging disabled.\r\n");
    return KIV_OK;
}

void OpenLogForAppend() {
    platform::SlimLockGuard guard(LogLock());
    if (g_logEnabled.load()) OpenLogLocked(false);
}

void CloseLogWithTrailer() {
    platform::SlimLockGuard guard(LogLock());
    CloseLogLocked("==== kivcapture log closed ====\r\n");
}

}  // namespace kiv

using namespace kiv;

extern "C" void KivLogWrite(const char* sourcePath, int32_t line, const char* format, ...) {
    if (g_logEnabled.load() == 0) return;

    char message[kMessageBytes];
    int n = -1;
    if (format) {
        va_list args;
        va_start(args, format);
        n = std::vsnprintf(message, sizeof(message), format, args);
        va_end(args);
    }
    if (n < 0 || static_cast<size_t>(n) >= sizeof(message)) {
        // A message that does not fit is replaced whole rather than cut.
        std::snprintf(message, sizeof(message), "<log format failed: %s>", format ? format : "");
    }

    const platform::LocalTime t = platform::Now();
    char text[kLineBytes];
    std::snprintf(text, sizeof(text), "[%02u:%02u:%02u.%03u][tid=%lu][%s:%d] %s\r\n", t.hour, t.minute, t.second,
                  t.millisecond, platform::CurrentThreadId(), BaseName(sourcePath), static_cast<int>(line), message);
    platform::DebugOutput(text);

    platform::SlimLockGuard guard(LogLock());
    if (g_logEnabled.load() == 0) return;
    if (!g_logFile && !OpenLogLocked(false)) return;
    std::fputs(text, g_logFile);
    std::fflush(g_logFile);
}

extern "C" {

KivResult KIV_CALL KIV_Init(void) {
    bool comHere = false;
    if (!platform::ComInitialize(&comHere)) return KIV_ERROR_FAILED;
    g_comInitializedHere = comHere;
    OpenLogForAppend();
    KIV_LOG("KIV_Init version=%s defaultPipelineMode=%d", kVersion, DefaultPipelineMode());
    uint32_t hr = 0;
    if (!platform::MediaStartup(&hr)) {
        KIV_LOG("MFStartup failed hr=0x%08X", hr);
        if (g_comInitializedHere) {
            platform::ComUninitialize();
            g_comInitializedHere = false;
        }
        CloseLogWithTrailer();
        return KIV_ERROR_FAILED;
    }
    g_initialized.exchange(true);
    RebuildDeviceLists();
    KIV_LOG("Device enum completed video=%d audio=%d", static_cast<int>(g_videoDevices.size()),
            static_cast<int>(g_audioDevices.size()));
    return KIV_OK;
}

KivResult KIV_CALL KIV_Shutdown(void) {
    g_videoDevices.clear();
    g_videoDevices.shrink_to_fit();
    g_audioDevices.clear();
    g_audioDevices.shrink_to_fit();
    ClearVideoCapabilityCache();
    KIV_LOG("KIV_Shutdown");
    if (g_initialized.load()) {
        platform::MediaShutdown();
        platform::ComFreeUnusedLibraries();
        if (g_comInitializedHere) {
            platform::ComUninitialize();
            g_comInitializedHere = false;
        }
    }
    g_initialized.exchange(false);
    CloseLogWithTrailer();
    return KIV_OK;
}

KivResult KIV_CALL KIV_RefreshDeviceList(void) {
    if (!g_initialized.load()) return KIV_ERROR_NOT_INITIALIZED;
    KIV_LOG("KIV_RefreshDeviceList");
    RebuildDeviceLists();
    KIV_LOG("Device refresh completed video=%d audio=%d", static_cast<int>(g_videoDevices.size()),
            static_cast<int>(g_audioDevices.size()));
    return KIV_OK;
}

KivResult KIV_CALL KIV_EnableLog(int32_t enable) { return kiv::EnableLog(enable); }

}  // extern "C"
