// The test camera: a DirectShow video capture source (one filter, one capture pin, a trivial property page, plain
// COM) found where a USB camera would be; each instance reads its configuration from its registry entry.
#include <windows.h>
#include <dshow.h>
#include <dvdmedia.h>
#include <ocidl.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include "testcam_pattern.h"

namespace testcam {
namespace {

const CLSID CLSID_TestCam = {0x9cd1d6bd, 0xfd91, 0x4036, {0xb0, 0x21, 0x86, 0x64, 0xec, 0x00, 0x62, 0x60}};
const CLSID CLSID_TestCamPage = {0xac54f4c5, 0xb66c, 0x4630, {0xa9, 0x81, 0x9e, 0xfc, 0x32, 0xc2, 0xc5, 0x65}};
const wchar_t kPinName[] = L"Capture";
HMODULE g_module = nullptr;

struct CamCap { std::string subtype; int width = 0, height = 0; bool vih2 = false; int64_t avg = 0, min = 0, max = 0; };
struct CamConfig { std::vector<CamCap> caps; bool page = false, noStreamConfig = false; std::wstring h264Path; };

// ';'-separated entries: cap=SUBTYPE:W:H:vih|vih2:AVG:MIN:MAX (frame intervals; H < 0: top-down),
// page=1 (a property page), nocfg=1 (no IAMStreamConfig), h264=PATH (an Annex B
// file whose access units an H264 capability streams in a loop).
CamConfig ParseConfig(const std::wstring& text) {
    CamConfig config;
    std::wistringstream entries(text);
    for (std::wstring entry; std::getline(entries, entry, L';');) {
        const std::wstring key = entry.substr(0, entry.find(L'='));
        const std::wstring value = entry.substr(std::min(entry.size(), key.size() + 1));
        std::vector<std::wstring> f;
        std::wistringstream fields(value);
        for (std::wstring field; std::getline(fields, field, L':');) f.push_back(field);
        auto number = [&f](size_t i) { return std::wcstoll(f[i].c_str(), nullptr, 10); };
        if (key == L"cap" && f.size() == 7)
            config.caps.push_back({std::string(f[0].begin(), f[0].end()), int(number(1)), int(number(2)), f[3] == L"vih2",
                                   number(4), number(5), number(6)});
        config.page |= key == L"page" && value == L"1";
        config.noStreamConfig |= key == L"nocfg" && value == L"1";
        if (key == L"h264") config.h264Path = value;
    }
    return config;
}

// The subtypes in PatternFormat order first (their place is their pattern).
struct SubtypeInfo { const char* name; DWORD fourcc; WORD bits; GUID guid; };  // fourcc BI_RGB: RGB
constexpr DWORD Fourcc(const char (&s)[5]) { return MAKEFOURCC(s[0], s[1], s[2], s[3]); }
SubtypeInfo Four(const char (&s)[5], WORD bits) {
    return {s, Fourcc(s), bits, {Fourcc(s), 0x0000, 0x0010, {0x80, 0x00, 0x00, 0xaa, 0x00, 0x38, 0x9b, 0x71}}};
}
const SubtypeInfo kSubtypes[] = {Four("YUY2", 16), Four("NV12", 12), {"RGB24", BI_RGB, 24, MEDIASUBTYPE_RGB24},
                                 {"RGB32", BI_RGB, 32, MEDIASUBTYPE_RGB32}, Four("MJPG", 24), Four("H264", 24), Four("P010", 24)};

const SubtypeInfo* FindSubtype(const std::string& name, const GUID* guid = nullptr) {
    for (const SubtypeInfo& s : kSubtypes)
        if (guid ? IsEqualGUID(*guid, s.guid) : name == s.name) return &s;
    return nullptr;
}

AM_MEDIA_TYPE* NewType() { return static_cast<AM_MEDIA_TYPE*>(CoTaskMemAlloc(sizeof(AM_MEDIA_TYPE))); }

void BuildMediaType(const CamCap& cap, AM_MEDIA_TYPE* mt) {
    const SubtypeInfo* info = FindSubtype(cap.subtype) ? FindSubtype(cap.subtype) : &kSubtypes[0];
    const bool compressed = cap.subtype == "MJPG" || cap.subtype == "H264", vih2 = cap.vih2;
    const long absHeight = std::abs(cap.height);
    const BITMAPINFOHEADER bmi{sizeof(BITMAPINFOHEADER), cap.width, cap.height, 1, info->bits, info->fourcc,
                               static_cast<DWORD>(cap.width * absHeight * info->bits / 8), 0, 0, 0, 0};
    const ULONG size = vih2 ? sizeof(VIDEOINFOHEADER2) : sizeof(VIDEOINFOHEADER);
    *mt = {MEDIATYPE_Video, info->guid, !compressed, cap.subtype == "H264", compressed ? 0 : bmi.biSizeImage,
           vih2 ? FORMAT_VideoInfo2 : FORMAT_VideoInfo, nullptr, size, static_cast<BYTE*>(CoTaskMemAlloc(size))};
    std::memset(mt->pbFormat, 0, size);
    reinterpret_cast<VIDEOINFOHEADER*>(mt->pbFormat)->AvgTimePerFrame = cap.avg;  // same place in both blocks
    if (!vih2) return void(reinterpret_cast<VIDEOINFOHEADER*>(mt->pbFormat)->bmiHeader = bmi);
    auto* vih = reinterpret_cast<VIDEOINFOHEADER2*>(mt->pbFormat);
    vih->dwPictAspectRatioX = static_cast<DWORD>(cap.width), vih->dwPictAspectRatioY = static_cast<DWORD>(absHeight);
    vih->bmiHeader = bmi;
}

void FreeMediaType(AM_MEDIA_TYPE* mt) {
    if (mt->pbFormat) CoTaskMemFree(mt->pbFormat);
    if (mt->pUnk) mt->pUnk->Release();
    std::memset(mt, 0, sizeof(*mt));
}

void CopyMediaType(AM_MEDIA_TYPE* dst, const AM_MEDIA_TYPE* src) {
    *dst = *src;
    dst->pbFormat = src->cbFormat && src->pbFormat ? static_cast<BYTE*>(CoTaskMemAlloc(src->cbFormat)) : nullptr;
    if (dst->pbFormat) std::memcpy(dst->pbFormat, src->pbFormat, src->cbFormat);
    else dst->cbFormat = 0;
    if (dst->pUnk) dst->pUnk->AddRef();
}

bool ReadVideoHeader(const AM_MEDIA_TYPE* mt, BITMAPINFOHEADER* bmi, REFERENCE_TIME* avg) {
    const bool vih2 = IsEqualGUID(mt->formattype, FORMAT_VideoInfo2);
    if (!mt->pbFormat || !(vih2 || IsEqualGUID(mt->formattype, FORMAT_VideoInfo)) ||
        mt->cbFormat < (vih2 ? sizeof(VIDEOINFOHEADER2) : sizeof(VIDEOINFOHEADER)))
        return false;
    const auto* vih = reinterpret_cast<const VIDEOINFOHEADER*>(mt->pbFormat);
    *avg = vih->AvgTimePerFrame;  // at the same place in both blocks
    *bmi = vih2 ? reinterpret_cast<const VIDEOINFOHEADER2*>(mt->pbFormat)->bmiHeader : vih->bmiHeader;
    return true;
}

// Whether a full media type names one of the capabilities.
bool IsCap(const std::vector<CamCap>& caps, const AM_MEDIA_TYPE* mt) {
    BITMAPINFOHEADER bmi;
    REFERENCE_TIME avg;
    const SubtypeInfo* info = FindSubtype("", &mt->subtype);
    const bool vih2 = IsEqualGUID(mt->formattype, FORMAT_VideoInfo2);
    if (!IsEqualGUID(mt->majortype, MEDIATYPE_Video) || !info || !ReadVideoHeader(mt, &bmi, &avg)) return false;
    return std::any_of(caps.begin(), caps.end(), [&](const CamCap& c) {
        return c.subtype == info->name && c.vih2 == vih2 && c.width == bmi.biWidth && c.height == bmi.biHeight;
    });
}

// Access units of an Annex-B file of single-slice pictures: the NAL units after each 00 00 01 up to a slice.
std::vector<std::vector<BYTE>> ReadAccessUnits(const std::wstring& path) {
    std::vector<BYTE> data;
    if (FILE* f = _wfopen(path.c_str(), L"rb")) {
        for (int c; (c = std::fgetc(f)) != EOF;) data.push_back(BYTE(c));
        std::fclose(f);
    }
    std::vector<std::vector<BYTE>> units(1);
    auto startCode = [&data](size_t i) { return data[i] == 0 && data[i + 1] == 0 && data[i + 2] == 1; };
    for (size_t i = 0; i + 3 < data.size(); ++i) {
        if (!startCode(i)) continue;
        size_t end = i + 3;
        while (end + 3 <= data.size() && !startCode(end)) ++end;
        if (end + 3 > data.size()) end = data.size();
        size_t last = end;  // a NAL unit never ends in a zero byte: those open the next start code
        while (last > i + 3 && data[last - 1] == 0) --last;
        units.back().insert(units.back().end(), data.begin() + std::ptrdiff_t(i), data.begin() + std::ptrdiff_t(last));
        if ((data[i + 3] & 0x1f) == 1 || (data[i + 3] & 0x1f) == 5) units.emplace_back();
        i = end - 1;
    }
    units.pop_back();
    return units;
}

// A COM object's reference count: deleted at zero.
template <class... Interfaces>
class Counted : public Interfaces... {
public:
    virtual ~Counted() = default;
    STDMETHODIMP_(ULONG) AddRef() override { return ++refs_; }
    STDMETHODIMP_(ULONG) Release() override {
        const long n = --refs_;
        return n == 0 ? (delete this, 0) : n;
    }

private:
    std::atomic<long> refs_{1};
};

// The objects with one interface: enumerators, the class factory, the property page.
template <class Interface>
class SingleInterface : public Counted<Interface> {
public:
    explicit SingleInterface(const IID& iid) : iid_(iid) {}
    STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override {
        *ppv = IsEqualIID(riid, IID_IUnknown) || IsEqualIID(riid, iid_) ? static_cast<Interface*>(this) : nullptr;
        return *ppv ? (this->AddRef(), S_OK) : E_NOINTERFACE;
    }

protected:
    const IID& iid_;
};

IPin* Copy(IPin* pin) { return pin->AddRef(), pin; }
void Free(IPin* pin) { pin->Release(); }
AM_MEDIA_TYPE* Copy(AM_MEDIA_TYPE* mt) {
    AM_MEDIA_TYPE* copy = NewType();
    return CopyMediaType(copy, mt), copy;
}
void Free(AM_MEDIA_TYPE* mt) { FreeMediaType(mt), CoTaskMemFree(mt); }

// An enumerator over copies of items (pins or media types).
template <class Enum, class Item>
class Enumerator : public SingleInterface<Enum> {
public:
    Enumerator(const IID& iid, const std::vector<Item>& items, size_t pos) : SingleInterface<Enum>(iid), pos_(pos) {
        for (Item item : items) items_.push_back(Copy(item));
    }
    ~Enumerator() override { for (Item item : items_) Free(item); }
    STDMETHODIMP Next(ULONG count, Item* out, ULONG* fetched) override {
        ULONG n = 0;
        for (; n < count && pos_ < items_.size(); ++n, ++pos_) out[n] = Copy(items_[pos_]);
        if (fetched) *fetched = n;
        return n == count ? S_OK : S_FALSE;
    }
    STDMETHODIMP Skip(ULONG n) override { return (pos_ += n) <= items_.size() ? S_OK : (pos_ = items_.size(), S_FALSE); }
    STDMETHODIMP Reset() override { return pos_ = 0, S_OK; }
    STDMETHODIMP Clone(Enum** out) override { return *out = new Enumerator(this->iid_, items_, pos_), S_OK; }

private:
    std::vector<Item> items_;
    size_t pos_;
};

bool SameType(const AM_MEDIA_TYPE* a, const AM_MEDIA_TYPE* b) {
    return IsEqualGUID(a->majortype, b->majortype) && IsEqualGUID(a->subtype, b->subtype) &&
           IsEqualGUID(a->formattype, b->formattype) && a->cbFormat == b->cbFormat &&
           (a->cbFormat == 0 || std::memcmp(a->pbFormat, b->pbFormat, a->cbFormat) == 0);
}

// A partial type given to Connect matches when every GUID it names matches.
bool MatchesPartial(const AM_MEDIA_TYPE* p, const AM_MEDIA_TYPE* f) {
    auto same = [](const GUID& a, const GUID& b) { return IsEqualGUID(a, GUID_NULL) || IsEqualGUID(a, b); };
    return same(p->majortype, f->majortype) && same(p->subtype, f->subtype) && same(p->formattype, f->formattype);
}

struct CamState { CamConfig config; CRITICAL_SECTION lock; };  // what the filter and its pin share

// The capture pin: stream configuration, connection, and the thread drawing numbered frames; its filter owns it.
class TestCamPin : public IPin, public IAMStreamConfig, public IKsPropertySet {
public:
    TestCamPin(IBaseFilter* owner, CamState* state) : owner_(owner), state_(state) {}
    virtual ~TestCamPin() { StopStreaming(), Inactive(), Disconnect(), FreeMediaType(&chosen_); }
    STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override {
        *ppv = nullptr;
        if (IsEqualIID(riid, IID_IUnknown) || IsEqualIID(riid, IID_IPin)) *ppv = static_cast<IPin*>(this);
        else if (IsEqualIID(riid, IID_IAMStreamConfig) && !Config().noStreamConfig) *ppv = static_cast<IAMStreamConfig*>(this);
        else if (IsEqualIID(riid, IID_IKsPropertySet)) *ppv = static_cast<IKsPropertySet*>(this);
        return *ppv ? (AddRef(), S_OK) : E_NOINTERFACE;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return owner_->AddRef(); }
    STDMETHODIMP_(ULONG) Release() override { return owner_->Release(); }

