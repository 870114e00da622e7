// The test camera: a DirectShow video capture source of our own, so tests
// under Wine see a camera exactly where a USB camera would appear. One
// filter with one capture output pin; plain COM, no framework.
#pragma once
#include <windows.h>
#include <dshow.h>
#include <ocidl.h>

#include <atomic>
#include <string>
#include <vector>

#include "testcam_config.h"

namespace testcam {

extern const CLSID CLSID_TestCam;
extern const CLSID CLSID_TestCamPage;
extern std::atomic<long> g_objects;  // live objects, for DllCanUnloadNow

// IUnknown of the small objects with one interface (enumerators, the class
// factory, the property page): counted, deleted at zero, and counted in
// g_objects while alive.
template <class Interface>
class SingleInterface : public Interface {
public:
    explicit SingleInterface(const IID& iid) : iid_(iid) { ++g_objects; }
    virtual ~SingleInterface() { --g_objects; }
    STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override {
        if (!ppv) return E_POINTER;
        if (IsEqualIID(riid, IID_IUnknown) || IsEqualIID(riid, iid_)) {
            *ppv = static_cast<Interface*>(this);
            AddRef();
            return S_OK;
        }
        *ppv = nullptr;
        return E_NOINTERFACE;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return ++refs_; }
    STDMETHODIMP_(ULONG) Release() override {
        const long n = --refs_;
        if (n == 0) delete this;
        return n;
    }

private:
    const IID& iid_;
    std::atomic<long> refs_{1};
};

// Media types built from the configuration.
void BuildMediaType(const CamCap& cap, AM_MEDIA_TYPE* out);
void FreeMediaType(AM_MEDIA_TYPE* mt);
void CopyMediaType(AM_MEDIA_TYPE* dst, const AM_MEDIA_TYPE* src);
bool ReadVideoHeader(const AM_MEDIA_TYPE* mt, BITMAPINFOHEADER* bmi, REFERENCE_TIME* avg);
int FindCap(const std::vector<CamCap>& caps, const AM_MEDIA_TYPE* mt);  // -1 when none matches
std::string DescribeMediaType(const AM_MEDIA_TYPE* mt);
// Access units of an Annex-B H.264 stream (empty when the file cannot be read).
std::vector<std::vector<BYTE>> ReadAccessUnits(const std::wstring& path);

class TestCamFilter;

class TestCamPin : public IPin, public IAMStreamConfig, public IKsPropertySet {
public:
    explicit TestCamPin(TestCamFilter* filter) : filter_(filter) {}
    virtual ~TestCamPin();

    // IUnknown (lifetime is the filter's)
    STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override;
    STDMETHODIMP_(ULONG) AddRef() override;
    STDMETHODIMP_(ULONG) Release() override;
    // IPin
    STDMETHODIMP Connect(IPin* receivePin, const AM_MEDIA_TYPE* mt) override;
    STDMETHODIMP ReceiveConnection(IPin*, const AM_MEDIA_TYPE*) override { return E_UNEXPECTED; }
    STDMETHODIMP Disconnect() override;
    STDMETHODIMP ConnectedTo(IPin** pin) override;
    STDMETHODIMP ConnectionMediaType(AM_MEDIA_TYPE* mt) override;
    STDMETHODIMP QueryPinInfo(PIN_INFO* info) override;
    STDMETHODIMP QueryDirection(PIN_DIRECTION* dir) override;
    STDMETHODIMP QueryId(LPWSTR* id) override;
    STDMETHODIMP QueryAccept(const AM_MEDIA_TYPE* mt) override;
    STDMETHODIMP EnumMediaTypes(IEnumMediaTypes** e) override;
    STDMETHODIMP QueryInternalConnections(IPin**, ULONG*) override { return E_NOTIMPL; }
    STDMETHODIMP EndOfStream() override { return E_UNEXPECTED; }
    STDMETHODIMP BeginFlush() override { return E_UNEXPECTED; }
    STDMETHODIMP EndFlush() override { return E_UNEXPECTED; }
    STDMETHODIMP NewSegment(REFERENCE_TIME, REFERENCE_TIME, double) override { return S_OK; }
    // IAMStreamConfig
    STDMETHODIMP SetFormat(AM_MEDIA_TYPE* mt) override;
    STDMETHODIMP GetFormat(AM_MEDIA_TYPE** mt) override;
    STDMETHODIMP GetNumberOfCapabilities(int* count, int* size) override;
    STDMETHODIMP GetStreamCaps(int index, AM_MEDIA_TYPE** mt, BYTE* caps) override;
    // IKsPropertySet
    STDMETHODIMP Set(REFGUID, DWORD, LPVOID, DWORD, LPVOID, DWORD) override { return E_NOTIMPL; }
    STDMETHODIMP Get(REFGUID set, DWORD id, LPVOID, DWORD, LPVOID data, DWORD size, DWORD* returned) override;
    STDMETHODIMP QuerySupported(REFGUID set, DWORD id, DWORD* support) override;

