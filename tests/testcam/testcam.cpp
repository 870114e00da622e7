// The test camera: a DirectShow video capture source (one filter, one capture
// pin, a trivial property page, plain COM) found where a USB camera would be.
// Each instance reads its ';'-separated configuration (cap=SUBTYPE:W:H:BLOCK:
// AVG:MIN:MAX, page=1, nocfg=1, record=PATH, h264=PATH) from its registry entry.
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

// {9CD1D6BD-FD91-4036-B021-8664EC006260}
const CLSID CLSID_TestCam = {0x9cd1d6bd, 0xfd91, 0x4036, {0xb0, 0x21, 0x86, 0x64, 0xec, 0x00, 0x62, 0x60}};
// {AC54F4C5-B66C-4630-A981-9EFC32C2C565}
const CLSID CLSID_TestCamPage = {0xac54f4c5, 0xb66c, 0x4630, {0xa9, 0x81, 0x9e, 0xfc, 0x32, 0xc2, 0xc5, 0x65}};
const wchar_t kPinName[] = L"Capture";
HMODULE g_module = nullptr;

struct CamCap {
    std::string subtype;
    int width = 0, height = 0;  // height < 0: top-down
    bool vih2 = false;
    int64_t avg = 0, min = 0, max = 0;
};

struct CamConfig {
    std::vector<CamCap> caps;
    bool page = false, noStreamConfig = false;
    std::wstring recordPath, h264Path;
};

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
            config.caps.push_back({std::string(f[0].begin(), f[0].end()), static_cast<int>(number(1)),
                                   static_cast<int>(number(2)), f[3] == L"vih2", number(4), number(5), number(6)});
        if (key == L"page") config.page = value == L"1";
        if (key == L"nocfg") config.noStreamConfig = value == L"1";
        if (key == L"record") config.recordPath = value;
        if (key == L"h264") config.h264Path = value;
    }
    return config;
}

// The subtypes in PatternFormat order first (their place is their pattern).
struct SubtypeInfo {
    const char* name;
    DWORD fourcc;  // BI_RGB for the RGB types
    WORD bits;
    GUID guid;
};
constexpr DWORD Fourcc(const char (&s)[5]) { return MAKEFOURCC(s[0], s[1], s[2], s[3]); }
GUID FourccGuid(DWORD fourcc) { return {fourcc, 0x0000, 0x0010, {0x80, 0x00, 0x00, 0xaa, 0x00, 0x38, 0x9b, 0x71}}; }
const SubtypeInfo kSubtypes[] = {
    {"YUY2", Fourcc("YUY2"), 16, FourccGuid(Fourcc("YUY2"))}, {"NV12", Fourcc("NV12"), 12, FourccGuid(Fourcc("NV12"))},
    {"RGB24", BI_RGB, 24, MEDIASUBTYPE_RGB24},                {"RGB32", BI_RGB, 32, MEDIASUBTYPE_RGB32},
    {"MJPG", Fourcc("MJPG"), 24, FourccGuid(Fourcc("MJPG"))}, {"H264", Fourcc("H264"), 24, FourccGuid(Fourcc("H264"))},
    {"P010", Fourcc("P010"), 24, FourccGuid(Fourcc("P010"))},
};

const SubtypeInfo* FindSubtype(const std::string& name, const GUID* guid = nullptr) {
    for (const SubtypeInfo& s : kSubtypes)
        if (guid ? IsEqualGUID(*guid, s.guid) : name == s.name) return &s;
    return nullptr;
}

AM_MEDIA_TYPE* NewType() { return static_cast<AM_MEDIA_TYPE*>(CoTaskMemAlloc(sizeof(AM_MEDIA_TYPE))); }