    STDMETHODIMP Connect(IPin* receivePin, const AM_MEDIA_TYPE* mt) override {
        EnterCriticalSection(&state_->lock);
        HRESULT hr = peer_ ? VFW_E_ALREADY_CONNECTED : VFW_E_NO_ACCEPTABLE_TYPES;
        if (!peer_ && mt && !IsEqualGUID(mt->formattype, GUID_NULL) && mt->pbFormat) {
            hr = IsCap(Config().caps, mt) ? TryConnect(receivePin, mt) : VFW_E_TYPE_NOT_ACCEPTED;
        } else if (!peer_) {
            for (AM_MEDIA_TYPE& t : OfferedTypes()) {
                if (hr != S_OK && (!mt || MatchesPartial(mt, &t))) hr = TryConnect(receivePin, &t);
                FreeMediaType(&t);
            }
        }
        LeaveCriticalSection(&state_->lock);
        return hr;
    }
    STDMETHODIMP ReceiveConnection(IPin*, const AM_MEDIA_TYPE*) override { return E_UNEXPECTED; }
    STDMETHODIMP Disconnect() override {
        if (!peer_) return S_FALSE;
        for (IUnknown* p : std::initializer_list<IUnknown*>{allocator_, peerInput_, peer_}) p && p->Release();
        allocator_ = nullptr, peerInput_ = nullptr, peer_ = nullptr;
        return FreeMediaType(&connected_), S_OK;
    }
    STDMETHODIMP ConnectedTo(IPin** pin) override { return (*pin = peer_) ? (peer_->AddRef(), S_OK) : VFW_E_NOT_CONNECTED; }
    STDMETHODIMP ConnectionMediaType(AM_MEDIA_TYPE* mt) override {
        return peer_ ? (CopyMediaType(mt, &connected_), S_OK) : (std::memset(mt, 0, sizeof(*mt)), VFW_E_NOT_CONNECTED);
    }
    STDMETHODIMP QueryPinInfo(PIN_INFO* info) override {
        info->pFilter = owner_, info->dir = PINDIR_OUTPUT, owner_->AddRef();
        return lstrcpynW(info->achName, kPinName, MAX_PIN_NAME), S_OK;
    }
    STDMETHODIMP QueryDirection(PIN_DIRECTION* dir) override { return *dir = PINDIR_OUTPUT, S_OK; }
    STDMETHODIMP QueryId(LPWSTR* id) override {
        *id = static_cast<LPWSTR>(CoTaskMemAlloc(sizeof(kPinName)));
        return std::memcpy(*id, kPinName, sizeof(kPinName)), S_OK;
    }
    STDMETHODIMP QueryAccept(const AM_MEDIA_TYPE* mt) override { return IsCap(Config().caps, mt) ? S_OK : S_FALSE; }
    STDMETHODIMP EnumMediaTypes(IEnumMediaTypes** e) override {
        std::vector<AM_MEDIA_TYPE> types = OfferedTypes();
        std::vector<AM_MEDIA_TYPE*> pointers;
        for (AM_MEDIA_TYPE& t : types) pointers.push_back(&t);
        *e = new Enumerator<IEnumMediaTypes, AM_MEDIA_TYPE*>(IID_IEnumMediaTypes, pointers, 0);
        for (AM_MEDIA_TYPE& t : types) FreeMediaType(&t);
        return S_OK;
    }
    STDMETHODIMP QueryInternalConnections(IPin**, ULONG*) override { return E_NOTIMPL; }
    STDMETHODIMP EndOfStream() override { return E_UNEXPECTED; }
    STDMETHODIMP BeginFlush() override { return E_UNEXPECTED; }
    STDMETHODIMP EndFlush() override { return E_UNEXPECTED; }
    STDMETHODIMP NewSegment(REFERENCE_TIME, REFERENCE_TIME, double) override { return S_OK; }

