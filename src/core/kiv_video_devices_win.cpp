// Video devices through DirectShow: the list from the system device
// enumerator, capability probes of the capture pin and property pages.
#include <windows.h>
#include <dshow.h>
#include <dvdmedia.h>
#include <olectl.h>

#include <cstddef>
#include <vector>

#include "kiv_device_record.h"
#include "kiv_log.h"
#include "kiv_platform.h"
#include "kiv_video_caps.h"
#include "kiv_video_devices.h"
#include "kiv_video_moniker_win.h"

// The portable reader of format blocks and capability structures works on
// these offsets.
static_assert(offsetof(VIDEOINFOHEADER, AvgTimePerFrame) == 40, "VIDEOINFOHEADER layout");
static_assert(offsetof(VIDEOINFOHEADER, bmiHeader) == 48 && sizeof(VIDEOINFOHEADER) == 88, "VIDEOINFOHEADER layout");
static_assert(offsetof(VIDEOINFOHEADER2, AvgTimePerFrame) == 40, "VIDEOINFOHEADER2 layout");
static_assert(offsetof(VIDEOINFOHEADER2, bmiHeader) == 72 && sizeof(VIDEOINFOHEADER2) == 112, "VIDEOINFOHEADER2 layout");
static_assert(sizeof(MPEG2VIDEOINFO) == 136, "MPEG2VIDEOINFO layout");
static_assert(offsetof(VIDEO_STREAM_CONFIG_CAPS, MinFrameInterval) == 104, "VIDEO_STREAM_CONFIG_CAPS layout");
static_assert(offsetof(VIDEO_STREAM_CONFIG_CAPS, MaxFrameInterval) == 112, "VIDEO_STREAM_CONFIG_CAPS layout");
static_assert(sizeof(VIDEO_STREAM_CONFIG_CAPS) == 128, "VIDEO_STREAM_CONFIG_CAPS layout");

