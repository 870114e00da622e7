// The DirectShow capture graph: device capture filter -> sample grabber ->
// null renderer. The grabber hands every buffer to the capture port.
#include <atomic>

#include "capture_dshow_win.h"
#include "capture_graph.h"
#include "capture_log.h"
#include "kivcapture.h"

namespace kiv::capture {

namespace {

// Forwards the grabber's buffers to the owning port.
class KivSampleGrabberCallback final : public KivISampleGrabberCB {
public:
    explicit KivSampleGrabberCallback(SampleSink* owner) : owner_(owner) {}

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** out) override {
        if (!out) return E_POINTER;
        if (riid == IID_IUnknown || riid == kIidSampleGrabberCB) {
            *out = static_cast<KivISampleGrabberCB*>(this);
            AddRef();
            return S_OK;
        }
        *out = nullptr;
        return E_NOINTERFACE;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return ++refs_; }
    ULONG STDMETHODCALLTYPE Release() override {
        const ULONG left = --refs_;
        if (left == 0) delete this;
        return left;
    }
    HRESULT STDMETHODCALLTYPE SampleCB(double, IMediaSample*) override { return S_OK; }
    HRESULT STDMETHODCALLTYPE BufferCB(double, BYTE* buffer, long length) override {
        if (owner_ && buffer && length > 0) owner_->OnCapturedBuffer(buffer, length);
        return S_OK;
    }

private:
    SampleSink* owner_;
    std::atomic<ULONG> refs_{1};
};

template <class T>
void SafeRelease(T*& p) {
    if (p) p->Release();
    p = nullptr;
}

unsigned Hr(HRESULT hr) { return static_cast<unsigned>(hr); }

// First pin of the wanted direction; an unconnected one when asked.
IPin* FindPin(IBaseFilter* filter, PIN_DIRECTION wanted, bool unconnectedOnly) {
    IEnumPins* pins = nullptr;
    if (!filter || FAILED(filter->EnumPins(&pins))) return nullptr;
    IPin* pin = nullptr;
    IPin* found = nullptr;
    while (!found && pins->Next(1, &pin, nullptr) == S_OK) {
        PIN_DIRECTION dir;
        bool match = SUCCEEDED(pin->QueryDirection(&dir)) && dir == wanted;
        if (match && unconnectedOnly) {
            IPin* peer = nullptr;
            if (SUCCEEDED(pin->ConnectedTo(&peer)) && peer) {
                peer->Release();
                match = false;
            }
        }
        if (match) {
            found = pin;
        } else {
            pin->Release();
        }
    }
    pins->Release();
    return found;
}

void DisconnectPin(IGraphBuilder* graph, IPin* pin) {
    if (!pin) return;
    IPin* peer = nullptr;
    if (SUCCEEDED(pin->ConnectedTo(&peer)) && peer) {
        graph->Disconnect(peer);
        peer->Release();
    }
    graph->Disconnect(pin);
}

IMoniker* VideoDeviceMoniker(int32_t index) {
    ICreateDevEnum* devices = nullptr;
    if (FAILED(CoCreateInstance(CLSID_SystemDeviceEnum, nullptr, CLSCTX_INPROC_SERVER, IID_ICreateDevEnum,
                                reinterpret_cast<void**>(&devices)))) {
        return nullptr;
    }
    IEnumMoniker* list = nullptr;
    IMoniker* found = nullptr;
    if (devices->CreateClassEnumerator(CLSID_VideoInputDeviceCategory, &list, 0) == S_OK && list) {
        IMoniker* moniker = nullptr;
        for (int32_t i = 0; !found && list->Next(1, &moniker, nullptr) == S_OK; ++i) {
            if (i == index) {
                found = moniker;
            } else {
                moniker->Release();
            }
        }
        list->Release();
    }
    devices->Release();
    return found;
}

class DirectShowCaptureGraph final : public CaptureGraph {
public:
    ~DirectShowCaptureGraph() override { Release(); }