    // IAMStreamConfig: SetFormat takes any capability, whatever its frame interval.
    STDMETHODIMP SetFormat(AM_MEDIA_TYPE* mt) override {
        if (!IsCap(Config().caps, mt)) return VFW_E_INVALIDMEDIATYPE;
        if (peer_) return SameType(mt, &connected_) ? S_OK : VFW_E_ALREADY_CONNECTED;
        FreeMediaType(&chosen_);
        return CopyMediaType(&chosen_, mt), S_OK;
    }
    STDMETHODIMP GetFormat(AM_MEDIA_TYPE** mt) override {
        if (Config().caps.empty()) return E_FAIL;
        *mt = NewType();
        peer_ || chosen_.pbFormat ? CopyMediaType(*mt, peer_ ? &connected_ : &chosen_) : BuildMediaType(Config().caps[0], *mt);
        return S_OK;
    }
    STDMETHODIMP GetNumberOfCapabilities(int* count, int* size) override {
        return *count = int(Config().caps.size()), *size = sizeof(VIDEO_STREAM_CONFIG_CAPS), S_OK;
    }
    STDMETHODIMP GetStreamCaps(int index, AM_MEDIA_TYPE** mt, BYTE* caps) override {
        if (index < 0 || index >= int(Config().caps.size())) return S_FALSE;
        const CamCap& cap = Config().caps[size_t(index)];
        BuildMediaType(cap, *mt = NewType());
        auto* scc = reinterpret_cast<VIDEO_STREAM_CONFIG_CAPS*>(caps);
        *scc = {};
        scc->guid = (*mt)->formattype, scc->InputSize = {cap.width, std::abs(cap.height)};
        scc->MinCroppingSize = scc->MaxCroppingSize = scc->MinOutputSize = scc->MaxOutputSize = scc->InputSize;
        scc->CropGranularityX = scc->CropGranularityY = 1, scc->MinFrameInterval = cap.min, scc->MaxFrameInterval = cap.max;
        return S_OK;
    }

