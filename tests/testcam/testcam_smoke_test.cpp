// The test camera through plain DirectShow, without the library: found by the
// system device enumerator, joined to a sample grabber by the capture graph
// builder, it streams full-size buffers numbered from 0 in display order.
#include <windows.h>
#include <dshow.h>
#include <qedit.h>

#include <gtest/gtest.h>

#include <mutex>
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
    void** out() { return reinterpret_cast<void**>(&p); }
    T* operator->() const { return p; }
};

// Reads the number in the top display row of every buffer.
class FrameSink : public ISampleGrabberCB {
public:
    FrameSink(testcam::PatternFormat f, size_t bpp, int w, int h, bool bottomUp)
        : format(f), stride(bpp * w), width(w), height(h), bottomUp(bottomUp) {}
    STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override {
        *ppv = IsEqualIID(riid, IID_IUnknown) || IsEqualIID(riid, IID_ISampleGrabberCB) ? this : nullptr;
        return *ppv ? S_OK : E_NOINTERFACE;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return 2; }
    STDMETHODIMP_(ULONG) Release() override { return 1; }
    STDMETHODIMP SampleCB(double, IMediaSample*) override { return S_OK; }
    STDMETHODIMP BufferCB(double, BYTE* data, long length) override {
        const BYTE* top = bottomUp ? data + stride * static_cast<size_t>(height - 1) : data;
        std::lock_guard<std::mutex> lock(mutex);
        frames.emplace_back(testcam::ReadPattern(format, width, top), length);
        return S_OK;
    }
    size_t Count() {
        std::lock_guard<std::mutex> lock(mutex);
        return frames.size();
    }
    testcam::PatternFormat format;
    size_t stride;
    int width, height;
    bool bottomUp;
    std::mutex mutex;
    std::vector<std::pair<uint32_t, long>> frames;  // number, length
};

TEST(TestCamSmoke, StreamsNumberedFramesInEveryUncompressedFormat) {
    using testcam::PatternFormat;
    const struct {
        const wchar_t* config;
        PatternFormat format;
        size_t bpp;
        bool bottomUp;
        long length;
    } cases[] = {
        {L"cap=YUY2:64:48:vih:100000:100000:100000", PatternFormat::YUY2, 2, false, 64 * 48 * 2},
        {L"cap=NV12:64:48:vih:100000:100000:100000", PatternFormat::NV12, 1, false, 64 * 72},
        {L"cap=RGB24:64:48:vih:100000:100000:100000", PatternFormat::RGB24, 3, true, 64 * 48 * 3},
        {L"cap=RGB32:64:48:vih:100000:100000:100000", PatternFormat::RGB32, 4, true, 64 * 48 * 4},
        {L"cap=RGB32:64:-48:vih2:100000:100000:100000", PatternFormat::RGB32, 4, false, 64 * 48 * 4},
    };
    CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
    testcam::CameraInstaller installer;
    ASSERT_TRUE(installer.Loaded());
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << "case " << (&c - cases));
        ASSERT_EQ(installer.RemoveAll(), S_OK);
        ASSERT_EQ(installer.Install(L"cam", L"Streamer", c.config), S_OK);
        Ptr<ICreateDevEnum> devices;
        Ptr<IEnumMoniker> monikers;
        Ptr<IMoniker> moniker;
        Ptr<IBaseFilter> camera, grabberFilter, renderer;
        Ptr<IGraphBuilder> graph;
        Ptr<ICaptureGraphBuilder2> builder;
        Ptr<ISampleGrabber> grabber;
        Ptr<IMediaControl> control;
        auto create = [](const CLSID& clsid, const IID& iid, void** out) {
            return CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER, iid, out);
        };
        ASSERT_EQ(create(CLSID_SystemDeviceEnum, IID_ICreateDevEnum, devices.out()), S_OK);
        ASSERT_EQ(devices->CreateClassEnumerator(CLSID_VideoInputDeviceCategory, &monikers.p, 0), S_OK);
        ASSERT_EQ(monikers->Next(1, &moniker.p, nullptr), S_OK);
        ASSERT_EQ(moniker->BindToObject(nullptr, nullptr, IID_IBaseFilter, camera.out()), S_OK);
        ASSERT_EQ(create(CLSID_FilterGraph, IID_IGraphBuilder, graph.out()), S_OK);
        ASSERT_EQ(create(kSampleGrabber, IID_IBaseFilter, grabberFilter.out()), S_OK);
        ASSERT_EQ(create(kNullRenderer, IID_IBaseFilter, renderer.out()), S_OK);
        ASSERT_EQ(create(CLSID_CaptureGraphBuilder2, IID_ICaptureGraphBuilder2, builder.out()), S_OK);
        ASSERT_EQ(graph->AddFilter(camera.p, L"camera"), S_OK);
        ASSERT_EQ(graph->AddFilter(grabberFilter.p, L"grabber"), S_OK);
        ASSERT_EQ(graph->AddFilter(renderer.p, L"renderer"), S_OK);
        ASSERT_EQ(grabberFilter->QueryInterface(IID_ISampleGrabber, grabber.out()), S_OK);
        FrameSink sink(c.format, c.bpp, 64, 48, c.bottomUp);
        ASSERT_EQ(grabber->SetCallback(&sink, 1), S_OK);
        ASSERT_EQ(builder->SetFiltergraph(graph.p), S_OK);
        ASSERT_EQ(builder->RenderStream(&PIN_CATEGORY_CAPTURE, &MEDIATYPE_Video, camera.p, grabberFilter.p,
                                        renderer.p),
                  S_OK);
        ASSERT_EQ(graph->QueryInterface(IID_IMediaControl, control.out()), S_OK);
        ASSERT_TRUE(SUCCEEDED(control->Run()));
        for (int i = 0; i < 500 && sink.Count() < 5; ++i) Sleep(10);
        control->Stop();
        grabber->SetCallback(nullptr, 1);
        ASSERT_GE(sink.frames.size(), 5u);
        for (size_t i = 0; i < sink.frames.size(); ++i) {
            EXPECT_EQ(sink.frames[i], std::make_pair(static_cast<uint32_t>(i), c.length)) << "frame " << i;
        }
    }
    installer.RemoveAll();
    CoUninitialize();
}

}  // namespace