    int32_t Build(int32_t device, const void* input, MergedRequest* actual, ConnectedFormat* connected,
                  SampleSink* sink) override;
    int32_t Run() override {
        const HRESULT hr = control_->Run();
        if (FAILED(hr)) {
            KIV_VIN_LOG("DirectShow graph Run failed hr=0x%08X", Hr(hr));
            return KIV_ERROR_FAILED;
        }
        return KIV_OK;
    }
    void DetachCallback(int32_t device, const void* input) override {
        if (!grabber_) return;
        const HRESULT hr = grabber_->SetCallback(nullptr, 1);
        KIV_VIN_LOG("StopDirectShow callback detached device=%d input=%p hr=0x%08X", device, input, Hr(hr));
    }
    void StopAndRelease(int32_t device, const void* input, uint32_t captureInFlight) override {
        if (control_) {
            KIV_VIN_LOG("StopDirectShow stopping live graph device=%d input=%p captureInFlight=%u", device, input,
                        captureInFlight);
            const HRESULT hr = control_->Stop();
            KIV_VIN_LOG("StopDirectShow graph stopped device=%d input=%p Stop=0x%08X", device, input, Hr(hr));
        }
        DisconnectAll();
        Release();
    }

private:
    HRESULT Connect();
    HRESULT RequestGrabberType(int32_t format);
    void ReadConnectedType(ConnectedFormat* connected);
    void DisconnectAll();
    void Release() {
        SafeRelease(callback_);
        SafeRelease(grabber_);
        SafeRelease(control_);
        SafeRelease(builder_);
        SafeRelease(capture_);
        SafeRelease(grabberFilter_);
        SafeRelease(nullRenderer_);
        SafeRelease(graph_);
    }

