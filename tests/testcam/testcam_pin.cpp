// The capture output pin: stream configuration, connection with allocator
// negotiation, and the streaming thread that draws numbered frames.
#include <cstdio>
#include <cstring>

#include "testcam.h"
#include "testcam_pattern.h"

namespace testcam {
namespace {

class MediaTypeEnum : public SingleInterface<IEnumMediaTypes> {
public:
    MediaTypeEnum(const std::vector<AM_MEDIA_TYPE>& types, size_t pos)
        : SingleInterface(IID_IEnumMediaTypes), pos_(pos) {
        for (const AM_MEDIA_TYPE& t : types) {
            AM_MEDIA_TYPE copy;
            CopyMediaType(&copy, &t);
            types_.push_back(copy);
        }
    }
    virtual ~MediaTypeEnum() {
        for (AM_MEDIA_TYPE& t : types_) FreeMediaType(&t);
    }
    STDMETHODIMP Next(ULONG count, AM_MEDIA_TYPE** out, ULONG* fetched) override {
        ULONG n = 0;
        for (; n < count && pos_ < types_.size(); ++n, ++pos_) {
            out[n] = static_cast<AM_MEDIA_TYPE*>(CoTaskMemAlloc(sizeof(AM_MEDIA_TYPE)));
            CopyMediaType(out[n], &types_[pos_]);
        }
        if (fetched) *fetched = n;
        return n == count ? S_OK : S_FALSE;
    }
    STDMETHODIMP Skip(ULONG count) override {
        pos_ += count;
        if (pos_ > types_.size()) pos_ = types_.size();
        return pos_ < types_.size() ? S_OK : S_FALSE;
    }
    STDMETHODIMP Reset() override {
        pos_ = 0;
        return S_OK;
    }
    STDMETHODIMP Clone(IEnumMediaTypes** out) override {
        if (!out) return E_POINTER;
        *out = new MediaTypeEnum(types_, pos_);
        return S_OK;
    }

private:
    std::vector<AM_MEDIA_TYPE> types_;
    size_t pos_;
};

bool SameType(const AM_MEDIA_TYPE* a, const AM_MEDIA_TYPE* b) {
    return IsEqualGUID(a->majortype, b->majortype) && IsEqualGUID(a->subtype, b->subtype) &&
           IsEqualGUID(a->formattype, b->formattype) && a->cbFormat == b->cbFormat &&
           (a->cbFormat == 0 || std::memcmp(a->pbFormat, b->pbFormat, a->cbFormat) == 0);
}

// A partial type given to Connect matches when every GUID it names matches.
bool MatchesPartial(const AM_MEDIA_TYPE* partial, const AM_MEDIA_TYPE* full) {
    if (!IsEqualGUID(partial->majortype, GUID_NULL) && !IsEqualGUID(partial->majortype, full->majortype)) return false;
    if (!IsEqualGUID(partial->subtype, GUID_NULL) && !IsEqualGUID(partial->subtype, full->subtype)) return false;
    if (!IsEqualGUID(partial->formattype, GUID_NULL) && !IsEqualGUID(partial->formattype, full->formattype))
        return false;
    return true;
}

const wchar_t kPinName[] = L"Capture";

}  // namespace

TestCamPin::~TestCamPin() {
    StopStreaming();
    Inactive();
    Disconnect();
    if (hasChosen_) FreeMediaType(&chosen_);
}

STDMETHODIMP TestCamPin::QueryInterface(REFIID riid, void** ppv) {
    if (!ppv) return E_POINTER;
    *ppv = nullptr;
    if (IsEqualIID(riid, IID_IUnknown) || IsEqualIID(riid, IID_IPin)) {
        *ppv = static_cast<IPin*>(this);
    } else if (IsEqualIID(riid, IID_IAMStreamConfig) && !filter_->config.noStreamConfig) {
        *ppv = static_cast<IAMStreamConfig*>(this);
    } else if (IsEqualIID(riid, IID_IKsPropertySet)) {
        *ppv = static_cast<IKsPropertySet*>(this);
    } else {
        return E_NOINTERFACE;
    }
    AddRef();
    return S_OK;
}
STDMETHODIMP_(ULONG) TestCamPin::AddRef() { return filter_->AddRef(); }
STDMETHODIMP_(ULONG) TestCamPin::Release() { return filter_->Release(); }

// What the pin offers: the format chosen by SetFormat first, followed by its
// twins in the other format block (so a peer that wants the other block can
// still join); without a chosen format, every capability in order.
std::vector<AM_MEDIA_TYPE> TestCamPin::OfferedTypes() {
    std::vector<AM_MEDIA_TYPE> types;
    const std::vector<CamCap>& caps = filter_->config.caps;
    if (hasChosen_) {
        AM_MEDIA_TYPE first;
        CopyMediaType(&first, &chosen_);
        types.push_back(first);
        const int index = FindCap(caps, &chosen_);
        for (size_t i = 0; index >= 0 && i < caps.size(); ++i) {
            const CamCap& c = caps[i];
            const CamCap& k = caps[static_cast<size_t>(index)];
            if (static_cast<int>(i) == index || c.subtype != k.subtype || c.width != k.width || c.height != k.height)
                continue;
            CamCap twin = c;
            BITMAPINFOHEADER bmi;
            if (!ReadVideoHeader(&chosen_, &bmi, &twin.avg)) continue;
            AM_MEDIA_TYPE mt;
            BuildMediaType(twin, &mt);
            types.push_back(mt);
        }
        return types;
    }
    for (const CamCap& cap : caps) {
        AM_MEDIA_TYPE mt;
        BuildMediaType(cap, &mt);
        types.push_back(mt);
    }
    return types;
}

STDMETHODIMP TestCamPin::Connect(IPin* receivePin, const AM_MEDIA_TYPE* mt) {
    if (!receivePin) return E_POINTER;
    EnterCriticalSection(&filter_->lock);
    HRESULT hr = VFW_E_NO_ACCEPTABLE_TYPES;
    if (peer_) {
        hr = VFW_E_ALREADY_CONNECTED;
    } else if (mt && !IsEqualGUID(mt->formattype, GUID_NULL) && mt->pbFormat) {
        hr = FindCap(filter_->config.caps, mt) >= 0 ? TryConnect(receivePin, mt) : VFW_E_TYPE_NOT_ACCEPTED;
    } else {
        std::vector<AM_MEDIA_TYPE> types = OfferedTypes();
        for (AM_MEDIA_TYPE& t : types) {
            if (hr != S_OK && (!mt || MatchesPartial(mt, &t))) hr = TryConnect(receivePin, &t);
            FreeMediaType(&t);
        }
    }
    LeaveCriticalSection(&filter_->lock);
    return hr;
}

HRESULT TestCamPin::TryConnect(IPin* receivePin, const AM_MEDIA_TYPE* mt) {
    HRESULT hr = receivePin->ReceiveConnection(this, mt);
    if (FAILED(hr)) return hr;
    peer_ = receivePin;
    peer_->AddRef();
    CopyMediaType(&connected_, mt);
    hr = NegotiateAllocator(mt);
    if (FAILED(hr)) {
        receivePin->Disconnect();
        Disconnect();
        return hr;
    }
    Record();
    return S_OK;
}

long TestCamPin::SampleBytes(const AM_MEDIA_TYPE* mt) {
    BITMAPINFOHEADER bmi;
    REFERENCE_TIME avg;
    if (!ReadVideoHeader(mt, &bmi, &avg)) return 0;
    const long w = bmi.biWidth, h = bmi.biHeight < 0 ? -bmi.biHeight : bmi.biHeight;
    if (IsEqualGUID(mt->subtype, MEDIASUBTYPE_YUY2)) return w * 2 * h;
    if (IsEqualGUID(mt->subtype, MEDIASUBTYPE_NV12)) return (h + (h + 1) / 2) * w;
    if (IsEqualGUID(mt->subtype, MEDIASUBTYPE_RGB24)) return w * 3 * h;
    if (IsEqualGUID(mt->subtype, MEDIASUBTYPE_RGB32)) return w * 4 * h;
    if (!filter_->config.h264Path.empty() && bmi.biCompression == MAKEFOURCC('H', '2', '6', '4')) {
        accessUnits_ = ReadAccessUnits(filter_->config.h264Path);
        size_t largest = 0;
        for (const auto& unit : accessUnits_) largest = unit.size() > largest ? unit.size() : largest;
        return static_cast<long>(largest > 0 ? largest : 1);
    }
    return 16;  // other compressed types carry just the frame number
}

HRESULT TestCamPin::NegotiateAllocator(const AM_MEDIA_TYPE* mt) {
    HRESULT hr = peer_->QueryInterface(IID_IMemInputPin, reinterpret_cast<void**>(&peerInput_));
    if (FAILED(hr)) return hr;
    ALLOCATOR_PROPERTIES wanted{}, actual{};
    peerInput_->GetAllocatorRequirements(&wanted);
    wanted.cBuffers = wanted.cBuffers > 3 ? wanted.cBuffers : 3;
    wanted.cbBuffer = SampleBytes(mt);
    if (wanted.cbAlign < 1) wanted.cbAlign = 1;
    wanted.cbPrefix = 0;
    for (int attempt = 0; attempt < 2; ++attempt) {
        IMemAllocator* allocator = nullptr;
        hr = attempt == 0 ? peerInput_->GetAllocator(&allocator)
                          : CoCreateInstance(CLSID_MemoryAllocator, nullptr, CLSCTX_INPROC_SERVER, IID_IMemAllocator,
                                             reinterpret_cast<void**>(&allocator));
        if (FAILED(hr)) continue;
        hr = allocator->SetProperties(&wanted, &actual);
        if (SUCCEEDED(hr) && actual.cbBuffer >= wanted.cbBuffer) hr = peerInput_->NotifyAllocator(allocator, FALSE);
        else if (SUCCEEDED(hr)) hr = E_FAIL;
        if (SUCCEEDED(hr)) {
            allocator_ = allocator;
            return S_OK;
        }
        allocator->Release();
    }
    return hr;
}

STDMETHODIMP TestCamPin::Disconnect() {
    if (!peer_) return S_FALSE;
    if (allocator_) allocator_->Release();
    if (peerInput_) peerInput_->Release();
    peer_->Release();
    allocator_ = nullptr;
    peerInput_ = nullptr;
    peer_ = nullptr;
    FreeMediaType(&connected_);
    return S_OK;
}

STDMETHODIMP TestCamPin::ConnectedTo(IPin** pin) {
    if (!pin) return E_POINTER;
    *pin = peer_;
    if (!peer_) return VFW_E_NOT_CONNECTED;
    peer_->AddRef();
    return S_OK;
}

STDMETHODIMP TestCamPin::ConnectionMediaType(AM_MEDIA_TYPE* mt) {
    if (!mt) return E_POINTER;
    if (!peer_) {
        std::memset(mt, 0, sizeof(*mt));
        return VFW_E_NOT_CONNECTED;
    }
    CopyMediaType(mt, &connected_);
    return S_OK;
}

STDMETHODIMP TestCamPin::QueryPinInfo(PIN_INFO* info) {
    if (!info) return E_POINTER;
    info->pFilter = filter_;
    filter_->AddRef();
    info->dir = PINDIR_OUTPUT;
    lstrcpynW(info->achName, kPinName, MAX_PIN_NAME);
    return S_OK;
}

STDMETHODIMP TestCamPin::QueryDirection(PIN_DIRECTION* dir) {
    if (!dir) return E_POINTER;
    *dir = PINDIR_OUTPUT;
    return S_OK;
}

STDMETHODIMP TestCamPin::QueryId(LPWSTR* id) {
    if (!id) return E_POINTER;
    *id = static_cast<LPWSTR>(CoTaskMemAlloc(sizeof(kPinName)));
    std::memcpy(*id, kPinName, sizeof(kPinName));
    return S_OK;
}

STDMETHODIMP TestCamPin::QueryAccept(const AM_MEDIA_TYPE* mt) {
    return mt && FindCap(filter_->config.caps, mt) >= 0 ? S_OK : S_FALSE;
}

STDMETHODIMP TestCamPin::EnumMediaTypes(IEnumMediaTypes** e) {
    if (!e) return E_POINTER;
    std::vector<AM_MEDIA_TYPE> types = OfferedTypes();
    *e = new MediaTypeEnum(types, 0);
    for (AM_MEDIA_TYPE& t : types) FreeMediaType(&t);
    return S_OK;
}

// IAMStreamConfig: SetFormat is honoured (and recorded for the tests) as long
// as the type is one of the capabilities, whatever its frame interval.
STDMETHODIMP TestCamPin::SetFormat(AM_MEDIA_TYPE* mt) {
    if (!mt) return E_POINTER;
    if (FindCap(filter_->config.caps, mt) < 0) return VFW_E_INVALIDMEDIATYPE;
    if (peer_) {
        if (SameType(mt, &connected_)) return S_OK;
        return VFW_E_ALREADY_CONNECTED;
    }
    if (hasChosen_) FreeMediaType(&chosen_);
    CopyMediaType(&chosen_, mt);
    hasChosen_ = true;
    lastSetFormat_ = DescribeMediaType(mt);
    Record();
    return S_OK;
}

STDMETHODIMP TestCamPin::GetFormat(AM_MEDIA_TYPE** mt) {
    if (!mt) return E_POINTER;
    if (filter_->config.caps.empty()) return E_FAIL;
    *mt = static_cast<AM_MEDIA_TYPE*>(CoTaskMemAlloc(sizeof(AM_MEDIA_TYPE)));
    if (peer_) CopyMediaType(*mt, &connected_);
    else if (hasChosen_) CopyMediaType(*mt, &chosen_);
    else BuildMediaType(filter_->config.caps[0], *mt);
    return S_OK;
}

STDMETHODIMP TestCamPin::GetNumberOfCapabilities(int* count, int* size) {
    if (!count || !size) return E_POINTER;
    *count = static_cast<int>(filter_->config.caps.size());
    *size = sizeof(VIDEO_STREAM_CONFIG_CAPS);
    return S_OK;
}

STDMETHODIMP TestCamPin::GetStreamCaps(int index, AM_MEDIA_TYPE** mt, BYTE* caps) {
    if (!mt || !caps) return E_POINTER;
    if (index < 0 || index >= static_cast<int>(filter_->config.caps.size())) return S_FALSE;
    const CamCap& cap = filter_->config.caps[static_cast<size_t>(index)];
    *mt = static_cast<AM_MEDIA_TYPE*>(CoTaskMemAlloc(sizeof(AM_MEDIA_TYPE)));
    BuildMediaType(cap, *mt);
    auto* scc = reinterpret_cast<VIDEO_STREAM_CONFIG_CAPS*>(caps);
    std::memset(scc, 0, sizeof(*scc));
    scc->guid = (*mt)->formattype;
    const LONG h = cap.height < 0 ? -cap.height : cap.height;
    scc->InputSize = {cap.width, h};
    scc->MinCroppingSize = scc->MaxCroppingSize = scc->InputSize;
    scc->MinOutputSize = scc->MaxOutputSize = scc->InputSize;
    scc->CropGranularityX = scc->CropGranularityY = 1;
    scc->MinFrameInterval = cap.min;
    scc->MaxFrameInterval = cap.max;
    return S_OK;
}

STDMETHODIMP TestCamPin::Get(REFGUID set, DWORD id, LPVOID, DWORD, LPVOID data, DWORD size, DWORD* returned) {
    if (!IsEqualGUID(set, AMPROPSETID_Pin)) return E_PROP_SET_UNSUPPORTED;
    if (id != AMPROPERTY_PIN_CATEGORY) return E_PROP_ID_UNSUPPORTED;
    if (!data) return E_POINTER;
    if (size < sizeof(GUID)) return E_UNEXPECTED;
    *static_cast<GUID*>(data) = PIN_CATEGORY_CAPTURE;
    if (returned) *returned = sizeof(GUID);
    return S_OK;
}

STDMETHODIMP TestCamPin::QuerySupported(REFGUID set, DWORD id, DWORD* support) {
    if (!IsEqualGUID(set, AMPROPSETID_Pin)) return E_PROP_SET_UNSUPPORTED;
    if (id != AMPROPERTY_PIN_CATEGORY) return E_PROP_ID_UNSUPPORTED;
    if (support) *support = KSPROPERTY_SUPPORT_GET;
    return S_OK;
}

// The record file tells a test what the camera was asked, one key a line.
void TestCamPin::Record() {
    if (filter_->config.recordPath.empty()) return;
    FILE* f = _wfopen(filter_->config.recordPath.c_str(), L"wb");
    if (!f) return;
    std::fprintf(f, "setformat=%s\n", lastSetFormat_.c_str());
    std::fprintf(f, "connected=%s\n", peer_ ? DescribeMediaType(&connected_).c_str() : "");
    std::fclose(f);
}

HRESULT TestCamPin::Active() { return allocator_ ? allocator_->Commit() : S_OK; }

void TestCamPin::Inactive() {
    if (allocator_) allocator_->Decommit();
}

HRESULT TestCamPin::StartStreaming() {
    if (!peer_ || thread_) return S_OK;
    stopEvent_ = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    thread_ = CreateThread(nullptr, 0, &TestCamPin::ThreadMain, this, 0, nullptr);
    return thread_ ? S_OK : E_FAIL;
}

void TestCamPin::StopStreaming() {
    if (!thread_) return;
    SetEvent(stopEvent_);
    // A thread blocked in GetBuffer is released by decommitting; the
    // allocator is committed again for a later run.
    if (allocator_) allocator_->Decommit();
    WaitForSingleObject(thread_, INFINITE);
    CloseHandle(thread_);
    CloseHandle(stopEvent_);
    thread_ = nullptr;
    stopEvent_ = nullptr;
    if (allocator_) allocator_->Commit();
}

DWORD WINAPI TestCamPin::ThreadMain(void* self) {
    CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    static_cast<TestCamPin*>(self)->Stream();
    CoUninitialize();
    return 0;
}

void TestCamPin::Stream() {
    BITMAPINFOHEADER bmi;
    REFERENCE_TIME avg = 0;
    ReadVideoHeader(&connected_, &bmi, &avg);
    const int index = FindCap(filter_->config.caps, &connected_);
    if (avg <= 0 && index >= 0) avg = filter_->config.caps[static_cast<size_t>(index)].avg;
    if (avg <= 0) avg = 333333;
    const int width = bmi.biWidth;
    const int height = bmi.biHeight < 0 ? -bmi.biHeight : bmi.biHeight;
    const bool bottomUp = bmi.biHeight > 0;
    const GUID subtype = connected_.subtype;
    const long bytes = SampleBytes(&connected_);

    const ULONGLONG start = GetTickCount64();
    for (uint32_t number = 0;; ++number) {
        const ULONGLONG due = start + static_cast<ULONGLONG>(number) * static_cast<ULONGLONG>(avg) / 10000;
        const ULONGLONG now = GetTickCount64();
        if (WaitForSingleObject(stopEvent_, due > now ? static_cast<DWORD>(due - now) : 0) == WAIT_OBJECT_0) return;
        IMediaSample* sample = nullptr;
        if (FAILED(allocator_->GetBuffer(&sample, nullptr, nullptr, 0))) return;
        BYTE* data = nullptr;
        sample->GetPointer(&data);
        long length = bytes;
        if (IsEqualGUID(subtype, MEDIASUBTYPE_YUY2)) {
            WritePattern(PatternFormat::YUY2, width, height, static_cast<size_t>(width) * 2, false, number, data);
        } else if (IsEqualGUID(subtype, MEDIASUBTYPE_NV12)) {
            WritePattern(PatternFormat::NV12, width, height, static_cast<size_t>(width), false, number, data);
        } else if (IsEqualGUID(subtype, MEDIASUBTYPE_RGB24)) {
            WritePattern(PatternFormat::RGB24, width, height, static_cast<size_t>(width) * 3, bottomUp, number, data);
        } else if (IsEqualGUID(subtype, MEDIASUBTYPE_RGB32)) {
            WritePattern(PatternFormat::RGB32, width, height, static_cast<size_t>(width) * 4, bottomUp, number, data);
        } else if (!accessUnits_.empty()) {
            const std::vector<BYTE>& unit = accessUnits_[number % accessUnits_.size()];
            std::memcpy(data, unit.data(), unit.size());
            length = static_cast<long>(unit.size());
        } else {
            std::memset(data, 0, static_cast<size_t>(length));
            std::memcpy(data, &number, sizeof(number));
        }
        sample->SetActualDataLength(length);
        sample->SetSyncPoint(TRUE);
        sample->SetDiscontinuity(number == 0);
        const HRESULT hr = peerInput_->Receive(sample);
        sample->Release();
        if (hr != S_OK) return;
    }
}

}  // namespace testcam
