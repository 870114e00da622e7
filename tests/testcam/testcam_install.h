// Installing test cameras from a test or a tool: the camera DLL does the
// registry work; callers load it once for the process and call its functions.
#pragma once
#include <windows.h>

#include <string>

namespace testcam {

// The camera DLL as a Windows path (the build passes its Unix path; Wine maps
// the Unix root to drive Z:).
inline std::wstring CameraDllPath() {
#ifdef KIV_TESTCAM_DLL
    std::wstring path = L"Z:";
    for (const char* c = KIV_TESTCAM_DLL; *c; ++c) path += *c == '/' ? L'\\' : static_cast<wchar_t>(*c);
    return path;
#else
    return L"testcam.dll";
#endif
}

class CameraInstaller {
public:
    CameraInstaller() : module_(LoadLibraryW(CameraDllPath().c_str())) {
        if (!module_) return;
        install_ = reinterpret_cast<InstallFn>(reinterpret_cast<void*>(GetProcAddress(module_, "KivTestCamInstall")));
        removeAll_ =
            reinterpret_cast<RemoveAllFn>(reinterpret_cast<void*>(GetProcAddress(module_, "KivTestCamRemoveAll")));
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
    using InstallFn = HRESULT (*)(const wchar_t* keyName, const wchar_t* friendlyName, const wchar_t* config);
    using RemoveAllFn = HRESULT (*)();
    HMODULE module_;
    InstallFn install_ = nullptr;
    RemoveAllFn removeAll_ = nullptr;
};

}  // namespace testcam
