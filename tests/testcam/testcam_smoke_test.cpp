// The test camera seen through plain DirectShow, as the capture side will see
// it: listed by the system device enumerator, configurable through the
// capture pin, and streaming numbered frames into a sample grabber.
#include <windows.h>
#include <dshow.h>
#include <qedit.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <mutex>
#include <string>
#include <vector>

#include "testcam_install.h"
#include "testcam_pattern.h"

namespace {

// qedit.h of MinGW declares the interfaces but not these two classes.
const CLSID kSampleGrabber = {0xc1f400a0, 0x3f08, 0x11d3, {0x9f, 0x0b, 0x00, 0x60, 0x08, 0x03, 0x9e, 0x37}};
const CLSID kNullRenderer = {0xc1f400a4, 0x3f08, 0x11d3, {0x9f, 0x0b, 0x00, 0x60, 0x08, 0x03, 0x9e, 0x37}};

template <class T>
struct Ptr {
    T* p = nullptr;
    ~Ptr() {
        if (p) p->Release();
    }
    T** out() { return &p; }
    T* operator->() const { return p; }
};

std::wstring FriendlyName(IMoniker* moniker) {
    Ptr<IPropertyBag> bag;
    if (FAILED(moniker->BindToStorage(nullptr, nullptr, IID_IPropertyBag, reinterpret_cast<void**>(bag.out()))))
        return L"";
    VARIANT v;
    VariantInit(&v);
    std::wstring name;
    if (SUCCEEDED(bag->Read(L"FriendlyName", &v, nullptr)) && V_VT(&v) == VT_BSTR) name = V_BSTR(&v);
    VariantClear(&v);
    return name;
}

// Binds the capture filter of the camera with the given friendly name.
HRESULT BindCamera(const std::wstring& wanted, IBaseFilter** filter) {
    Ptr<ICreateDevEnum> devices;
    HRESULT hr = CoCreateInstance(CLSID_SystemDeviceEnum, nullptr, CLSCTX_INPROC_SERVER, IID_ICreateDevEnum,
                                  reinterpret_cast<void**>(devices.out()));
    if (FAILED(hr)) return hr;
    Ptr<IEnumMoniker> monikers;
    hr = devices->CreateClassEnumerator(CLSID_VideoInputDeviceCategory, monikers.out(), 0);
    if (hr != S_OK) return E_FAIL;
    for (;;) {
        Ptr<IMoniker> moniker;
        if (monikers->Next(1, moniker.out(), nullptr) != S_OK) return E_FAIL;
        if (FriendlyName(moniker.p) == wanted)
            return moniker->BindToObject(nullptr, nullptr, IID_IBaseFilter, reinterpret_cast<void**>(filter));
    }
}

// A grabber callback living on the test's stack: buffers only.
class GrabberCallback : public ISampleGrabberCB {
public:
    STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override {
        if (IsEqualIID(riid, IID_IUnknown) || IsEqualIID(riid, IID_ISampleGrabberCB)) {
            *ppv = static_cast<ISampleGrabberCB*>(this);
            return S_OK;
        }
        *ppv = nullptr;
        return E_NOINTERFACE;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return 2; }
    STDMETHODIMP_(ULONG) Release() override { return 1; }
    STDMETHODIMP SampleCB(double, IMediaSample*) override { return S_OK; }
};

class FrameSink : public GrabberCallback {
public:
    FrameSink(testcam::PatternFormat format, int width, int height, bool bottomUp)
        : format_(format), width_(width), height_(height), bottomUp_(bottomUp) {}
    STDMETHODIMP BufferCB(double, BYTE* data, long length) override {
        const size_t bpp = format_ == testcam::PatternFormat::YUY2    ? 2
                           : format_ == testcam::PatternFormat::RGB24 ? 3
                           : format_ == testcam::PatternFormat::RGB32 ? 4
                                                                      : 1;
        const size_t stride = bpp * static_cast<size_t>(width_);
        const BYTE* top = bottomUp_ ? data + stride * static_cast<size_t>(height_ - 1) : data;
        std::lock_guard<std::mutex> lock(mutex_);
        lengths.push_back(length);
        numbers.push_back(testcam::ReadPattern(format_, width_, top));
        return S_OK;
    }
    size_t Count() {
        std::lock_guard<std::mutex> lock(mutex_);
        return numbers.size();
    }
    std::vector<uint32_t> numbers;
    std::vector<long> lengths;

private:
    std::mutex mutex_;
    testcam::PatternFormat format_;
    int width_, height_;
    bool bottomUp_;
};

class TestCamSmoke : public ::testing::Test {
protected:
    void SetUp() override {
        CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
        ASSERT_TRUE(installer.Loaded());
        ASSERT_EQ(installer.RemoveAll(), S_OK);
    }
    void TearDown() override {
        installer.RemoveAll();
        CoUninitialize();
    }
    testcam::CameraInstaller installer;
};

TEST_F(TestCamSmoke, ListedInKeyOrderWithItsCapabilities) {
    ASSERT_EQ(installer.Install(L"cam1", L"Second", L"cap=NV12:320:240:vih:333333:166666:333333"), S_OK);
    ASSERT_EQ(installer.Install(L"cam0", L"First",
                                L"cap=YUY2:640:480:vih:333333:333333:333333;cap=RGB32:64:-48:vih2:166666:0:0"),
              S_OK);
    Ptr<ICreateDevEnum> devices;
    ASSERT_EQ(CoCreateInstance(CLSID_SystemDeviceEnum, nullptr, CLSCTX_INPROC_SERVER, IID_ICreateDevEnum,
                               reinterpret_cast<void**>(devices.out())),
              S_OK);
    Ptr<IEnumMoniker> monikers;
    ASSERT_EQ(devices->CreateClassEnumerator(CLSID_VideoInputDeviceCategory, monikers.out(), 0), S_OK);
    std::vector<std::wstring> names;
    for (;;) {
        Ptr<IMoniker> moniker;
        if (monikers->Next(1, moniker.out(), nullptr) != S_OK) break;
        names.push_back(FriendlyName(moniker.p));
    }
    EXPECT_EQ(names, (std::vector<std::wstring>{L"First", L"Second"}));

    Ptr<IBaseFilter> filter;
    ASSERT_EQ(BindCamera(L"First", filter.out()), S_OK);
    Ptr<IGraphBuilder> graph;
    Ptr<ICaptureGraphBuilder2> builder;
    ASSERT_EQ(CoCreateInstance(CLSID_FilterGraph, nullptr, CLSCTX_INPROC_SERVER, IID_IGraphBuilder,
                               reinterpret_cast<void**>(graph.out())),
              S_OK);
    ASSERT_EQ(CoCreateInstance(CLSID_CaptureGraphBuilder2, nullptr, CLSCTX_INPROC_SERVER, IID_ICaptureGraphBuilder2,
                               reinterpret_cast<void**>(builder.out())),
              S_OK);
    ASSERT_EQ(builder->SetFiltergraph(graph.p), S_OK);
    ASSERT_EQ(graph->AddFilter(filter.p, L"cam"), S_OK);
    Ptr<IAMStreamConfig> config;
    ASSERT_EQ(builder->FindInterface(&PIN_CATEGORY_CAPTURE, &MEDIATYPE_Video, filter.p, IID_IAMStreamConfig,
                                     reinterpret_cast<void**>(config.out())),
              S_OK);
    int count = 0, size = 0;
    ASSERT_EQ(config->GetNumberOfCapabilities(&count, &size), S_OK);
    EXPECT_EQ(count, 2);
    EXPECT_EQ(size, static_cast<int>(sizeof(VIDEO_STREAM_CONFIG_CAPS)));
    VIDEO_STREAM_CONFIG_CAPS caps{};
    AM_MEDIA_TYPE* mt = nullptr;
    ASSERT_EQ(config->GetStreamCaps(1, &mt, reinterpret_cast<BYTE*>(&caps)), S_OK);
    EXPECT_TRUE(IsEqualGUID(mt->subtype, MEDIASUBTYPE_RGB32));
    EXPECT_TRUE(IsEqualGUID(mt->formattype, FORMAT_VideoInfo2));
    EXPECT_EQ(caps.MinFrameInterval, 0);
    CoTaskMemFree(mt->pbFormat);
    CoTaskMemFree(mt);
}

// Camera -> sample grabber -> null renderer through the capture graph
// builder; `grabberType` is the type the grabber asks for (null: any).
struct CaptureGraph {
    Ptr<IBaseFilter> camera, grabberFilter, renderer;
    Ptr<IGraphBuilder> graph;
    Ptr<ISampleGrabber> grabber;
    Ptr<IMediaControl> control;