    // Called by the filter on state changes.
    HRESULT Active();     // stopped -> paused: commit the allocator
    HRESULT StartStreaming();
    void StopStreaming();
    void Inactive();      // -> stopped: decommit

private:
    std::vector<AM_MEDIA_TYPE> OfferedTypes();  // caller frees each
    HRESULT TryConnect(IPin* receivePin, const AM_MEDIA_TYPE* mt);
    HRESULT NegotiateAllocator(const AM_MEDIA_TYPE* mt);
    long SampleBytes(const AM_MEDIA_TYPE* mt);
    static DWORD WINAPI ThreadMain(void* self);
    void Stream();
    void Record();

    TestCamFilter* filter_;
    IPin* peer_ = nullptr;
    IMemInputPin* peerInput_ = nullptr;
    IMemAllocator* allocator_ = nullptr;
    AM_MEDIA_TYPE connected_{};
    AM_MEDIA_TYPE chosen_{};  // set by SetFormat
    bool hasChosen_ = false;
    std::string lastSetFormat_;
    HANDLE thread_ = nullptr;
    HANDLE stopEvent_ = nullptr;
    std::vector<std::vector<BYTE>> accessUnits_;
    friend class TestCamFilter;
};

class TestCamFilter : public IBaseFilter,
                      public IPersistPropertyBag,
                      public ISpecifyPropertyPages,
                      public IAMFilterMiscFlags {
public:
    TestCamFilter();
    virtual ~TestCamFilter();

    STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override;
    STDMETHODIMP_(ULONG) AddRef() override;
    STDMETHODIMP_(ULONG) Release() override;
    // IPersist (shared by IBaseFilter and IPersistPropertyBag)
    STDMETHODIMP GetClassID(CLSID* clsid) override;
    // IMediaFilter
    STDMETHODIMP Stop() override;
    STDMETHODIMP Pause() override;
    STDMETHODIMP Run(REFERENCE_TIME start) override;
    STDMETHODIMP GetState(DWORD timeout, FILTER_STATE* state) override;
    STDMETHODIMP SetSyncSource(IReferenceClock* clock) override;
    STDMETHODIMP GetSyncSource(IReferenceClock** clock) override;
    // IBaseFilter
    STDMETHODIMP EnumPins(IEnumPins** e) override;
    STDMETHODIMP FindPin(LPCWSTR id, IPin** pin) override;
    STDMETHODIMP QueryFilterInfo(FILTER_INFO* info) override;
    STDMETHODIMP JoinFilterGraph(IFilterGraph* graph, LPCWSTR name) override;
    STDMETHODIMP QueryVendorInfo(LPWSTR*) override { return E_NOTIMPL; }
    // IPersistPropertyBag
    STDMETHODIMP InitNew() override { return S_OK; }
    STDMETHODIMP Load(IPropertyBag* bag, IErrorLog* log) override;
    STDMETHODIMP Save(IPropertyBag*, BOOL, BOOL) override { return E_NOTIMPL; }
    // ISpecifyPropertyPages
    STDMETHODIMP GetPages(CAUUID* pages) override;
    // IAMFilterMiscFlags
    STDMETHODIMP_(ULONG) GetMiscFlags() override { return AM_FILTER_MISC_FLAGS_IS_SOURCE; }

    CamConfig config;
    CRITICAL_SECTION lock;
    IFilterGraph* graph = nullptr;  // not counted: the graph owns us

private:
    std::atomic<long> refs_{1};
    FILTER_STATE state_ = State_Stopped;
    IReferenceClock* clock_ = nullptr;
    std::wstring name_;
    TestCamPin pin_;
};

}  // namespace testcam
