// The camera DLL: class factory, the trivial property page, and the
// functions that install camera instances where the system device
// enumerator looks for video capture devices.
#include <cstring>
#include <string>

#include "testcam.h"

namespace testcam {

// {9CD1D6BD-FD91-4036-B021-8664EC006260}
const CLSID CLSID_TestCam = {0x9cd1d6bd, 0xfd91, 0x4036, {0xb0, 0x21, 0x86, 0x64, 0xec, 0x00, 0x62, 0x60}};
// {AC54F4C5-B66C-4630-A981-9EFC32C2C565}
const CLSID CLSID_TestCamPage = {0xac54f4c5, 0xb66c, 0x4630, {0xa9, 0x81, 0x9e, 0xfc, 0x32, 0xc2, 0xc5, 0x65}};
std::atomic<long> g_objects{0};

namespace {

HMODULE g_module = nullptr;
std::atomic<long> g_locks{0};

class TestCamPage : public SingleInterface<IPropertyPage> {
public:
    TestCamPage() : SingleInterface(IID_IPropertyPage) {}
    virtual ~TestCamPage() {
        Deactivate();
        if (site_) site_->Release();
    }
    STDMETHODIMP SetPageSite(IPropertyPageSite* site) override {
        if (site) site->AddRef();
        if (site_) site_->Release();
        site_ = site;
        return S_OK;
    }
    STDMETHODIMP Activate(HWND parent, LPCRECT rect, BOOL) override {
        window_ = CreateWindowExW(0, L"STATIC", L"KIV test camera", WS_CHILD, rect->left, rect->top,
                                  rect->right - rect->left, rect->bottom - rect->top, parent, nullptr, g_module,
                                  nullptr);
        return window_ ? S_OK : E_FAIL;
    }
    STDMETHODIMP Deactivate() override {
        if (window_) DestroyWindow(window_);
        window_ = nullptr;
        return S_OK;
    }
    STDMETHODIMP GetPageInfo(PROPPAGEINFO* info) override {
        if (!info) return E_POINTER;
        static const wchar_t title[] = L"Test camera";
        std::memset(info, 0, sizeof(*info));
        info->cb = sizeof(*info);
        info->pszTitle = static_cast<LPOLESTR>(CoTaskMemAlloc(sizeof(title)));
        std::memcpy(info->pszTitle, title, sizeof(title));
        info->size = {200, 100};
        return S_OK;
    }
    STDMETHODIMP SetObjects(ULONG, IUnknown**) override { return S_OK; }
    STDMETHODIMP Show(UINT cmd) override {
        if (window_) ShowWindow(window_, cmd);
        return S_OK;
    }
    STDMETHODIMP Move(LPCRECT rect) override {
        if (window_)
            MoveWindow(window_, rect->left, rect->top, rect->right - rect->left, rect->bottom - rect->top, TRUE);
        return S_OK;
    }
    STDMETHODIMP IsPageDirty() override { return S_FALSE; }
    STDMETHODIMP Apply() override { return S_OK; }
    STDMETHODIMP Help(LPCOLESTR) override { return E_NOTIMPL; }
    STDMETHODIMP TranslateAccelerator(MSG*) override { return S_FALSE; }

private:
    IPropertyPageSite* site_ = nullptr;
    HWND window_ = nullptr;
};

class Factory : public SingleInterface<IClassFactory> {
public:
    explicit Factory(bool page) : SingleInterface(IID_IClassFactory), page_(page) {}
    STDMETHODIMP CreateInstance(IUnknown* outer, REFIID riid, void** ppv) override {
        if (!ppv) return E_POINTER;
        *ppv = nullptr;
        if (outer) return CLASS_E_NOAGGREGATION;
        IUnknown* object = page_ ? static_cast<IUnknown*>(new TestCamPage())
                                 : static_cast<IUnknown*>(static_cast<IBaseFilter*>(new TestCamFilter()));
        const HRESULT hr = object->QueryInterface(riid, ppv);
        object->Release();
        return hr;
    }
    STDMETHODIMP LockServer(BOOL lock) override {
        if (lock) ++g_locks;
        else --g_locks;
        return S_OK;
    }

private:
    bool page_;
};

std::wstring GuidText(const GUID& guid) {
    wchar_t text[64];
    StringFromGUID2(guid, text, 64);
    return text;
}

const std::wstring& InstanceRoot() {
    static const std::wstring root = L"CLSID\\{860BB310-5D01-11D0-BD3B-00A0C911CE86}\\Instance";
    return root;
}

LONG SetString(HKEY key, const wchar_t* name, const std::wstring& value) {
    return RegSetValueExW(key, name, 0, REG_SZ, reinterpret_cast<const BYTE*>(value.c_str()),
                          static_cast<DWORD>((value.size() + 1) * sizeof(wchar_t)));
}

// HKCR\CLSID\{clsid}\InprocServer32 pointing at this DLL.
HRESULT RegisterServer(const GUID& clsid) {
    wchar_t path[MAX_PATH];
    const DWORD n = GetModuleFileNameW(g_module, path, MAX_PATH);
    if (n == 0 || n >= MAX_PATH) return E_FAIL;
    HKEY key;
    const std::wstring name = L"CLSID\\" + GuidText(clsid) + L"\\InprocServer32";
    if (RegCreateKeyExW(HKEY_CLASSES_ROOT, name.c_str(), 0, nullptr, 0, KEY_WRITE, nullptr, &key, nullptr) !=
        ERROR_SUCCESS)
        return E_FAIL;
    LONG rc = SetString(key, nullptr, path);
    if (rc == ERROR_SUCCESS) rc = SetString(key, L"ThreadingModel", L"Both");
    RegCloseKey(key);
    return rc == ERROR_SUCCESS ? S_OK : E_FAIL;
}

}  // namespace
}  // namespace testcam

