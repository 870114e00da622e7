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

// Loads the camera DLL for the process; friendlyName null: the entry has no FriendlyName value.
class CameraInstaller {
public:
    CameraInstaller() {
        const std::string path = WinePath(KIV_TESTCAM_DLL);
        const HMODULE module = LoadLibraryW(std::wstring(path.begin(), path.end()).c_str());
        auto get = [module](const char* name) { return module ? reinterpret_cast<void*>(GetProcAddress(module, name)) : nullptr; };
        install_ = reinterpret_cast<decltype(install_)>(get("KivTestCamInstall"));
        removeAll_ = reinterpret_cast<decltype(removeAll_)>(get("KivTestCamRemoveAll"));
    }
    bool Loaded() const { return install_ && removeAll_; }
    HRESULT Install(const wchar_t* keyName, const wchar_t* friendlyName, const wchar_t* config) const {
        return install_ ? install_(keyName, friendlyName, config) : E_FAIL;
    }
    HRESULT RemoveAll() const { return removeAll_ ? removeAll_() : E_FAIL; }

private:
    HRESULT (*install_)(const wchar_t*, const wchar_t*, const wchar_t*);
    HRESULT (*removeAll_)();
};

}  // namespace testcam