    // IKsPropertySet: the pin category only (the capture graph builder finds the capture pin by it).
    STDMETHODIMP Set(REFGUID, DWORD, LPVOID, DWORD, LPVOID, DWORD) override { return E_NOTIMPL; }
    STDMETHODIMP Get(REFGUID set, DWORD id, LPVOID, DWORD, LPVOID data, DWORD size, DWORD* returned) override {
        if (!IsEqualGUID(set, AMPROPSETID_Pin)) return E_PROP_SET_UNSUPPORTED;
        if (id != AMPROPERTY_PIN_CATEGORY) return E_PROP_ID_UNSUPPORTED;
        if (!data || size < sizeof(GUID)) return data ? E_UNEXPECTED : E_POINTER;
        if (returned) *returned = sizeof(GUID);
        return *static_cast<GUID*>(data) = PIN_CATEGORY_CAPTURE, S_OK;
    }
    STDMETHODIMP QuerySupported(REFGUID, DWORD, DWORD*) override { return E_NOTIMPL; }

    // Called by the filter: leaving stopped commits the allocator, stopping decommits it.
    HRESULT Active() { return allocator_ ? allocator_->Commit() : S_OK; }
    void Inactive() { allocator_ && allocator_->Decommit(); }
    HRESULT StartStreaming() {
        if (!peer_ || thread_) return S_OK;
        stopEvent_ = CreateEventW(nullptr, TRUE, FALSE, nullptr);
        thread_ = CreateThread(nullptr, 0, &TestCamPin::ThreadMain, this, 0, nullptr);
        return thread_ ? S_OK : E_FAIL;
    }
    void StopStreaming() {
        if (!thread_) return;
        SetEvent(stopEvent_);
        Inactive();  // releases a thread blocked in GetBuffer; committed again below for a later run
        WaitForSingleObject(thread_, INFINITE);
        CloseHandle(thread_), CloseHandle(stopEvent_);
        thread_ = stopEvent_ = nullptr;
        Active();
    }

private:
    const CamConfig& Config() const { return state_->config; }

