// Installing test cameras from a test or a tool: the camera DLL does the
// registry work; callers load it and call these two functions.
#pragma once
#include <windows.h>

#include <string>

extern "C" {
typedef HRESULT (*KivTestCamInstallFn)(const wchar_t* keyName, const wchar_t* friendlyName, const wchar_t* config);
typedef HRESULT (*KivTestCamRemoveAllFn)();
}

namespace testcam {

// The camera DLL as a Windows path (the build passes its Unix path; Wine
// maps the Unix root to drive Z:).
inline std::wstring CameraDllPath() {
#ifdef KIV_TESTCAM_DLL
    std::string unix = KIV_TESTCAM_DLL;
    std::wstring path = L"Z:";
    for (char c : unix) path += c == '/' ? L'\\' : static_cast<wchar_t>(c);
    return path;
#else
    return L"testcam.dll";
#endif
}

// Loads the camera DLL once for the process and hands out its functions.
class CameraInstaller {
public:
    CameraInstaller() : module_(LoadLibraryW(CameraDllPath().c_str())) {
        if (module_) {
            install_ = reinterpret_cast<KivTestCamInstallFn>(
                reinterpret_cast<void*>(GetProcAddress(module_, "KivTestCamInstall")));
            removeAll_ = reinterpret_cast<KivTestCamRemoveAllFn>(
                reinterpret_cast<void*>(GetProcAddress(module_, "KivTestCamRemoveAll")));
        }
    }
    ~CameraInstaller() {
        if (module_) FreeLibrary(module_);
    }
    bool Loaded() const { return install_ && removeAll_; }
    // friendlyName null: the entry has no FriendlyName value.
    HRESULT Install(const wchar_t* keyName, const wchar_t* friendlyName, const wchar_t* config) const {
        return install_ ? install_(keyName, friendlyName, config) : E_FAIL;
    }
    HRESULT RemoveAll() const { return removeAll_ ? removeAll_() : E_FAIL; }

private:
    HMODULE module_;
    KivTestCamInstallFn install_ = nullptr;
    KivTestCamRemoveAllFn removeAll_ = nullptr;
};

}  // namespace testcam
