// Installing test cameras from a test or a tool: the camera DLL does the
// registry work; callers load it once for the process and call its functions.
#pragma once
#include <windows.h>

#include <string>

namespace testcam {

// A Unix path as the Windows side sees it (Wine maps the Unix root to Z:).
inline std::string WinePath(const std::string& unixPath) {
    std::string path = "Z:";
    for (char c : unixPath) path += c == '/' ? '\\' : c;
    return path;
}

// Loads the camera DLL for the process; friendlyName null: the entry has no
// FriendlyName value.
class CameraInstaller {
public:
    CameraInstaller() {
        const std::string path = WinePath(KIV_TESTCAM_DLL);
        module_ = LoadLibraryW(std::wstring(path.begin(), path.end()).c_str());
    }
    ~CameraInstaller() {
        if (module_) FreeLibrary(module_);
    }
    bool Loaded() const { return Function("KivTestCamInstall") && Function("KivTestCamRemoveAll"); }
    HRESULT Install(const wchar_t* keyName, const wchar_t* friendlyName, const wchar_t* config) const {
        auto install = reinterpret_cast<HRESULT (*)(const wchar_t*, const wchar_t*, const wchar_t*)>(
            Function("KivTestCamInstall"));
        return install ? install(keyName, friendlyName, config) : E_FAIL;
    }
    HRESULT RemoveAll() const {
        auto removeAll = reinterpret_cast<HRESULT (*)()>(Function("KivTestCamRemoveAll"));
        return removeAll ? removeAll() : E_FAIL;
    }

private:
    void* Function(const char* name) const {
        return module_ ? reinterpret_cast<void*>(GetProcAddress(module_, name)) : nullptr;
    }
    HMODULE module_;
};

}  // namespace testcam