    // What the pin offers (caller frees each): the format SetFormat chose, else every capability.
    std::vector<AM_MEDIA_TYPE> OfferedTypes() {
        std::vector<AM_MEDIA_TYPE> types(chosen_.pbFormat ? 1 : Config().caps.size());
        for (size_t i = 0; i < types.size(); ++i)
            chosen_.pbFormat ? CopyMediaType(&types[i], &chosen_) : BuildMediaType(Config().caps[i], &types[i]);
        return types;
    }

    HRESULT TryConnect(IPin* receivePin, const AM_MEDIA_TYPE* mt) {
        HRESULT hr = receivePin->ReceiveConnection(this, mt);
        if (FAILED(hr)) return hr;
        (peer_ = receivePin)->AddRef();
        CopyMediaType(&connected_, mt);
        if (SUCCEEDED(hr = NegotiateAllocator(mt))) return S_OK;
        return receivePin->Disconnect(), Disconnect(), hr;
    }

    // The pattern a type carries: its place in kSubtypes (PatternFormat order); -1: none.
    static long PatternKind(const AM_MEDIA_TYPE* mt) {
        const SubtypeInfo* info = FindSubtype("", &mt->subtype);
        return info && info - kSubtypes < 4 ? static_cast<long>(info - kSubtypes) : -1;
    }

    long SampleBytes(const AM_MEDIA_TYPE* mt) {
        BITMAPINFOHEADER bmi;
        REFERENCE_TIME avg;
        if (!ReadVideoHeader(mt, &bmi, &avg)) return 0;
        if (PatternKind(mt) >= 0) return bmi.biWidth * std::abs(bmi.biHeight) * bmi.biBitCount / 8;
        if (Config().h264Path.empty() || bmi.biCompression != Fourcc("H264")) return 16;  // just the frame number
        accessUnits_ = ReadAccessUnits(Config().h264Path);
        size_t largest = 1;
        for (const auto& unit : accessUnits_) largest = std::max(largest, unit.size());
        return static_cast<long>(largest);
    }

