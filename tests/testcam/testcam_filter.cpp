// The test camera filter: state changes, its one pin, configuration from the
// device's property bag and the optional property page.
#include <cstring>

#include "testcam.h"

namespace testcam {
namespace {

class PinEnum : public SingleInterface<IEnumPins> {
public:
    PinEnum(IPin* pin, ULONG pos) : SingleInterface(IID_IEnumPins), pin_(pin), pos_(pos) { pin_->AddRef(); }
    virtual ~PinEnum() { pin_->Release(); }
    STDMETHODIMP Next(ULONG count, IPin** out, ULONG* fetched) override {
        ULONG n = 0;
        if (count > 0 && pos_ == 0) {
            out[n++] = pin_;
            pin_->AddRef();
            pos_ = 1;
        }
        if (fetched) *fetched = n;
        return n == count ? S_OK : S_FALSE;
    }
    STDMETHODIMP Skip(ULONG count) override {
        pos_ += count;
        return pos_ <= 1 ? S_OK : S_FALSE;
    }
    STDMETHODIMP Reset() override {
        pos_ = 0;
        return S_OK;
    }
    STDMETHODIMP Clone(IEnumPins** out) override {
        if (!out) return E_POINTER;
        *out = new PinEnum(pin_, pos_);
        return S_OK;
    }

private:
    IPin* pin_;
    ULONG pos_;
};

}  // namespace

TestCamFilter::TestCamFilter() : pin_(this) {
    InitializeCriticalSection(&lock);
    ++g_objects;
}

TestCamFilter::~TestCamFilter() {
    pin_.StopStreaming();
    pin_.Inactive();
    pin_.Disconnect();
    if (clock_) clock_->Release();
    DeleteCriticalSection(&lock);
    --g_objects;
}

STDMETHODIMP TestCamFilter::QueryInterface(REFIID riid, void** ppv) {
    if (!ppv) return E_POINTER;
    *ppv = nullptr;
    if (IsEqualIID(riid, IID_IUnknown) || IsEqualIID(riid, IID_IBaseFilter) || IsEqualIID(riid, IID_IMediaFilter) ||
        IsEqualIID(riid, IID_IPersist)) {
        *ppv = static_cast<IBaseFilter*>(this);
    } else if (IsEqualIID(riid, IID_IPersistPropertyBag)) {
        *ppv = static_cast<IPersistPropertyBag*>(this);
    } else if (IsEqualIID(riid, IID_ISpecifyPropertyPages) && config.page) {
        *ppv = static_cast<ISpecifyPropertyPages*>(this);
    } else if (IsEqualIID(riid, IID_IAMFilterMiscFlags)) {
        *ppv = static_cast<IAMFilterMiscFlags*>(this);
    } else {
        return E_NOINTERFACE;
    }
    AddRef();
    return S_OK;
}

STDMETHODIMP_(ULONG) TestCamFilter::AddRef() { return ++refs_; }
STDMETHODIMP_(ULONG) TestCamFilter::Release() {
    const long n = --refs_;
    if (n == 0) delete this;
    return n;
}

STDMETHODIMP TestCamFilter::GetClassID(CLSID* clsid) {
    if (!clsid) return E_POINTER;
    *clsid = CLSID_TestCam;
    return S_OK;
}

STDMETHODIMP TestCamFilter::Stop() {
    EnterCriticalSection(&lock);
    pin_.StopStreaming();
    pin_.Inactive();
    state_ = State_Stopped;
    LeaveCriticalSection(&lock);
    return S_OK;
}

// A live source has nothing to show while paused. Going from running to
// paused leaves the streaming thread alone: the graph pauses the renderer
// first, which may hold that thread inside Receive until it is stopped, so
// joining it here could wait forever. Stop ends the thread.
STDMETHODIMP TestCamFilter::Pause() {
    EnterCriticalSection(&lock);
    HRESULT hr = S_OK;
    if (state_ == State_Stopped) hr = pin_.Active();
    if (SUCCEEDED(hr)) state_ = State_Paused;
    LeaveCriticalSection(&lock);
    return SUCCEEDED(hr) ? VFW_S_CANT_CUE : hr;
}

STDMETHODIMP TestCamFilter::Run(REFERENCE_TIME) {
    EnterCriticalSection(&lock);
    HRESULT hr = S_OK;
    if (state_ == State_Stopped) hr = pin_.Active();
    if (SUCCEEDED(hr)) hr = pin_.StartStreaming();
    if (SUCCEEDED(hr)) state_ = State_Running;
    LeaveCriticalSection(&lock);
    return hr;
}

STDMETHODIMP TestCamFilter::GetState(DWORD, FILTER_STATE* state) {
    if (!state) return E_POINTER;
    *state = state_;
    return state_ == State_Paused ? VFW_S_CANT_CUE : S_OK;
}

STDMETHODIMP TestCamFilter::SetSyncSource(IReferenceClock* clock) {
    EnterCriticalSection(&lock);
    if (clock) clock->AddRef();
    if (clock_) clock_->Release();
    clock_ = clock;
    LeaveCriticalSection(&lock);
    return S_OK;
}

STDMETHODIMP TestCamFilter::GetSyncSource(IReferenceClock** clock) {
    if (!clock) return E_POINTER;
    *clock = clock_;
    if (clock_) clock_->AddRef();
    return S_OK;
}

STDMETHODIMP TestCamFilter::EnumPins(IEnumPins** e) {
    if (!e) return E_POINTER;
    *e = new PinEnum(&pin_, 0);
    return S_OK;
}

STDMETHODIMP TestCamFilter::FindPin(LPCWSTR id, IPin** pin) {
    if (!id || !pin) return E_POINTER;
    *pin = nullptr;
    if (lstrcmpW(id, L"Capture") != 0) return VFW_E_NOT_FOUND;
    *pin = &pin_;
    pin_.AddRef();
    return S_OK;
}

STDMETHODIMP TestCamFilter::QueryFilterInfo(FILTER_INFO* info) {
    if (!info) return E_POINTER;
    lstrcpynW(info->achName, name_.c_str(), MAX_FILTER_NAME);
    info->pGraph = graph;
    if (graph) graph->AddRef();
    return S_OK;
}

STDMETHODIMP TestCamFilter::JoinFilterGraph(IFilterGraph* g, LPCWSTR name) {
    graph = g;
    name_ = name ? name : L"";
    return S_OK;
}

STDMETHODIMP TestCamFilter::Load(IPropertyBag* bag, IErrorLog* log) {
    if (!bag) return E_POINTER;
    VARIANT value;
    VariantInit(&value);
    V_VT(&value) = VT_BSTR;
    if (SUCCEEDED(bag->Read(L"KivTestCamConfig", &value, log)) && V_VT(&value) == VT_BSTR)
        config = ParseConfig(V_BSTR(&value));
    VariantClear(&value);
    return S_OK;
}

STDMETHODIMP TestCamFilter::GetPages(CAUUID* pages) {
    if (!pages) return E_POINTER;
    pages->cElems = 1;
    pages->pElems = static_cast<GUID*>(CoTaskMemAlloc(sizeof(GUID)));
    pages->pElems[0] = CLSID_TestCamPage;
    return S_OK;
}

}  // namespace testcam