using namespace testcam;

extern "C" BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID) {
    if (reason == DLL_PROCESS_ATTACH) {
        g_module = instance;
        DisableThreadLibraryCalls(instance);
    }
    return TRUE;
}

STDAPI DllGetClassObject(REFCLSID clsid, REFIID riid, LPVOID* ppv) {
    if (!ppv) return E_POINTER;
    *ppv = nullptr;
    const bool page = IsEqualCLSID(clsid, CLSID_TestCamPage);
    if (!page && !IsEqualCLSID(clsid, CLSID_TestCam)) return CLASS_E_CLASSNOTAVAILABLE;
    Factory* factory = new Factory(page);
    const HRESULT hr = factory->QueryInterface(riid, ppv);
    factory->Release();
    return hr;
}

STDAPI DllCanUnloadNow() { return g_objects == 0 && g_locks == 0 ? S_OK : S_FALSE; }

extern "C" HRESULT KivTestCamInstall(const wchar_t* keyName, const wchar_t* friendlyName, const wchar_t* config) {
    if (!keyName || !config) return E_POINTER;
    HRESULT hr = RegisterServer(CLSID_TestCam);
    if (SUCCEEDED(hr)) hr = RegisterServer(CLSID_TestCamPage);
    if (FAILED(hr)) return hr;
    HKEY key;
    const std::wstring name = InstanceRoot() + L"\\" + keyName;
    if (RegCreateKeyExW(HKEY_CLASSES_ROOT, name.c_str(), 0, nullptr, 0, KEY_WRITE, nullptr, &key, nullptr) !=
        ERROR_SUCCESS)
        return E_FAIL;
    LONG rc = SetString(key, L"CLSID", GuidText(CLSID_TestCam));
    if (rc == ERROR_SUCCESS && friendlyName) rc = SetString(key, L"FriendlyName", friendlyName);
    if (rc == ERROR_SUCCESS) rc = SetString(key, L"KivTestCamConfig", config);
    RegCloseKey(key);
    return rc == ERROR_SUCCESS ? S_OK : E_FAIL;
}

// Removes every video capture device entry of this prefix (the test prefix
// has no real cameras), so a test starts from a known list.
extern "C" HRESULT KivTestCamRemoveAll() {
    HKEY root;
    if (RegOpenKeyExW(HKEY_CLASSES_ROOT, InstanceRoot().c_str(), 0, KEY_ALL_ACCESS, &root) != ERROR_SUCCESS)
        return S_OK;
    wchar_t name[256];
    for (;;) {
        DWORD length = 256;
        if (RegEnumKeyExW(root, 0, name, &length, nullptr, nullptr, nullptr, nullptr) != ERROR_SUCCESS) break;
        if (RegDeleteKeyW(root, name) != ERROR_SUCCESS) break;
    }
    RegCloseKey(root);
    return S_OK;
}