    // The peer's allocator or else one of our own, with at least three buffers of a whole sample.
    HRESULT NegotiateAllocator(const AM_MEDIA_TYPE* mt) {
        HRESULT hr = peer_->QueryInterface(IID_IMemInputPin, reinterpret_cast<void**>(&peerInput_));
        if (SUCCEEDED(hr) && FAILED(peerInput_->GetAllocator(&allocator_)))
            hr = CoCreateInstance(CLSID_MemoryAllocator, nullptr, CLSCTX_INPROC_SERVER, IID_IMemAllocator,
                                  reinterpret_cast<void**>(&allocator_));
        if (FAILED(hr)) return hr;
        ALLOCATOR_PROPERTIES wanted{}, actual{};
        peerInput_->GetAllocatorRequirements(&wanted);
        wanted.cBuffers = std::max(wanted.cBuffers, 3L), wanted.cbBuffer = SampleBytes(mt);
        wanted.cbAlign = std::max(wanted.cbAlign, 1L), wanted.cbPrefix = 0;
        hr = allocator_->SetProperties(&wanted, &actual);
        if (SUCCEEDED(hr) && actual.cbBuffer < wanted.cbBuffer) hr = E_FAIL;
        return SUCCEEDED(hr) ? peerInput_->NotifyAllocator(allocator_, FALSE) : hr;
    }

    static DWORD WINAPI ThreadMain(void* self) {
        CoInitializeEx(nullptr, COINIT_MULTITHREADED), static_cast<TestCamPin*>(self)->Stream(), CoUninitialize();
        return 0;
    }

    void Stream() {
        BITMAPINFOHEADER bmi;
        REFERENCE_TIME avg = 0;
        ReadVideoHeader(&connected_, &bmi, &avg);
        if (avg <= 0) avg = 333333;
        const long kind = PatternKind(&connected_), bytes = SampleBytes(&connected_);
        const ULONGLONG start = GetTickCount64();
        for (uint32_t number = 0;; ++number) {
            const ULONGLONG due = start + ULONGLONG(number) * ULONGLONG(avg) / 10000, now = GetTickCount64();
            if (WaitForSingleObject(stopEvent_, due > now ? DWORD(due - now) : 0) == WAIT_OBJECT_0) return;
            IMediaSample* sample = nullptr;
            if (FAILED(allocator_->GetBuffer(&sample, nullptr, nullptr, 0))) return;
            BYTE* data = nullptr;
            sample->GetPointer(&data);
            long length = bytes;
            if (kind >= 0) {
                WritePattern(PatternFormat(kind), bmi.biWidth, std::abs(bmi.biHeight), kSubtypes[kind].bits / 8 * bmi.biWidth,
                             kind >= 2 && bmi.biHeight > 0, number, data);
            } else if (!accessUnits_.empty()) {
                const std::vector<BYTE>& unit = accessUnits_[number % accessUnits_.size()];
                std::memcpy(data, unit.data(), unit.size());
                length = static_cast<long>(unit.size());
            } else {
                std::memset(data, 0, size_t(length)), std::memcpy(data, &number, sizeof(number));
            }
            sample->SetActualDataLength(length), sample->SetSyncPoint(TRUE), sample->SetDiscontinuity(number == 0);
            const HRESULT hr = peerInput_->Receive(sample);
            sample->Release();
            if (hr != S_OK) return;
        }
    }