namespace kiv::platform {
namespace {

// Releases a COM interface when it goes out of scope.
template <class T>
class ComRef {
public:
    ComRef() = default;
    ~ComRef() {
        if (p_) p_->Release();
    }
    ComRef(const ComRef&) = delete;
    ComRef& operator=(const ComRef&) = delete;
    T** Out() { return &p_; }
    void** OutVoid() { return reinterpret_cast<void**>(&p_); }
    T* Get() const { return p_; }
    T* operator->() const { return p_; }

private:
    T* p_ = nullptr;
};

HRESULT VideoDeviceMonikers(IEnumMoniker** out) {
    ComRef<ICreateDevEnum> devices;
    HRESULT hr = CoCreateInstance(CLSID_SystemDeviceEnum, nullptr, CLSCTX_INPROC_SERVER, IID_ICreateDevEnum,
                                  devices.OutVoid());
    if (FAILED(hr)) return hr;
    hr = devices->CreateClassEnumerator(CLSID_VideoInputDeviceCategory, out, 0);
    // S_FALSE: the category is empty.
    return hr == S_OK ? S_OK : (FAILED(hr) ? hr : E_FAIL);
}

std::string DisplayName(IMoniker* moniker) {
    LPOLESTR name = nullptr;
    if (FAILED(moniker->GetDisplayName(nullptr, nullptr, &name)) || !name) return std::string();
    std::string text = WideToUtf8(name);
    CoTaskMemFree(name);
    return text;
}

std::string FriendlyName(IMoniker* moniker) {
    ComRef<IPropertyBag> bag;
    if (FAILED(moniker->BindToStorage(nullptr, nullptr, IID_IPropertyBag, bag.OutVoid()))) return std::string();
    VARIANT value;
    VariantInit(&value);
    std::string name;
    if (SUCCEEDED(bag->Read(L"FriendlyName", &value, nullptr)) && V_VT(&value) == VT_BSTR)
        name = WideToUtf8(V_BSTR(&value));
    VariantClear(&value);
    return name;
}

HRESULT BindCaptureFilter(const std::string& path, IBaseFilter** filter, bool* found) {
    ComRef<IMoniker> moniker;
    HRESULT hr = FindVideoDeviceMoniker(path, moniker.Out());
    *found = SUCCEEDED(hr);
    if (FAILED(hr)) return hr;
    return moniker->BindToObject(nullptr, nullptr, IID_IBaseFilter, reinterpret_cast<void**>(filter));
}

// A filter graph holding the capture filter under `name`, with a capture
// graph builder attached to it.
HRESULT BuildProbeGraph(IBaseFilter* filter, const wchar_t* name, IGraphBuilder** graph,
                        ICaptureGraphBuilder2** builder) {
    HRESULT hr = CoCreateInstance(CLSID_FilterGraph, nullptr, CLSCTX_INPROC_SERVER, IID_IGraphBuilder,
                                  reinterpret_cast<void**>(graph));
    if (SUCCEEDED(hr)) hr = (*graph)->AddFilter(filter, name);
    if (SUCCEEDED(hr))
        hr = CoCreateInstance(CLSID_CaptureGraphBuilder2, nullptr, CLSCTX_INPROC_SERVER, IID_ICaptureGraphBuilder2,
                              reinterpret_cast<void**>(builder));
    if (SUCCEEDED(hr)) hr = (*builder)->SetFiltergraph(*graph);
    return hr;
}

void FreeMediaType(AM_MEDIA_TYPE* mt) {
    if (mt->cbFormat && mt->pbFormat) CoTaskMemFree(mt->pbFormat);
    if (mt->pUnk) mt->pUnk->Release();
    CoTaskMemFree(mt);
}

void ReadCapabilities(IAMStreamConfig* config, std::vector<KivVideoCapability>* out) {
    int count = 0, size = 0;
    if (FAILED(config->GetNumberOfCapabilities(&count, &size)) || count < 1) return;
    std::vector<BYTE> caps(static_cast<size_t>(size > 0 ? size : 0) + 1);
    for (int i = 0; i < count; ++i) {
        AM_MEDIA_TYPE* mt = nullptr;
        if (FAILED(config->GetStreamCaps(i, &mt, caps.data())) || !mt) continue;
        const RawVideoCapability raw{reinterpret_cast<const uint8_t*>(&mt->subtype),
                                     reinterpret_cast<const uint8_t*>(&mt->formattype),
                                     mt->pbFormat,
                                     mt->cbFormat,
                                     caps.data(),
                                     static_cast<size_t>(size > 0 ? size : 0)};
        KivVideoCapability capability;
        if (CapabilityFromRaw(raw, &capability)) out->push_back(capability);
        FreeMediaType(mt);
    }
}

}  // namespace

std::string WideToUtf8(const wchar_t* text) {
    const int n = WideCharToMultiByte(CP_UTF8, 0, text, -1, nullptr, 0, nullptr, nullptr);
    if (n <= 1) return std::string();
    std::string out(static_cast<size_t>(n), '\0');
    if (WideCharToMultiByte(CP_UTF8, 0, text, -1, &out[0], n, nullptr, nullptr) != n) return std::string();
    out.resize(static_cast<size_t>(n - 1));
    return out;
}

HRESULT FindVideoDeviceMoniker(const std::string& path, IMoniker** out) {
    *out = nullptr;
    ComRef<IEnumMoniker> monikers;
    HRESULT hr = VideoDeviceMonikers(monikers.Out());
    if (FAILED(hr)) return hr;
    IMoniker* moniker = nullptr;
    while (monikers->Next(1, &moniker, nullptr) == S_OK) {
        if (DisplayName(moniker) == path) {
            *out = moniker;
            return S_OK;
        }
        moniker->Release();
    }
    return E_FAIL;
}

void EnumerateVideoDevices(std::vector<KivDeviceInfo>* out) {
    out->clear();
    ComRef<IEnumMoniker> monikers;
    if (FAILED(VideoDeviceMonikers(monikers.Out()))) return;
    IMoniker* moniker = nullptr;
    while (monikers->Next(1, &moniker, nullptr) == S_OK) {
        out->push_back(
            MakeVideoDeviceRecord(static_cast<int32_t>(out->size()), DisplayName(moniker), FriendlyName(moniker)));
        moniker->Release();
    }
}

bool ProbeVideoCapabilities(const std::string& path, std::vector<KivVideoCapability>* out) {
    out->clear();
    ComRef<IBaseFilter> filter;
    bool found = false;
    HRESULT hr = BindCaptureFilter(path, filter.Out(), &found);
    ComRef<IGraphBuilder> graph;
    ComRef<ICaptureGraphBuilder2> builder;
    if (SUCCEEDED(hr)) hr = BuildProbeGraph(filter.Get(), L"KIV Capability Probe", graph.Out(), builder.Out());
    ComRef<IAMStreamConfig> config;
    if (SUCCEEDED(hr))
        hr = builder->FindInterface(&PIN_CATEGORY_CAPTURE, &MEDIATYPE_Video, filter.Get(), IID_IAMStreamConfig,
                                    config.OutVoid());
    if (FAILED(hr) || !config.Get()) {
        KIV_LOG("Video capability probe failed found=%d hr=0x%08X", found ? 1 : 0, static_cast<unsigned>(hr));
        return false;
    }
    ReadCapabilities(config.Get(), out);
    return true;
}

int32_t ShowVideoPropertyPage(const std::string& path, void* parentWindow, bool crossbar) {
    ComRef<IBaseFilter> filter;
    bool found = false;
    HRESULT hr = BindCaptureFilter(path, filter.Out(), &found);
    if (!found) return KIV_ERROR_INVALID_ARG;
    if (FAILED(hr)) {
        KIV_LOG("Bind video capture filter failed hr=0x%08X", static_cast<unsigned>(hr));
        return KIV_ERROR_FAILED;
    }
    ComRef<IGraphBuilder> graph;
    ComRef<ICaptureGraphBuilder2> builder;
    ComRef<IUnknown> object;
    if (crossbar) {
        hr = BuildProbeGraph(filter.Get(), L"KIV Property Probe", graph.Out(), builder.Out());
        if (SUCCEEDED(hr))
            hr = builder->FindInterface(&LOOK_UPSTREAM_ONLY, nullptr, filter.Get(), IID_IAMCrossbar,
                                        object.OutVoid());
        if (FAILED(hr) || !object.Get()) return KIV_ERROR_UNSUPPORTED;
    } else {
        filter->QueryInterface(IID_IUnknown, object.OutVoid());
    }
    ComRef<ISpecifyPropertyPages> specify;
    if (FAILED(object->QueryInterface(IID_ISpecifyPropertyPages, specify.OutVoid()))) return KIV_ERROR_UNSUPPORTED;
    CAUUID pages{};
    hr = specify->GetPages(&pages);
    if (FAILED(hr)) {
        KIV_LOG("Property page list failed hr=0x%08X", static_cast<unsigned>(hr));
        return KIV_ERROR_FAILED;
    }
    IUnknown* objects[] = {object.Get()};
    // Modal; a cancelled dialog is no error, so its result is not reported.
    OleCreatePropertyFrame(static_cast<HWND>(parentWindow), 30, 30, crossbar ? L"KIV Crossbar" : L"KIV Video Device",
                           1, objects, pages.cElems, pages.pElems, 0, 0, nullptr);
    CoTaskMemFree(pages.pElems);
    return KIV_OK;
}

}  // namespace kiv::platform