    IGraphBuilder* graph_ = nullptr;
    ICaptureGraphBuilder2* builder_ = nullptr;
    IMediaControl* control_ = nullptr;
    KivISampleGrabber* grabber_ = nullptr;
    KivSampleGrabberCallback* callback_ = nullptr;
    IBaseFilter* capture_ = nullptr;
    IBaseFilter* grabberFilter_ = nullptr;
    IBaseFilter* nullRenderer_ = nullptr;
};

int32_t DirectShowCaptureGraph::Build(int32_t device, const void*, MergedRequest* actual, ConnectedFormat* connected,
                                      SampleSink* sink) {
    HRESULT hr = CoCreateInstance(CLSID_FilterGraph, nullptr, CLSCTX_INPROC_SERVER, IID_IGraphBuilder,
                                  reinterpret_cast<void**>(&graph_));
    if (FAILED(hr)) {
        KIV_VIN_LOG("Create FilterGraph failed hr=0x%08X", Hr(hr));
        return KIV_ERROR_FAILED;
    }
    hr = CoCreateInstance(CLSID_CaptureGraphBuilder2, nullptr, CLSCTX_INPROC_SERVER, IID_ICaptureGraphBuilder2,
                          reinterpret_cast<void**>(&builder_));
    if (FAILED(hr)) {
        KIV_VIN_LOG("Create CaptureGraphBuilder2 failed hr=0x%08X", Hr(hr));
        return KIV_ERROR_FAILED;
    }
    builder_->SetFiltergraph(graph_);

    IMoniker* moniker = VideoDeviceMoniker(device);
    if (!moniker) {
        KIV_VIN_LOG("Video device moniker not found index=%d", device);
        return KIV_ERROR_FAILED;
    }
    hr = moniker->BindToObject(nullptr, nullptr, IID_IBaseFilter, reinterpret_cast<void**>(&capture_));
    moniker->Release();
    if (FAILED(hr) || !capture_) {
        KIV_VIN_LOG("Bind video capture filter failed hr=0x%08X", Hr(hr));
        return KIV_ERROR_FAILED;
    }
    hr = graph_->AddFilter(capture_, L"KIV Video Capture");
    if (FAILED(hr)) {
        KIV_VIN_LOG("Add capture filter failed hr=0x%08X", Hr(hr));
        return KIV_ERROR_FAILED;
    }

    NegotiateCaptureFormat(builder_, capture_, device, actual);

    hr = CoCreateInstance(kClsidSampleGrabber, nullptr, CLSCTX_INPROC_SERVER, IID_IBaseFilter,
                          reinterpret_cast<void**>(&grabberFilter_));
    if (FAILED(hr)) {
        KIV_VIN_LOG("Create SampleGrabber failed hr=0x%08X", Hr(hr));
        return KIV_ERROR_FAILED;
    }
    hr = grabberFilter_->QueryInterface(kIidSampleGrabber, reinterpret_cast<void**>(&grabber_));
    if (FAILED(hr)) {
        KIV_VIN_LOG("Query ISampleGrabber failed hr=0x%08X", Hr(hr));
        return KIV_ERROR_FAILED;
    }
    if (FAILED(RequestGrabberType(actual->format))) return KIV_ERROR_FAILED;
    hr = graph_->AddFilter(grabberFilter_, L"KIV Sample Grabber");
    if (FAILED(hr)) {
        KIV_VIN_LOG("Add SampleGrabber failed hr=0x%08X", Hr(hr));
        return KIV_ERROR_FAILED;
    }
    hr = CoCreateInstance(kClsidNullRenderer, nullptr, CLSCTX_INPROC_SERVER, IID_IBaseFilter,
                          reinterpret_cast<void**>(&nullRenderer_));
    if (FAILED(hr)) {
        KIV_VIN_LOG("Create NullRenderer failed hr=0x%08X", Hr(hr));
        return KIV_ERROR_FAILED;
    }
    hr = graph_->AddFilter(nullRenderer_, L"KIV Null Renderer");
    if (FAILED(hr)) {
        KIV_VIN_LOG("Add NullRenderer failed hr=0x%08X", Hr(hr));
        return KIV_ERROR_FAILED;
    }
    hr = Connect();
    if (FAILED(hr)) {
        KIV_VIN_LOG("Manual video graph connect failed hr=0x%08X", Hr(hr));
        return KIV_ERROR_FAILED;
    }
    ReadConnectedType(connected);

    callback_ = new KivSampleGrabberCallback(sink);
    hr = grabber_->SetCallback(callback_, 1);
    if (FAILED(hr)) {
        KIV_VIN_LOG("Set SampleGrabber callback failed hr=0x%08X", Hr(hr));
        SafeRelease(callback_);
        return KIV_ERROR_FAILED;
    }
    hr = graph_->QueryInterface(IID_IMediaControl, reinterpret_cast<void**>(&control_));
    if (FAILED(hr)) {
        KIV_VIN_LOG("Query IMediaControl failed hr=0x%08X", Hr(hr));
        return KIV_ERROR_FAILED;
    }
    return KIV_OK;
}

// MJPEG (and an unspecified format) is asked for as RGB32 so that intelligent
// connect inserts a decoder; H.264 is asked for as a wildcard that takes the
// camera's compressed type.
HRESULT DirectShowCaptureGraph::RequestGrabberType(int32_t format) {
    AM_MEDIA_TYPE type = {};
    type.majortype = MEDIATYPE_Video;
    type.formattype = FORMAT_VideoInfo;
    int32_t requested = format;
    const bool wildcardH264 = format == KIV_PIXEL_FORMAT_H264;
    switch (format) {
        case KIV_PIXEL_FORMAT_YUY2: type.subtype = MEDIASUBTYPE_YUY2; break;
        case KIV_PIXEL_FORMAT_NV12: type.subtype = FourccSubtype(0x3231564e); break;
        case KIV_PIXEL_FORMAT_RGB24: type.subtype = MEDIASUBTYPE_RGB24; break;
        case KIV_PIXEL_FORMAT_RGB32: type.subtype = MEDIASUBTYPE_RGB32; break;
        case KIV_PIXEL_FORMAT_H264:
            type.subtype = GUID_NULL;
            type.formattype = GUID_NULL;
            requested = 1;
            break;
        default:
            type.subtype = MEDIASUBTYPE_RGB32;
            requested = KIV_PIXEL_FORMAT_RGB32;
            break;
    }
    const HRESULT hr = grabber_->SetMediaType(&type);
    KIV_VIN_LOG("SampleGrabber requested subtype fmt=%d wildcardH264=%d hr=0x%08X", requested, wildcardH264 ? 1 : 0,
                Hr(hr));
    if (SUCCEEDED(hr)) {
        grabber_->SetOneShot(FALSE);
        grabber_->SetBufferSamples(FALSE);
    }
    return hr;
}

HRESULT DirectShowCaptureGraph::Connect() {
    IPin* captureOut = FindPin(capture_, PINDIR_OUTPUT, true);
    IPin* grabberIn = FindPin(grabberFilter_, PINDIR_INPUT, true);
    IPin* grabberOut = FindPin(grabberFilter_, PINDIR_OUTPUT, true);
    IPin* rendererIn = FindPin(nullRenderer_, PINDIR_INPUT, true);
    HRESULT hr = E_FAIL;
    if (!captureOut || !grabberIn || !grabberOut || !rendererIn) {
        SafeRelease(captureOut);
        SafeRelease(grabberIn);
        SafeRelease(grabberOut);
        SafeRelease(rendererIn);
        return E_FAIL;
    }
    AM_MEDIA_TYPE* current = nullptr;
    IAMStreamConfig* config = nullptr;
    if (SUCCEEDED(captureOut->QueryInterface(IID_IAMStreamConfig, reinterpret_cast<void**>(&config))) && config) {
        if (FAILED(config->GetFormat(&current))) current = nullptr;
        config->Release();
    }
    bool done = false;
    if (current) {
        if (current->subtype == MEDIASUBTYPE_MJPG) {
            KIV_VIN_LOG("DirectShow connect: MJPG capture -> sample grabber using intelligent connect");
            hr = graph_->Connect(captureOut, grabberIn);
        } else {
            KIV_VIN_LOG("DirectShow connect: capture -> sample grabber using selected AM_MEDIA_TYPE");
            hr = graph_->ConnectDirect(captureOut, grabberIn, current);
        }
        DeleteMediaType(current);
        if (SUCCEEDED(hr)) {
            KIV_VIN_LOG("DirectShow connect: sample grabber -> null renderer using NULL media type");
            hr = graph_->ConnectDirect(grabberOut, rendererIn, nullptr);
            done = SUCCEEDED(hr);
            if (!done) {
                DisconnectPin(graph_, grabberOut);
                DisconnectPin(graph_, captureOut);
            }
        }
    }
    if (!done) {
        DisconnectPin(graph_, captureOut);
        DisconnectPin(graph_, grabberIn);
        DisconnectPin(graph_, grabberOut);
        KIV_VIN_LOG("DirectShow connect fallback: capture -> sample grabber using intelligent connect");
        hr = graph_->Connect(captureOut, grabberIn);
        if (SUCCEEDED(hr)) {
            KIV_VIN_LOG("DirectShow connect fallback: sample grabber -> null renderer using NULL media type");
            hr = graph_->ConnectDirect(grabberOut, rendererIn, nullptr);
            if (FAILED(hr)) {
                DisconnectPin(graph_, grabberOut);
                DisconnectPin(graph_, captureOut);
            }
        }
    }
    captureOut->Release();
    grabberIn->Release();
    grabberOut->Release();
    rendererIn->Release();
    return hr;
}

// Only RGB pictures are flipped: YUV and compressed types are always top-down.
void DirectShowCaptureGraph::ReadConnectedType(ConnectedFormat* connected) {
    AM_MEDIA_TYPE type = {};
    if (FAILED(grabber_->GetConnectedMediaType(&type))) return;
    const VideoHeaderView view = ViewVideoHeader(type);
    if (view.bitmap) {
        connected->width = view.bitmap->biWidth;
        connected->height = view.bitmap->biHeight < 0 ? -view.bitmap->biHeight : view.bitmap->biHeight;
        connected->bottomUp = view.bitmap->biHeight > 0;
    }
    int32_t format = FormatOfSubtype(type.subtype);
    if (format == KIV_PIXEL_FORMAT_NONE) format = KIV_PIXEL_FORMAT_RGB32;
    if (format != KIV_PIXEL_FORMAT_RGB24 && format != KIV_PIXEL_FORMAT_RGB32) connected->bottomUp = false;
    connected->format = format;
    KIV_VIN_LOG("Connected media type %dx%d bottomUp=%d fmt=%d", connected->width, connected->height,
                connected->bottomUp ? 1 : 0, connected->format);
    FreeMediaTypeContents(type);
}

void DirectShowCaptureGraph::DisconnectAll() {
    if (!graph_) return;
    IEnumFilters* filters = nullptr;
    if (FAILED(graph_->EnumFilters(&filters))) return;
    IBaseFilter* filter = nullptr;
    while (filters->Next(1, &filter, nullptr) == S_OK) {
        IEnumPins* pins = nullptr;
        if (SUCCEEDED(filter->EnumPins(&pins))) {
            IPin* pin = nullptr;
            while (pins->Next(1, &pin, nullptr) == S_OK) {
                DisconnectPin(graph_, pin);
                pin->Release();
            }
            pins->Release();
        }
        filter->Release();
    }
    filters->Release();
}

}  // namespace

std::unique_ptr<CaptureGraph> CreatePlatformCaptureGraph() { return std::make_unique<DirectShowCaptureGraph>(); }

}  // namespace kiv::capture