void BuildMediaType(const CamCap& cap, AM_MEDIA_TYPE* mt) {
    const SubtypeInfo* info = FindSubtype(cap.subtype);
    if (!info) info = &kSubtypes[0];
    const bool compressed = cap.subtype == "MJPG" || cap.subtype == "H264", vih2 = cap.vih2;
    const long absHeight = std::abs(cap.height);
    const BITMAPINFOHEADER bmi{sizeof(BITMAPINFOHEADER), cap.width, cap.height, 1, info->bits, info->fourcc,
                               static_cast<DWORD>(cap.width * absHeight * info->bits / 8), 0, 0, 0, 0};
    const ULONG size = vih2 ? sizeof(VIDEOINFOHEADER2) : sizeof(VIDEOINFOHEADER);
    *mt = {MEDIATYPE_Video, info->guid, !compressed, cap.subtype == "H264", compressed ? 0 : bmi.biSizeImage,
           vih2 ? FORMAT_VideoInfo2 : FORMAT_VideoInfo, nullptr, size, static_cast<BYTE*>(CoTaskMemAlloc(size))};
    std::memset(mt->pbFormat, 0, size);
    reinterpret_cast<VIDEOINFOHEADER*>(mt->pbFormat)->AvgTimePerFrame = cap.avg;  // same place in both blocks
    if (vih2) {
        auto* vih = reinterpret_cast<VIDEOINFOHEADER2*>(mt->pbFormat);
        vih->dwPictAspectRatioX = static_cast<DWORD>(cap.width);
        vih->dwPictAspectRatioY = static_cast<DWORD>(absHeight);
        vih->bmiHeader = bmi;
    } else {
        reinterpret_cast<VIDEOINFOHEADER*>(mt->pbFormat)->bmiHeader = bmi;
    }
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

// The capability a full media type names (-1: none), and its description for
// the record file.
int FindCap(const std::vector<CamCap>& caps, const AM_MEDIA_TYPE* mt, std::string* text = nullptr) {
    BITMAPINFOHEADER bmi;
    REFERENCE_TIME avg;
    const SubtypeInfo* info = FindSubtype("", &mt->subtype);
    const bool vih2 = IsEqualGUID(mt->formattype, FORMAT_VideoInfo2);
    if (!IsEqualGUID(mt->majortype, MEDIATYPE_Video) || !info || !ReadVideoHeader(mt, &bmi, &avg)) return -1;
    for (size_t i = 0; i < caps.size(); ++i) {
        const CamCap& c = caps[i];
        if (c.subtype != info->name || c.vih2 != vih2 || c.width != bmi.biWidth || c.height != bmi.biHeight) continue;
        char line[128];
        std::snprintf(line, sizeof(line), "%s:%ld:%ld:%s:%lld", info->name, static_cast<long>(bmi.biWidth),
                      static_cast<long>(bmi.biHeight), vih2 ? "vih2" : "vih", static_cast<long long>(avg));
        if (text) *text = line;
        return static_cast<int>(i);
    }
    return -1;
}

// Access units of an Annex-B H.264 file of single-slice pictures (none when it
// cannot be read): the NAL units after each 00 00 01 up to and including a
// slice.
std::vector<std::vector<BYTE>> ReadAccessUnits(const std::wstring& path) {
    FILE* f = _wfopen(path.c_str(), L"rb");
    if (!f) return {};
    std::vector<BYTE> data;
    BYTE chunk[65536];
    for (size_t n; (n = std::fread(chunk, 1, sizeof(chunk), f)) > 0;) data.insert(data.end(), chunk, chunk + n);
    std::fclose(f);
    std::vector<std::vector<BYTE>> units(1);
    auto startCode = [&data](size_t i) { return data[i] == 0 && data[i + 1] == 0 && data[i + 2] == 1; };
    for (size_t i = 0; i + 3 < data.size(); ++i) {
        if (!startCode(i)) continue;
        size_t end = i + 3;
        while (end + 3 <= data.size() && !startCode(end)) ++end;
        if (end + 3 > data.size()) end = data.size();
        size_t last = end;  // a NAL unit never ends in a zero byte: those open the next start code
        while (last > i + 3 && data[last - 1] == 0) --last;
        units.back().insert(units.back().end(), data.begin() + static_cast<std::ptrdiff_t>(i),
                            data.begin() + static_cast<std::ptrdiff_t>(last));
        const int type = data[i + 3] & 0x1f;
        if (type == 1 || type == 5) units.emplace_back();
        i = end - 1;
    }
    units.pop_back();
    return units;
}

// IUnknown of the objects with one interface (enumerators, the class factory,
// the property page): counted, deleted at zero.
template <class Interface>
class SingleInterface : public Interface {
public:
    explicit SingleInterface(const IID& iid) : iid_(iid) {}
    virtual ~SingleInterface() = default;
    STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override {
        if (!ppv) return E_POINTER;
        *ppv = IsEqualIID(riid, IID_IUnknown) || IsEqualIID(riid, iid_) ? static_cast<Interface*>(this) : nullptr;
        return *ppv ? (AddRef(), S_OK) : E_NOINTERFACE;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return ++refs_; }
    STDMETHODIMP_(ULONG) Release() override {
        const long n = --refs_;
        return n == 0 ? (delete this, 0) : n;
    }

protected:
    const IID& iid_;

private:
    std::atomic<long> refs_{1};
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
    ~Enumerator() override {
        for (Item item : items_) Free(item);
    }
    STDMETHODIMP Next(ULONG count, Item* out, ULONG* fetched) override {
        ULONG n = 0;
        for (; n < count && pos_ < items_.size(); ++n, ++pos_) out[n] = Copy(items_[pos_]);
        if (fetched) *fetched = n;
        return n == count ? S_OK : S_FALSE;
    }
    STDMETHODIMP Skip(ULONG count) override {
        const bool all = pos_ + count <= items_.size();
        return pos_ = all ? pos_ + count : items_.size(), all ? S_OK : S_FALSE;
    }
    STDMETHODIMP Reset() override { return pos_ = 0, S_OK; }
    STDMETHODIMP Clone(Enum** out) override {
        return out ? (*out = new Enumerator(this->iid_, items_, pos_), S_OK) : E_POINTER;
    }

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
bool MatchesPartial(const AM_MEDIA_TYPE* partial, const AM_MEDIA_TYPE* full) {
    for (auto [p, f] : {std::make_pair(&partial->majortype, &full->majortype),
                        std::make_pair(&partial->subtype, &full->subtype),
                        std::make_pair(&partial->formattype, &full->formattype)})
        if (!IsEqualGUID(*p, GUID_NULL) && !IsEqualGUID(*p, *f)) return false;
    return true;
}

// What the filter and its pin share.
struct CamState {
    CamConfig config;
    CRITICAL_SECTION lock;
};

// The capture output pin: stream configuration, connection with allocator
// negotiation, and the streaming thread that draws numbered frames. Its
// lifetime is the filter's (`owner`).
class TestCamPin : public IPin, public IAMStreamConfig, public IKsPropertySet {
public:
    TestCamPin(IBaseFilter* owner, CamState* state) : owner_(owner), state_(state) {}
    virtual ~TestCamPin() { StopStreaming(), Inactive(), Disconnect(), FreeMediaType(&chosen_); }
    STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override {
        if (!ppv) return E_POINTER;
        *ppv = nullptr;
        if (IsEqualIID(riid, IID_IUnknown) || IsEqualIID(riid, IID_IPin)) *ppv = static_cast<IPin*>(this);
        else if (IsEqualIID(riid, IID_IAMStreamConfig) && !Config().noStreamConfig)
            *ppv = static_cast<IAMStreamConfig*>(this);
        else if (IsEqualIID(riid, IID_IKsPropertySet)) *ppv = static_cast<IKsPropertySet*>(this);
        return *ppv ? (AddRef(), S_OK) : E_NOINTERFACE;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return owner_->AddRef(); }
    STDMETHODIMP_(ULONG) Release() override { return owner_->Release(); }

    // IPin
    STDMETHODIMP Connect(IPin* receivePin, const AM_MEDIA_TYPE* mt) override {
        if (!receivePin) return E_POINTER;
        EnterCriticalSection(&state_->lock);
        HRESULT hr = VFW_E_NO_ACCEPTABLE_TYPES;
        if (peer_) {
            hr = VFW_E_ALREADY_CONNECTED;
        } else if (mt && !IsEqualGUID(mt->formattype, GUID_NULL) && mt->pbFormat) {
            hr = FindCap(Config().caps, mt) >= 0 ? TryConnect(receivePin, mt) : VFW_E_TYPE_NOT_ACCEPTED;
        } else {
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
        for (IUnknown* p : std::initializer_list<IUnknown*>{allocator_, peerInput_, peer_})
            if (p) p->Release();
        allocator_ = nullptr, peerInput_ = nullptr, peer_ = nullptr;
        return FreeMediaType(&connected_), S_OK;
    }
    STDMETHODIMP ConnectedTo(IPin** pin) override {
        if (!pin) return E_POINTER;
        *pin = peer_;
        return peer_ ? (peer_->AddRef(), S_OK) : VFW_E_NOT_CONNECTED;
    }
    STDMETHODIMP ConnectionMediaType(AM_MEDIA_TYPE* mt) override {
        if (!mt) return E_POINTER;
        if (!peer_) return std::memset(mt, 0, sizeof(*mt)), VFW_E_NOT_CONNECTED;
        return CopyMediaType(mt, &connected_), S_OK;
    }
    STDMETHODIMP QueryPinInfo(PIN_INFO* info) override {
        if (!info) return E_POINTER;
        info->pFilter = owner_, info->dir = PINDIR_OUTPUT;
        owner_->AddRef();
        return lstrcpynW(info->achName, kPinName, MAX_PIN_NAME), S_OK;
    }
    STDMETHODIMP QueryDirection(PIN_DIRECTION* dir) override { return dir ? (*dir = PINDIR_OUTPUT, S_OK) : E_POINTER; }
    STDMETHODIMP QueryId(LPWSTR* id) override {
        if (!id) return E_POINTER;
        *id = static_cast<LPWSTR>(CoTaskMemAlloc(sizeof(kPinName)));
        return std::memcpy(*id, kPinName, sizeof(kPinName)), S_OK;
    }
    STDMETHODIMP QueryAccept(const AM_MEDIA_TYPE* mt) override {
        return mt && FindCap(Config().caps, mt) >= 0 ? S_OK : S_FALSE;
    }
    STDMETHODIMP EnumMediaTypes(IEnumMediaTypes** e) override {
        if (!e) return E_POINTER;
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

    // IAMStreamConfig: SetFormat is honoured as long as the type is one of the
    // capabilities, whatever its frame interval, and written to the record file.
    STDMETHODIMP SetFormat(AM_MEDIA_TYPE* mt) override {
        if (!mt) return E_POINTER;
        std::string text;
        if (FindCap(Config().caps, mt, &text) < 0) return VFW_E_INVALIDMEDIATYPE;
        if (peer_) return SameType(mt, &connected_) ? S_OK : VFW_E_ALREADY_CONNECTED;
        FreeMediaType(&chosen_);
        CopyMediaType(&chosen_, mt);
        FILE* f = Config().recordPath.empty() ? nullptr : _wfopen(Config().recordPath.c_str(), L"wb");
        if (f) std::fprintf(f, "setformat=%s\n", text.c_str()), std::fclose(f);
        return S_OK;
    }
    STDMETHODIMP GetFormat(AM_MEDIA_TYPE** mt) override {
        if (!mt) return E_POINTER;
        if (Config().caps.empty()) return E_FAIL;
        *mt = NewType();
        if (peer_ || chosen_.pbFormat) CopyMediaType(*mt, peer_ ? &connected_ : &chosen_);
        else BuildMediaType(Config().caps[0], *mt);
        return S_OK;
    }
    STDMETHODIMP GetNumberOfCapabilities(int* count, int* size) override {
        if (!count || !size) return E_POINTER;
        return *count = static_cast<int>(Config().caps.size()), *size = sizeof(VIDEO_STREAM_CONFIG_CAPS), S_OK;
    }
    STDMETHODIMP GetStreamCaps(int index, AM_MEDIA_TYPE** mt, BYTE* caps) override {
        if (!mt || !caps) return E_POINTER;
        if (index < 0 || index >= static_cast<int>(Config().caps.size())) return S_FALSE;
        const CamCap& cap = Config().caps[static_cast<size_t>(index)];
        BuildMediaType(cap, *mt = NewType());
        auto* scc = reinterpret_cast<VIDEO_STREAM_CONFIG_CAPS*>(caps);
        std::memset(scc, 0, sizeof(*scc));
        scc->guid = (*mt)->formattype;
        scc->InputSize = {cap.width, std::abs(cap.height)};
        scc->MinCroppingSize = scc->MaxCroppingSize = scc->MinOutputSize = scc->MaxOutputSize = scc->InputSize;
        scc->CropGranularityX = scc->CropGranularityY = 1;
        scc->MinFrameInterval = cap.min, scc->MaxFrameInterval = cap.max;
        return S_OK;
    }

    // IKsPropertySet: the pin category only (the capture graph builder finds
    // the capture pin by it).
    STDMETHODIMP Set(REFGUID, DWORD, LPVOID, DWORD, LPVOID, DWORD) override { return E_NOTIMPL; }
    STDMETHODIMP Get(REFGUID set, DWORD id, LPVOID, DWORD, LPVOID data, DWORD size, DWORD* returned) override {
        if (!IsEqualGUID(set, AMPROPSETID_Pin)) return E_PROP_SET_UNSUPPORTED;
        if (id != AMPROPERTY_PIN_CATEGORY) return E_PROP_ID_UNSUPPORTED;
        if (!data || size < sizeof(GUID)) return data ? E_UNEXPECTED : E_POINTER;
        *static_cast<GUID*>(data) = PIN_CATEGORY_CAPTURE;
        if (returned) *returned = sizeof(GUID);
        return S_OK;
    }
    STDMETHODIMP QuerySupported(REFGUID, DWORD, DWORD*) override { return E_NOTIMPL; }

    // Called by the filter on state changes: stopped -> paused commits the
    // allocator, -> stopped decommits it.
    HRESULT Active() { return allocator_ ? allocator_->Commit() : S_OK; }
    void Inactive() {
        if (allocator_) allocator_->Decommit();
    }
    HRESULT StartStreaming() {
        if (!peer_ || thread_) return S_OK;
        stopEvent_ = CreateEventW(nullptr, TRUE, FALSE, nullptr);
        thread_ = CreateThread(nullptr, 0, &TestCamPin::ThreadMain, this, 0, nullptr);
        return thread_ ? S_OK : E_FAIL;
    }
    void StopStreaming() {
        if (!thread_) return;
        SetEvent(stopEvent_);
        // A thread blocked in GetBuffer is released by decommitting; the
        // allocator is committed again for a later run.
        Inactive();
        WaitForSingleObject(thread_, INFINITE);
        CloseHandle(thread_);
        CloseHandle(stopEvent_);
        thread_ = stopEvent_ = nullptr;
        Active();
    }

private:
    const CamConfig& Config() const { return state_->config; }

    // What the pin offers (caller frees each): the format chosen by SetFormat,
    // or without one every capability in order.
    std::vector<AM_MEDIA_TYPE> OfferedTypes() {
        std::vector<AM_MEDIA_TYPE> types(chosen_.pbFormat ? 1 : Config().caps.size());
        for (size_t i = 0; i < types.size(); ++i)
            chosen_.pbFormat ? CopyMediaType(&types[i], &chosen_) : BuildMediaType(Config().caps[i], &types[i]);
        return types;
    }

    HRESULT TryConnect(IPin* receivePin, const AM_MEDIA_TYPE* mt) {
        HRESULT hr = receivePin->ReceiveConnection(this, mt);
        if (FAILED(hr)) return hr;
        peer_ = receivePin;
        peer_->AddRef();
        CopyMediaType(&connected_, mt);
        if (SUCCEEDED(hr = NegotiateAllocator(mt))) return S_OK;
        receivePin->Disconnect();
        Disconnect();
        return hr;
    }

    // The pattern a type carries: its place in kSubtypes (PatternFormat
    // order); -1: none.
    static long PatternKind(const AM_MEDIA_TYPE* mt) {
        const SubtypeInfo* info = FindSubtype("", &mt->subtype);
        return info && info - kSubtypes < 4 ? static_cast<long>(info - kSubtypes) : -1;
    }

    long SampleBytes(const AM_MEDIA_TYPE* mt) {
        BITMAPINFOHEADER bmi;
        REFERENCE_TIME avg;
        if (!ReadVideoHeader(mt, &bmi, &avg)) return 0;
        if (PatternKind(mt) >= 0) return bmi.biWidth * std::abs(bmi.biHeight) * bmi.biBitCount / 8;
        if (!Config().h264Path.empty() && bmi.biCompression == Fourcc("H264")) {
            accessUnits_ = ReadAccessUnits(Config().h264Path);
            size_t largest = 1;
            for (const auto& unit : accessUnits_) largest = std::max(largest, unit.size());
            return static_cast<long>(largest);
        }
        return 16;  // other compressed types carry just the frame number
    }

    // The peer's allocator or else one of our own, with at least three
    // buffers of a whole sample.
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
        CoInitializeEx(nullptr, COINIT_MULTITHREADED);
        static_cast<TestCamPin*>(self)->Stream();
        CoUninitialize();
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
            const ULONGLONG due = start + static_cast<ULONGLONG>(number) * static_cast<ULONGLONG>(avg) / 10000;
            const ULONGLONG now = GetTickCount64();
            if (WaitForSingleObject(stopEvent_, due > now ? static_cast<DWORD>(due - now) : 0) == WAIT_OBJECT_0) return;
            IMediaSample* sample = nullptr;
            if (FAILED(allocator_->GetBuffer(&sample, nullptr, nullptr, 0))) return;
            BYTE* data = nullptr;
            sample->GetPointer(&data);
            long length = bytes;
            if (kind >= 0) {
                WritePattern(static_cast<PatternFormat>(kind), bmi.biWidth, std::abs(bmi.biHeight),
                             kSubtypes[kind].bits / 8 * bmi.biWidth, kind >= 2 && bmi.biHeight > 0, number, data);
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

    IBaseFilter* owner_;
    CamState* state_;
    IPin* peer_ = nullptr;
    IMemInputPin* peerInput_ = nullptr;
    IMemAllocator* allocator_ = nullptr;
    AM_MEDIA_TYPE connected_{}, chosen_{};  // chosen_: set by SetFormat (a format block when set)
    HANDLE thread_ = nullptr, stopEvent_ = nullptr;
    std::vector<std::vector<BYTE>> accessUnits_;
};

// The filter: state changes, its one pin, configuration from the device's
// property bag and the optional property page.
class TestCamFilter : public IBaseFilter,
                      public IPersistPropertyBag,
                      public ISpecifyPropertyPages,
                      private CamState {
public:
    TestCamFilter() : pin_(this, this) { InitializeCriticalSection(&lock); }
    virtual ~TestCamFilter() {  // the pin stops and disconnects itself
        if (clock_) clock_->Release();
        DeleteCriticalSection(&lock);
    }
    STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override {
        if (!ppv) return E_POINTER;
        *ppv = nullptr;
        if (IsEqualIID(riid, IID_IUnknown) || IsEqualIID(riid, IID_IBaseFilter) ||
            IsEqualIID(riid, IID_IMediaFilter) || IsEqualIID(riid, IID_IPersist))
            *ppv = static_cast<IBaseFilter*>(this);
        else if (IsEqualIID(riid, IID_IPersistPropertyBag)) *ppv = static_cast<IPersistPropertyBag*>(this);
        else if (IsEqualIID(riid, IID_ISpecifyPropertyPages) && config.page)
            *ppv = static_cast<ISpecifyPropertyPages*>(this);
        return *ppv ? (AddRef(), S_OK) : E_NOINTERFACE;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return ++refs_; }
    STDMETHODIMP_(ULONG) Release() override {
        const long n = --refs_;
        return n == 0 ? (delete this, 0) : n;
    }
    STDMETHODIMP GetClassID(CLSID* clsid) override { return clsid ? (*clsid = CLSID_TestCam, S_OK) : E_POINTER; }
    STDMETHODIMP Stop() override {
        EnterCriticalSection(&lock);
        pin_.StopStreaming(), pin_.Inactive();
        state_ = State_Stopped;
        LeaveCriticalSection(&lock);
        return S_OK;
    }
    // A live source has nothing to show while paused. Going from running to
    // paused leaves the streaming thread alone: the graph pauses the renderer
    // first, which may hold that thread inside Receive until it is stopped,
    // so joining it here could wait forever. Stop ends the thread.
    STDMETHODIMP Pause() override {
        const HRESULT hr = Change(State_Paused);
        return SUCCEEDED(hr) ? VFW_S_CANT_CUE : hr;
    }
    STDMETHODIMP Run(REFERENCE_TIME) override { return Change(State_Running); }
    STDMETHODIMP GetState(DWORD, FILTER_STATE* state) override {
        return !state ? E_POINTER : (*state = state_) == State_Paused ? VFW_S_CANT_CUE : S_OK;
    }
    STDMETHODIMP SetSyncSource(IReferenceClock* clock) override {
        if (clock) clock->AddRef();
        if (clock_) clock_->Release();
        return clock_ = clock, S_OK;
    }
    STDMETHODIMP GetSyncSource(IReferenceClock** clock) override {
        if (!clock) return E_POINTER;
        if ((*clock = clock_)) clock_->AddRef();
        return S_OK;
    }
    STDMETHODIMP EnumPins(IEnumPins** e) override {
        return e ? (*e = new Enumerator<IEnumPins, IPin*>(IID_IEnumPins, {&pin_}, 0), S_OK) : E_POINTER;
    }
    STDMETHODIMP FindPin(LPCWSTR id, IPin** pin) override {
        if (!id || !pin) return E_POINTER;
        *pin = lstrcmpW(id, kPinName) == 0 ? &pin_ : nullptr;
        return *pin ? (pin_.AddRef(), S_OK) : VFW_E_NOT_FOUND;
    }
    STDMETHODIMP QueryFilterInfo(FILTER_INFO* info) override {
        if (!info) return E_POINTER;
        lstrcpynW(info->achName, name_.c_str(), MAX_FILTER_NAME);
        if ((info->pGraph = graph_)) graph_->AddRef();
        return S_OK;
    }
    STDMETHODIMP JoinFilterGraph(IFilterGraph* graph, LPCWSTR name) override {
        graph_ = graph;  // not counted: the graph owns us
        return name_ = name ? name : L"", S_OK;
    }
    STDMETHODIMP QueryVendorInfo(LPWSTR*) override { return E_NOTIMPL; }
    // IPersistPropertyBag
    STDMETHODIMP InitNew() override { return S_OK; }
    STDMETHODIMP Load(IPropertyBag* bag, IErrorLog* log) override {
        if (!bag) return E_POINTER;
        VARIANT value;
        VariantInit(&value);
        V_VT(&value) = VT_BSTR;
        if (SUCCEEDED(bag->Read(L"KivTestCamConfig", &value, log)) && V_VT(&value) == VT_BSTR)
            config = ParseConfig(V_BSTR(&value));
        VariantClear(&value);
        return S_OK;
    }
    STDMETHODIMP Save(IPropertyBag*, BOOL, BOOL) override { return E_NOTIMPL; }
    // ISpecifyPropertyPages
    STDMETHODIMP GetPages(CAUUID* pages) override {
        if (!pages) return E_POINTER;
        *pages = {1, static_cast<GUID*>(CoTaskMemAlloc(sizeof(GUID)))};
        return pages->pElems[0] = CLSID_TestCamPage, S_OK;
    }

private:
    // Paused or running: leaving stopped commits the allocator; running starts
    // the streaming thread.
    HRESULT Change(FILTER_STATE to) {
        EnterCriticalSection(&lock);
        HRESULT hr = state_ == State_Stopped ? pin_.Active() : S_OK;
        if (SUCCEEDED(hr) && to == State_Running) hr = pin_.StartStreaming();
        if (SUCCEEDED(hr)) state_ = to;
        LeaveCriticalSection(&lock);
        return hr;
    }

    std::atomic<long> refs_{1};
    FILTER_STATE state_ = State_Stopped;
    IReferenceClock* clock_ = nullptr;
    IFilterGraph* graph_ = nullptr;
    std::wstring name_;
    TestCamPin pin_;
};

class TestCamPage : public SingleInterface<IPropertyPage> {
public:
    TestCamPage() : SingleInterface(IID_IPropertyPage) {}
    ~TestCamPage() override { Deactivate(); }
    STDMETHODIMP SetPageSite(IPropertyPageSite*) override { return S_OK; }
    STDMETHODIMP Activate(HWND parent, LPCRECT r, BOOL) override {
        window_ = CreateWindowExW(0, L"STATIC", L"KIV test camera", WS_CHILD, r->left, r->top, r->right - r->left,
                                  r->bottom - r->top, parent, nullptr, g_module, nullptr);
        return window_ ? S_OK : E_FAIL;
    }
    STDMETHODIMP Deactivate() override { return window_ && DestroyWindow(window_), window_ = nullptr, S_OK; }
    STDMETHODIMP GetPageInfo(PROPPAGEINFO* info) override {
        if (!info) return E_POINTER;
        static const wchar_t title[] = L"Test camera";
        *info = {sizeof(PROPPAGEINFO), static_cast<LPOLESTR>(CoTaskMemAlloc(sizeof(title))), {200, 100}, nullptr,
                 nullptr, 0};
        return std::memcpy(info->pszTitle, title, sizeof(title)), S_OK;
    }
    STDMETHODIMP SetObjects(ULONG, IUnknown**) override { return S_OK; }
    STDMETHODIMP Show(UINT cmd) override { return window_ && ShowWindow(window_, cmd), S_OK; }
    STDMETHODIMP Move(LPCRECT r) override {
        return window_ && MoveWindow(window_, r->left, r->top, r->right - r->left, r->bottom - r->top, TRUE), S_OK;
    }
    STDMETHODIMP IsPageDirty() override { return S_FALSE; }
    STDMETHODIMP Apply() override { return S_OK; }
    STDMETHODIMP Help(LPCOLESTR) override { return E_NOTIMPL; }
    STDMETHODIMP TranslateAccelerator(MSG*) override { return S_FALSE; }

private:
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
    STDMETHODIMP LockServer(BOOL) override { return S_OK; }

private:
    bool page_;
};

std::wstring GuidText(const GUID& guid) {
    wchar_t text[64];
    StringFromGUID2(guid, text, 64);
    return text;
}

const wchar_t kInstanceRoot[] = L"CLSID\\{860BB310-5D01-11D0-BD3B-00A0C911CE86}\\Instance";

// Creates HKCR\name and sets its string values (a null name is the default value).
HRESULT WriteKey(const std::wstring& name, std::initializer_list<std::pair<const wchar_t*, std::wstring>> values) {
    HKEY key;
    if (RegCreateKeyExW(HKEY_CLASSES_ROOT, name.c_str(), 0, nullptr, 0, KEY_WRITE, nullptr, &key, nullptr) !=
        ERROR_SUCCESS)
        return E_FAIL;
    LONG rc = ERROR_SUCCESS;
    for (const auto& v : values)
        if (rc == ERROR_SUCCESS)
            rc = RegSetValueExW(key, v.first, 0, REG_SZ, reinterpret_cast<const BYTE*>(v.second.c_str()),
                                static_cast<DWORD>((v.second.size() + 1) * sizeof(wchar_t)));
    RegCloseKey(key);
    return rc == ERROR_SUCCESS ? S_OK : E_FAIL;
}

// HKCR\CLSID\{clsid}\InprocServer32 pointing at this DLL.
HRESULT RegisterServer(const GUID& clsid) {
    wchar_t path[MAX_PATH];
    const DWORD n = GetModuleFileNameW(g_module, path, MAX_PATH);
    if (n == 0 || n >= MAX_PATH) return E_FAIL;
    return WriteKey(L"CLSID\\" + GuidText(clsid) + L"\\InprocServer32",
                    {{nullptr, path}, {L"ThreadingModel", L"Both"}});
}

}  // namespace
}  // namespace testcam

using namespace testcam;

extern "C" BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID) {
    if (reason == DLL_PROCESS_ATTACH) g_module = instance, DisableThreadLibraryCalls(instance);
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

STDAPI DllCanUnloadNow() { return S_FALSE; }  // stays loaded for the process

// Writes what a driver's registration writes for one camera instance.
extern "C" HRESULT KivTestCamInstall(const wchar_t* keyName, const wchar_t* friendlyName, const wchar_t* config) {
    if (!keyName || !config) return E_POINTER;
    HRESULT hr = RegisterServer(CLSID_TestCam);
    if (SUCCEEDED(hr)) hr = RegisterServer(CLSID_TestCamPage);
    const std::wstring key = std::wstring(kInstanceRoot) + L"\\" + keyName;
    if (SUCCEEDED(hr)) hr = WriteKey(key, {{L"CLSID", GuidText(CLSID_TestCam)}, {L"KivTestCamConfig", config}});
    if (SUCCEEDED(hr) && friendlyName) hr = WriteKey(key, {{L"FriendlyName", friendlyName}});
    return hr;
}

// Removes every video capture device entry of this prefix (the test prefix
// has no real cameras), so a test starts from a known list.
extern "C" HRESULT KivTestCamRemoveAll() {
    const LSTATUS rc = RegDeleteTreeW(HKEY_CLASSES_ROOT, kInstanceRoot);
    return rc == ERROR_SUCCESS || rc == ERROR_FILE_NOT_FOUND ? S_OK : E_FAIL;
}