    IBaseFilter* owner_;
    CamState* state_;
    IPin* peer_ = nullptr;
    IMemInputPin* peerInput_ = nullptr;
    IMemAllocator* allocator_ = nullptr;
    AM_MEDIA_TYPE connected_{}, chosen_{};  // chosen_: set by SetFormat (a format block when set)
    HANDLE thread_ = nullptr, stopEvent_ = nullptr;
    std::vector<std::vector<BYTE>> accessUnits_;
};

// The filter: state changes, its one pin, configuration from the device's property bag, the optional page.
class TestCamFilter : public Counted<IBaseFilter, IPersistPropertyBag, ISpecifyPropertyPages>, private CamState {
public:
    TestCamFilter() : pin_(this, this) { InitializeCriticalSection(&lock); }
    ~TestCamFilter() override { SetSyncSource(nullptr), DeleteCriticalSection(&lock); }  // the pin stops itself
    STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override {
        *ppv = nullptr;
        if (IsEqualIID(riid, IID_IUnknown) || IsEqualIID(riid, IID_IBaseFilter) || IsEqualIID(riid, IID_IMediaFilter) ||
            IsEqualIID(riid, IID_IPersist))
            *ppv = static_cast<IBaseFilter*>(this);
        else if (IsEqualIID(riid, IID_IPersistPropertyBag)) *ppv = static_cast<IPersistPropertyBag*>(this);
        else if (IsEqualIID(riid, IID_ISpecifyPropertyPages) && config.page) *ppv = static_cast<ISpecifyPropertyPages*>(this);
        return *ppv ? (AddRef(), S_OK) : E_NOINTERFACE;
    }
    STDMETHODIMP GetClassID(CLSID* clsid) override { return *clsid = CLSID_TestCam, S_OK; }
    STDMETHODIMP Stop() override {
        EnterCriticalSection(&lock);
        pin_.StopStreaming(), pin_.Inactive(), state_ = State_Stopped;
        return LeaveCriticalSection(&lock), S_OK;
    }
    // A live source has nothing to show while paused. Pausing leaves the streaming thread alone: the
    // paused renderer may hold it inside Receive until stopped, so joining it here could wait forever.
    STDMETHODIMP Pause() override {
        const HRESULT hr = Change(State_Paused);
        return SUCCEEDED(hr) ? VFW_S_CANT_CUE : hr;
    }
    STDMETHODIMP Run(REFERENCE_TIME) override { return Change(State_Running); }
    STDMETHODIMP GetState(DWORD, FILTER_STATE* state) override { return (*state = state_) == State_Paused ? VFW_S_CANT_CUE : S_OK; }
    STDMETHODIMP SetSyncSource(IReferenceClock* clock) override {
        if (clock) clock->AddRef();
        if (clock_) clock_->Release();
        return clock_ = clock, S_OK;
    }
    STDMETHODIMP GetSyncSource(IReferenceClock** clock) override { return (*clock = clock_) && clock_->AddRef(), S_OK; }
    STDMETHODIMP EnumPins(IEnumPins** e) override { return *e = new Enumerator<IEnumPins, IPin*>(IID_IEnumPins, {&pin_}, 0), S_OK; }
    STDMETHODIMP FindPin(LPCWSTR id, IPin** pin) override {
        return (*pin = lstrcmpW(id, kPinName) == 0 ? &pin_ : nullptr) ? (pin_.AddRef(), S_OK) : VFW_E_NOT_FOUND;
    }
    STDMETHODIMP QueryFilterInfo(FILTER_INFO* info) override {
        lstrcpynW(info->achName, name_.c_str(), MAX_FILTER_NAME);
        return (info->pGraph = graph_) && graph_->AddRef(), S_OK;
    }
    STDMETHODIMP JoinFilterGraph(IFilterGraph* graph, LPCWSTR name) override {  // graph_ not counted: it owns us
        return graph_ = graph, name_ = name ? name : L"", S_OK;
    }
    STDMETHODIMP QueryVendorInfo(LPWSTR*) override { return E_NOTIMPL; }
    STDMETHODIMP InitNew() override { return S_OK; }
    STDMETHODIMP Load(IPropertyBag* bag, IErrorLog* log) override {
        VARIANT value;
        VariantInit(&value);
        V_VT(&value) = VT_BSTR;
        if (SUCCEEDED(bag->Read(L"KivTestCamConfig", &value, log)) && V_VT(&value) == VT_BSTR) config = ParseConfig(V_BSTR(&value));
        VariantClear(&value);
        return S_OK;
    }
    STDMETHODIMP Save(IPropertyBag*, BOOL, BOOL) override { return E_NOTIMPL; }
    STDMETHODIMP GetPages(CAUUID* pages) override {
        *pages = {1, static_cast<GUID*>(CoTaskMemAlloc(sizeof(GUID)))};
        return pages->pElems[0] = CLSID_TestCamPage, S_OK;
    }

private:
    // Paused or running: leaving stopped commits the allocator; running starts the streaming thread.
    HRESULT Change(FILTER_STATE to) {
        EnterCriticalSection(&lock);
        HRESULT hr = state_ == State_Stopped ? pin_.Active() : S_OK;
        if (SUCCEEDED(hr) && to == State_Running) hr = pin_.StartStreaming();
        if (SUCCEEDED(hr)) state_ = to;
        return LeaveCriticalSection(&lock), hr;
    }