    // chooseCap >= 0: that capability is set on the capture pin first.
    void Build(const wchar_t* cameraName, const AM_MEDIA_TYPE* grabberType, ISampleGrabberCB* sink,
               int chooseCap = -1) {
        ASSERT_EQ(BindCamera(cameraName, camera.out()), S_OK);
        ASSERT_EQ(CoCreateInstance(CLSID_FilterGraph, nullptr, CLSCTX_INPROC_SERVER, IID_IGraphBuilder,
                                   reinterpret_cast<void**>(graph.out())),
                  S_OK);
        ASSERT_EQ(CoCreateInstance(kSampleGrabber, nullptr, CLSCTX_INPROC_SERVER, IID_IBaseFilter,
                                   reinterpret_cast<void**>(grabberFilter.out())),
                  S_OK);
        ASSERT_EQ(CoCreateInstance(kNullRenderer, nullptr, CLSCTX_INPROC_SERVER, IID_IBaseFilter,
                                   reinterpret_cast<void**>(renderer.out())),
                  S_OK);
        ASSERT_EQ(graph->AddFilter(camera.p, L"camera"), S_OK);
        ASSERT_EQ(graph->AddFilter(grabberFilter.p, L"grabber"), S_OK);
        ASSERT_EQ(graph->AddFilter(renderer.p, L"renderer"), S_OK);
        ASSERT_EQ(grabberFilter->QueryInterface(IID_ISampleGrabber, reinterpret_cast<void**>(grabber.out())), S_OK);
        if (grabberType) {
            ASSERT_EQ(grabber->SetMediaType(grabberType), S_OK);
        }
        ASSERT_EQ(grabber->SetCallback(sink, 1), S_OK);
        Ptr<ICaptureGraphBuilder2> builder;
        ASSERT_EQ(CoCreateInstance(CLSID_CaptureGraphBuilder2, nullptr, CLSCTX_INPROC_SERVER,
                                   IID_ICaptureGraphBuilder2, reinterpret_cast<void**>(builder.out())),
                  S_OK);
        ASSERT_EQ(builder->SetFiltergraph(graph.p), S_OK);
        if (chooseCap >= 0) {
            Ptr<IAMStreamConfig> config;
            ASSERT_EQ(builder->FindInterface(&PIN_CATEGORY_CAPTURE, &MEDIATYPE_Video, camera.p, IID_IAMStreamConfig,
                                             reinterpret_cast<void**>(config.out())),
                      S_OK);
            VIDEO_STREAM_CONFIG_CAPS caps{};
            AM_MEDIA_TYPE* mt = nullptr;
            ASSERT_EQ(config->GetStreamCaps(chooseCap, &mt, reinterpret_cast<BYTE*>(&caps)), S_OK);
            EXPECT_EQ(config->SetFormat(mt), S_OK);
            CoTaskMemFree(mt->pbFormat);
            CoTaskMemFree(mt);
        }
        ASSERT_EQ(builder->RenderStream(&PIN_CATEGORY_CAPTURE, &MEDIATYPE_Video, camera.p, grabberFilter.p,
                                        renderer.p),
                  S_OK);
        ASSERT_EQ(graph->QueryInterface(IID_IMediaControl, reinterpret_cast<void**>(control.out())), S_OK);
    }
    // Runs until `enough` says so (at most 5 s), then stops.
    template <class Enough>
    void RunUntil(Enough enough) {
        ASSERT_TRUE(SUCCEEDED(control->Run()));
        for (int i = 0; i < 500 && !enough(); ++i) Sleep(10);
        control->Stop();
        grabber->SetCallback(nullptr, 1);
    }
};

struct StreamCase {
    const wchar_t* config;
    testcam::PatternFormat format;
    int width, height;
    bool bottomUp;
    long length;
};

// Camera -> sample grabber -> null renderer, run for a few frames: each
// buffer has the full size and carries consecutive frame numbers.
TEST_F(TestCamSmoke, StreamsNumberedFramesInEveryUncompressedFormat) {
    const StreamCase cases[] = {
        {L"cap=YUY2:64:48:vih:100000:100000:100000", testcam::PatternFormat::YUY2, 64, 48, false, 64 * 48 * 2},
        {L"cap=NV12:64:48:vih:100000:100000:100000", testcam::PatternFormat::NV12, 64, 48, false, 64 * 72},
        {L"cap=RGB24:64:48:vih:100000:100000:100000", testcam::PatternFormat::RGB24, 64, 48, true, 64 * 48 * 3},
        {L"cap=RGB32:64:48:vih:100000:100000:100000", testcam::PatternFormat::RGB32, 64, 48, true, 64 * 48 * 4},
        {L"cap=RGB32:64:-48:vih:100000:100000:100000", testcam::PatternFormat::RGB32, 64, 48, false, 64 * 48 * 4},
    };
    for (const StreamCase& c : cases) {
        SCOPED_TRACE(testing::Message() << "config " << std::string(c.config, c.config + wcslen(c.config)));
        ASSERT_EQ(installer.Install(L"cam", L"Streamer", c.config), S_OK);
        FrameSink sink(c.format, c.width, c.height, c.bottomUp);
        CaptureGraph g;
        g.Build(L"Streamer", nullptr, &sink);
        if (HasFatalFailure()) return;
        g.RunUntil([&] { return sink.Count() >= 5; });

        ASSERT_GE(sink.numbers.size(), 5u);
        for (size_t i = 0; i < sink.numbers.size(); ++i) {
            EXPECT_EQ(sink.numbers[i], i);
            EXPECT_EQ(sink.lengths[i], c.length);
        }
        ASSERT_EQ(installer.RemoveAll(), S_OK);
    }
}

#ifdef KIV_TESTCAM_CLIP
std::string ReadAll(const std::wstring& path) {
    std::string bytes;
    FILE* f = _wfopen(path.c_str(), L"rb");
    if (!f) return bytes;
    char chunk[4096];
    size_t n;
    while ((n = fread(chunk, 1, sizeof(chunk), f)) > 0) bytes.append(chunk, n);
    fclose(f);
    return bytes;
}

std::wstring TempFile(const wchar_t* name) {
    wchar_t temp[MAX_PATH];
    GetTempPathW(MAX_PATH, temp);
    return std::wstring(temp) + name;
}

// Keeps whole compressed buffers.
class BufferSink : public GrabberCallback {
public:
    STDMETHODIMP BufferCB(double, BYTE* data, long length) override {
        std::lock_guard<std::mutex> lock(mutex_);
        buffers.emplace_back(data, data + length);
        return S_OK;
    }
    size_t Count() {
        std::lock_guard<std::mutex> lock(mutex_);
        return buffers.size();
    }
    std::vector<std::string> buffers;

private:
    std::mutex mutex_;
};

// Pictures (coded slices) in an Annex-B buffer.
int SliceCount(const std::string& b) {
    int slices = 0;
    for (size_t i = 0; i + 3 < b.size(); ++i) {
        if (b[i] == 0 && b[i + 1] == 0 && b[i + 2] == 1) {
            const int type = b[i + 3] & 0x1f;
            slices += type == 1 || type == 5;
        }
    }
    return slices;
}

// The H.264 camera, joined to a grabber asking for any video type, hands out
// the clip one access unit a sample; the record file tells what it was asked.
TEST_F(TestCamSmoke, StreamsH264AccessUnitsAndRecordsItsFormat) {
    const std::wstring clip = testcam::CameraDllPath().substr(0, 2) + [] {
        std::wstring w;
        for (const char* p = KIV_TESTCAM_CLIP; *p; ++p) w += *p == '/' ? L'\\' : static_cast<wchar_t>(*p);
        return w;
    }();
    const std::wstring record = TempFile(L"testcam_record.txt");
    const std::wstring config =
        L"cap=H264:320:240:vih:333333:0:0;cap=H264:640:480:vih:333333:0:0;h264=" + clip + L";record=" + record;
    ASSERT_EQ(installer.Install(L"cam", L"H264 Camera", config.c_str()), S_OK);

    AM_MEDIA_TYPE any{};
    any.majortype = MEDIATYPE_Video;
    BufferSink sink;
    CaptureGraph g;
    g.Build(L"H264 Camera", &any, &sink, 1);
    if (HasFatalFailure()) return;
    g.RunUntil([&] { return sink.Count() >= 12; });

    const std::string file = ReadAll(clip);
    ASSERT_GE(sink.buffers.size(), 12u);
    std::string joined;
    for (const std::string& b : sink.buffers) {
        EXPECT_EQ(SliceCount(b), 1);
        joined += b;
    }
    EXPECT_EQ(joined, file.substr(0, joined.size()));
    EXPECT_EQ(SliceCount(file), 30);

    const std::string asked = ReadAll(record);
    EXPECT_EQ(asked, "setformat=H264:640:480:vih:333333\nconnected=H264:640:480:vih:333333\n");
    DeleteFileW(record.c_str());
}
#endif

}  // namespace