    FILTER_STATE state_ = State_Stopped;
    IReferenceClock* clock_ = nullptr;
    IFilterGraph* graph_ = nullptr;
    std::wstring name_;
    TestCamPin pin_;
};

// A page without a window of its own: the frame around it is what the device page shows.
class TestCamPage : public SingleInterface<IPropertyPage> {
public:
    TestCamPage() : SingleInterface(IID_IPropertyPage) {}
    STDMETHODIMP GetPageInfo(PROPPAGEINFO* info) override {
        static const wchar_t title[] = L"Test camera";
        *info = {sizeof(PROPPAGEINFO), static_cast<LPOLESTR>(CoTaskMemAlloc(sizeof(title))), {200, 100}, nullptr, nullptr, 0};
        return std::memcpy(info->pszTitle, title, sizeof(title)), S_OK;
    }
    STDMETHODIMP SetPageSite(IPropertyPageSite*) override { return S_OK; }
    STDMETHODIMP Activate(HWND, LPCRECT, BOOL) override { return S_OK; }
    STDMETHODIMP Deactivate() override { return S_OK; }
    STDMETHODIMP SetObjects(ULONG, IUnknown**) override { return S_OK; }
    STDMETHODIMP Show(UINT) override { return S_OK; }
    STDMETHODIMP Move(LPCRECT) override { return S_OK; }
    STDMETHODIMP IsPageDirty() override { return S_FALSE; }
    STDMETHODIMP Apply() override { return S_OK; }
    STDMETHODIMP Help(LPCOLESTR) override { return E_NOTIMPL; }
    STDMETHODIMP TranslateAccelerator(MSG*) override { return S_FALSE; }
};

class Factory : public SingleInterface<IClassFactory> {
    bool page_;

public:
    explicit Factory(bool page) : SingleInterface(IID_IClassFactory), page_(page) {}
    STDMETHODIMP CreateInstance(IUnknown*, REFIID riid, void** ppv) override {  // never aggregated
        IUnknown* object = page_ ? static_cast<IUnknown*>(new TestCamPage())
                                 : static_cast<IUnknown*>(static_cast<IBaseFilter*>(new TestCamFilter()));
        const HRESULT hr = object->QueryInterface(riid, ppv);
        return object->Release(), hr;
    }
    STDMETHODIMP LockServer(BOOL) override { return S_OK; }
};

std::wstring GuidText(const GUID& guid) {
    wchar_t text[64];
    return StringFromGUID2(guid, text, 64) ? text : L"";
}

const wchar_t kInstanceRoot[] = L"CLSID\\{860BB310-5D01-11D0-BD3B-00A0C911CE86}\\Instance";

// Creates HKCR\name and sets its string values (a null name is the default value).
HRESULT WriteKey(const std::wstring& name, std::initializer_list<std::pair<const wchar_t*, std::wstring>> values) {
    HKEY key;
    if (RegCreateKeyExW(HKEY_CLASSES_ROOT, name.c_str(), 0, nullptr, 0, KEY_WRITE, nullptr, &key, nullptr) != ERROR_SUCCESS)
        return E_FAIL;
    LONG rc = ERROR_SUCCESS;
    for (auto v = values.begin(); rc == ERROR_SUCCESS && v != values.end(); ++v)
        rc = RegSetValueExW(key, v->first, 0, REG_SZ, reinterpret_cast<const BYTE*>(v->second.c_str()),
                            DWORD((v->second.size() + 1) * sizeof(wchar_t)));
    return RegCloseKey(key), rc == ERROR_SUCCESS ? S_OK : E_FAIL;
}

// HKCR\CLSID\{clsid}\InprocServer32 pointing at this DLL.
HRESULT RegisterServer(const GUID& clsid) {
    wchar_t path[MAX_PATH];
    const DWORD n = GetModuleFileNameW(g_module, path, MAX_PATH);
    if (n == 0 || n >= MAX_PATH) return E_FAIL;
    return WriteKey(L"CLSID\\" + GuidText(clsid) + L"\\InprocServer32", {{nullptr, path}, {L"ThreadingModel", L"Both"}});
}

}  // namespace
}  // namespace testcam

using namespace testcam;

extern "C" BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID) {
    if (reason == DLL_PROCESS_ATTACH) g_module = instance, DisableThreadLibraryCalls(instance);
    return TRUE;
}

STDAPI DllGetClassObject(REFCLSID clsid, REFIID riid, LPVOID* ppv) {
    *ppv = nullptr;
    const bool page = IsEqualCLSID(clsid, CLSID_TestCamPage);
    if (!page && !IsEqualCLSID(clsid, CLSID_TestCam)) return CLASS_E_CLASSNOTAVAILABLE;
    Factory* factory = new Factory(page);
    const HRESULT hr = factory->QueryInterface(riid, ppv);
    return factory->Release(), hr;
}

STDAPI DllCanUnloadNow() { return S_FALSE; }  // stays loaded for the process

// Writes what a driver's registration writes for one camera instance.
extern "C" HRESULT KivTestCamInstall(const wchar_t* keyName, const wchar_t* friendlyName, const wchar_t* config) {
    HRESULT hr = RegisterServer(CLSID_TestCam);
    if (SUCCEEDED(hr)) hr = RegisterServer(CLSID_TestCamPage);
    const std::wstring key = std::wstring(kInstanceRoot) + L"\\" + keyName;
    if (SUCCEEDED(hr)) hr = WriteKey(key, {{L"CLSID", GuidText(CLSID_TestCam)}, {L"KivTestCamConfig", config}});
    if (SUCCEEDED(hr) && friendlyName) hr = WriteKey(key, {{L"FriendlyName", friendlyName}});
    return hr;
}

// Removes every video capture device of the prefix (it has no real cameras): tests start from a known list.
extern "C" HRESULT KivTestCamRemoveAll() {
    const LSTATUS rc = RegDeleteTreeW(HKEY_CLASSES_ROOT, kInstanceRoot);
    return rc == ERROR_SUCCESS || rc == ERROR_FILE_NOT_FOUND ? S_OK : E_FAIL;
}
