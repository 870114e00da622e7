// The capture port through the public interface, with a stand-in camera
// feeding buffers as the sample grabber would.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <thread>

#include "../../src/capture/capture_graph.h"
#include "../../src/capture/capture_intake.h"
#include "../../src/capture/capture_registry.h"
#include "../../src/capture/kiv_video_input.h"
#include "test_support.h"

using namespace kiv::capture;
using kivtest::CountOf;
using kivtest::FrameCatcher;
using kivtest::LibraryLog;

namespace {

// One device: every build connects at the device's merged request (or at
// fixedFormat), and Feed hands a buffer to the running graph's sink.
struct FakeCamera {
    int32_t fixedFormat = 0;
    bool bottomUp = false;
    std::mutex mutex;
    SampleSink* sink = nullptr;
    ConnectedFormat connected;
    int builds = 0;
    static FakeCamera* current;

    FakeCamera() {
        current = this;
        SetCaptureGraphFactory([]() -> std::unique_ptr<CaptureGraph> { return std::make_unique<Graph>(); });
        SetCaptureDeviceCountOverride(1);
    }
    ~FakeCamera() {
        SetCaptureGraphFactory(nullptr);
        SetCaptureDeviceCountOverride(-1);
        current = nullptr;
    }
    // The lock is held through the hand-over, as a detached grabber lets its
    // callback finish before the graph is taken apart.
    bool Feed(const std::vector<uint8_t>& bytes, long length = -1) {
        std::lock_guard<std::mutex> lock(mutex);
        if (sink) sink->OnCapturedBuffer(bytes.data(), length < 0 ? static_cast<long>(bytes.size()) : length);
        return sink != nullptr;
    }
    struct Graph final : CaptureGraph {
        SampleSink* sink_ = nullptr;
        int32_t Build(int32_t device, const void*, MergedRequest* actual, ConnectedFormat* connected,
                      SampleSink* sink) override {
            FakeCamera& cam = *current;
            std::lock_guard<std::mutex> lock(cam.mutex);
            ++cam.builds;
            *actual = MergeDeviceRequests(device);
            *connected = {actual->width, actual->height, cam.fixedFormat ? cam.fixedFormat : actual->format,
                          cam.bottomUp};
            cam.connected = *connected;
            sink_ = sink;
            return 0;
        }
        int32_t Run() override {
            std::lock_guard<std::mutex> lock(current->mutex);
            current->sink = sink_;
            return 0;
        }
        void DetachCallback(int32_t, const void*) override {
            std::lock_guard<std::mutex> lock(current->mutex);
            if (current->sink == sink_) current->sink = nullptr;
        }
        void StopAndRelease(int32_t, const void*, uint32_t) override {}
    };
};
FakeCamera* FakeCamera::current = nullptr;

// A packed frame filled with the index's low byte, the index itself in the
// first eight bytes.
std::vector<uint8_t> Frame(int32_t format, int32_t width, int32_t height, uint64_t index) {
    IntakeLayout layout;
    CheckCapturedBuffer(format, width, height, 0, &layout);
    std::vector<uint8_t> bytes(static_cast<size_t>(layout.required > 8 ? layout.required : 64),
                               static_cast<uint8_t>(index));
    std::memcpy(bytes.data(), &index, sizeof index);
    return bytes;
}
std::vector<uint8_t> Yuy2(uint64_t index, int32_t w = 8, int32_t h = 4) {
    return Frame(KIV_PIXEL_FORMAT_YUY2, w, h, index);
}

// Polls until cond holds; false after the deadline so no test can hang.
template <class Cond>
bool WaitFor(Cond cond, int ms = 5000) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    while (!cond()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}
void Sleep(int ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }

// Stops a port when a test leaves its scope, before the callbacks it feeds go.
struct StopOnExit {
    void* port;
    ~StopOnExit() { KIV_Stop(port); }
};

class VideoInputTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(KIV_EnableLog(1), KIV_OK); }
    void TearDown() override {
        for (void* p : ports) KIV_DestroyPort(p);
        camera.reset();
        KIV_EnableLog(0);
    }
    void* Port(int32_t w, int32_t h, int32_t fmt) {
        void* p = Add(KIV_CreateVideoInput());
        EXPECT_EQ(KIV_SetVideoInputDevice(p, 0), KIV_OK);
        EXPECT_EQ(KIV_SetVideoInputFormat(p, w, h, 30, fmt), KIV_OK);
        return p;
    }
    // Ports added later are destroyed first (outputs before their inputs).
    void* Add(void* port) {
        ports.insert(ports.begin(), port);
        return port;
    }
    FakeCamera& Camera() {
        camera.reset();  // the old stand-in uninstalls itself first
        camera = std::make_unique<FakeCamera>();
        return *camera;
    }
    kivtest::LibraryScope library;
    std::unique_ptr<FakeCamera> camera;
    std::vector<void*> ports;
};

TEST_F(VideoInputTest, WithoutDevicesStartFailsAndBadSettingsAreRefused) {
    void* in = Add(KIV_CreateVideoInput());
    void* mux = Add(KIV_CreateVideoMux());
    KivVideoInputConfig config{0, 640, 480, 30, 1, 0, 0, 0};
    const KivResult refused[] = {
        KIV_SetVideoInputDevice(in, -1),         KIV_SetVideoInputDevice(mux, 0),
        KIV_SetVideoInputFormat(in, 0, 480, 30, 1), KIV_SetVideoInputFormat(in, 640, 480, 0, 1),
        KIV_SetVideoInputFormat(in, 640, 480, 30, 0), KIV_SetVideoInputFormat(mux, 640, 480, 30, 1),
        KIV_SetVideoInputConfig(in, nullptr),    KIV_SetVideoInputConfig(mux, &config),
        KIV_Start(in),
    };
    for (size_t i = 0; i < std::size(refused); ++i) EXPECT_EQ(refused[i], KIV_ERROR_INVALID_ARG) << "case " << i;
    // A bad format in a config keeps the device index it carried.
    config = {3, 640, 0, 30, 1, 0, 0, 0};
    EXPECT_EQ(KIV_SetVideoInputConfig(in, &config), KIV_ERROR_INVALID_ARG);
    EXPECT_EQ(KIV_Start(in), KIV_ERROR_INVALID_ARG);
    config = {1, 64, 48, 15, 2, 2, 1, 0};
    EXPECT_EQ(KIV_SetVideoInputConfig(in, &config), KIV_OK);
    const std::string log = LibraryLog();
    EXPECT_EQ(CountOf(log, "Invalid video device index=0 deviceCount=0"), 1u);
    EXPECT_EQ(CountOf(log, "Invalid video device index=3 deviceCount=0"), 1u);
    EXPECT_EQ(CountOf(log, "Set video config device=1 64x48 fps=15 fmt=2 cs=2 range=1 buffers=4"), 1u);
}

// A listed device without a capture graph to open it (no DirectShow).
TEST_F(VideoInputTest, DeviceWithoutAGraphFailsToStart) {
    SetCaptureDeviceCountOverride(1);
    void* in = Port(64, 48, KIV_PIXEL_FORMAT_YUY2);
    EXPECT_EQ(KIV_Start(in), KIV_ERROR_FAILED);
    SetCaptureDeviceCountOverride(-1);
    const std::string log = LibraryLog();
    EXPECT_EQ(CountOf(log, "Video device moniker not found index=0"), 1u);
    EXPECT_EQ(CountOf(log, "Video dispatch thread enter"), 0u);  // nothing was built
}

TEST_F(VideoInputTest, FramesArriveInOrderWithTheirLayout) {
    const struct {
        int32_t format, w, h;
        bool bottomUp;
        int32_t stride, stride1;
    } cases[] = {
        {KIV_PIXEL_FORMAT_YUY2, 8, 4, false, 16, 0},  {KIV_PIXEL_FORMAT_NV12, 8, 6, false, 8, 8},
        {KIV_PIXEL_FORMAT_RGB24, 6, 3, false, 18, 0}, {KIV_PIXEL_FORMAT_RGB32, 6, 3, true, 24, 0},
        {KIV_PIXEL_FORMAT_RGB24, 6, 3, true, 18, 0},  {KIV_PIXEL_FORMAT_YUY2, 8, 4, true, 16, 0},
        {KIV_PIXEL_FORMAT_MJPG, 8, 4, true, 0, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << "fmt " << c.format << " bottomUp " << c.bottomUp);
        FakeCamera& camera = Camera();
        camera.bottomUp = c.bottomUp;
        camera.fixedFormat = c.format;
        void* in = Port(c.w, c.h, c.format);
        FrameCatcher catcher(in);
        StopOnExit stop{in};
        ASSERT_EQ(KIV_Start(in), KIV_OK);
        std::vector<std::vector<uint8_t>> fed;
        const size_t row = c.stride ? static_cast<size_t>(c.stride) : 0;
        for (uint64_t i = 0; i < 3; ++i) {
            std::vector<uint8_t> bytes = Frame(c.format, c.w, c.h, i);
            for (size_t at = 8; row && at < bytes.size(); ++at) bytes[at] = static_cast<uint8_t>(at / row + 16 * i);
            ASSERT_TRUE(camera.Feed(bytes));
            ASSERT_TRUE(WaitFor([&] { return catcher.Count() == i + 1; }));
            fed.push_back(bytes);
        }
        EXPECT_EQ(KIV_Stop(in), KIV_OK);
        // Bottom-up RGB is turned top-down; YUV and compressed buffers never are.
        const bool flips = c.bottomUp && (c.format == KIV_PIXEL_FORMAT_RGB24 || c.format == KIV_PIXEL_FORMAT_RGB32);
        for (size_t i = 0; i < catcher.frames.size(); ++i) {
            const kivtest::CaughtFrame& f = catcher.frames[i];
            EXPECT_EQ((std::vector<int64_t>{static_cast<int64_t>(f.meta.frameIndex), f.meta.width, f.meta.height,
                                            f.meta.format, f.meta.strides[0], f.meta.strides[1]}),
                      (std::vector<int64_t>{static_cast<int64_t>(i), c.w, c.h, c.format,
                                            c.stride ? c.stride : static_cast<int64_t>(fed[i].size()), c.stride1}));
            if (c.format == KIV_PIXEL_FORMAT_NV12) {
                EXPECT_EQ(f.meta.planes[1], f.meta.planes[0] + c.w * c.h);
                EXPECT_EQ(0, std::memcmp(f.plane1.data(), fed[i].data() + c.w * c.h, f.plane1.size()));
            }
            std::vector<uint8_t> expected(fed[i].begin(), fed[i].begin() + static_cast<long>(f.plane0.size()));
            for (int32_t r = 0; flips && r < c.h; ++r)
                std::memcpy(expected.data() + r * row, fed[i].data() + (c.h - 1 - r) * row, row);
            EXPECT_EQ(f.plane0, expected) << "frame " << i;
        }
    }
}

TEST_F(VideoInputTest, ShortAndUnsupportedBuffersAreDroppedWithoutANumber) {
    FakeCamera& camera = Camera();
    void* in = Port(4, 3, KIV_PIXEL_FORMAT_YUY2);
    FrameCatcher catcher(in);
    StopOnExit stop{in};
    ASSERT_EQ(KIV_Start(in), KIV_OK);
    const std::vector<uint8_t> frame = Yuy2(0, 4, 3);
    ASSERT_TRUE(camera.Feed(frame, static_cast<long>(frame.size() - 1)));
    ASSERT_TRUE(camera.Feed(frame));
    ASSERT_TRUE(WaitFor([&] { return catcher.Count() == 1; }));
    EXPECT_EQ(catcher.frames[0].meta.frameIndex, 0u);
    EXPECT_EQ(CountOf(LibraryLog(), "Drop short video buffer len=23 required=24 fmt=1"), 1u);

    camera.fixedFormat = 9;  // a type the capture path does not carry
    void* other = Port(4, 3, KIV_PIXEL_FORMAT_YUY2);
    ASSERT_EQ(KIV_Stop(in), KIV_OK);
    ASSERT_EQ(KIV_Start(other), KIV_OK);
    ASSERT_TRUE(camera.Feed(frame));
    EXPECT_EQ(CountOf(LibraryLog(), "Drop unsupported captured format=9"), 1u);
}

// A consumer slower than the camera: at most four frames wait, the newest
// survive, and the slow deliveries are reported.
TEST_F(VideoInputTest, SlowConsumerGetsTheNewestFramesFromAShortQueue) {
    FakeCamera& camera = Camera();
    void* in = Port(8, 4, KIV_PIXEL_FORMAT_YUY2);
    void* mux = Add(KIV_CreateVideoMux());
    FrameCatcher catcher(in);
    ASSERT_EQ(KIV_Connect(in, mux), KIV_OK);
    // The first delivery holds until everything is fed, so what waits is known.
    struct Slow {
        static void KIV_CALL OnFrame(const KivVideoFrame*, void* open) {
            WaitFor([open] { return static_cast<std::atomic<bool>*>(open)->load(); });
            Sleep(520);
        }
    };
    std::atomic<bool> open{false};
    ASSERT_EQ(KIV_SetVideoFrameCallback(mux, &Slow::OnFrame, &open), KIV_OK);
    StopOnExit stop{in};
    ASSERT_EQ(KIV_Start(in), KIV_OK);
    auto* port = static_cast<KivVideoInput*>(static_cast<KivPortBase*>(in));
    size_t mostWaiting = 0;
    for (uint64_t i = 0; i < 12; ++i) {
        ASSERT_TRUE(camera.Feed(Yuy2(i)));
        if (i == 0) {
            ASSERT_TRUE(WaitFor([&] { return catcher.Count() == 1; }));
        }
        mostWaiting = std::max(mostWaiting, port->QueuedFrames());
    }
    open.store(true);
    ASSERT_TRUE(WaitFor([&] { return catcher.Count() >= 5 && port->QueuedFrames() == 0; }));
    EXPECT_EQ(mostWaiting, 4u);
    ASSERT_EQ(catcher.Count(), 5u);
    const uint64_t expected[] = {0, 8, 9, 10, 11};
    for (size_t i = 0; i < 5; ++i) {
        EXPECT_EQ(catcher.frames[i].meta.frameIndex, expected[i]);
        EXPECT_EQ(catcher.frames[i].plane0[0], expected[i]);
    }
    const std::string log = LibraryLog();
    EXPECT_GE(CountOf(log, "Slow video dispatch chain device=0"), 1u);
    EXPECT_GE(CountOf(log, "Slow source downstream dispatch device=0"), 1u);
    EXPECT_NE(log.find("type=20 elapsed="), std::string::npos);
}

// A stop from inside the frame callback cannot join the thread it runs on:
// it is rejected and the stop completes only when called from elsewhere.
TEST_F(VideoInputTest, StopFromInsideTheCallbackIsRejected) {
    FakeCamera& camera = Camera();
    static void* in;
    static std::atomic<int> result;
    in = Port(8, 4, KIV_PIXEL_FORMAT_YUY2);
    result = 1;
    struct Inside {
        static void KIV_CALL OnFrame(const KivVideoFrame*, void*) {
            if (result.load() == 1) result.store(KIV_Stop(in));
        }
    };
    ASSERT_EQ(KIV_SetVideoFrameCallback(in, &Inside::OnFrame, nullptr), KIV_OK);
    ASSERT_EQ(KIV_Start(in), KIV_OK);
    const size_t completeAtStart = CountOf(LibraryLog(), "StopDirectShow complete");
    ASSERT_TRUE(camera.Feed(Yuy2(0)));
    ASSERT_TRUE(WaitFor([&] { return result.load() != 1; }));
    EXPECT_EQ(result.load(), KIV_ERROR_FAILED);
    std::string log = LibraryLog();
    EXPECT_EQ(CountOf(log, "StopDirectShow rejected self-join device=0"), 1u);
    EXPECT_EQ(CountOf(log, "StopDirectShow dispatch thread wait rejected device=0"), 1u);
    EXPECT_EQ(CountOf(log, "StopDirectShow complete"), completeAtStart);
    EXPECT_EQ(KIV_Stop(in), KIV_OK);
    log = LibraryLog();
    EXPECT_EQ(CountOf(log, "StopDirectShow complete"), completeAtStart + 1);
    EXPECT_EQ(CountOf(log, "Video dispatch thread exit device=0"), 1u);
}

// A dispatch thread stuck for five seconds: the stop reports it twice, then
// joins; frames queued meanwhile are discarded.
TEST_F(VideoInputTest, StopWaitsOutABlockedDispatchThread) {
    FakeCamera& camera = Camera();
    void* in = Port(8, 4, KIV_PIXEL_FORMAT_YUY2);
    static std::atomic<int> calls;
    calls = 0;
    struct Blocked {
        static void KIV_CALL OnFrame(const KivVideoFrame*, void*) {
            if (calls.fetch_add(1) == 0) Sleep(5000);
        }
    };
    ASSERT_EQ(KIV_SetVideoFrameCallback(in, &Blocked::OnFrame, nullptr), KIV_OK);
    ASSERT_EQ(KIV_Start(in), KIV_OK);
    ASSERT_TRUE(camera.Feed(Yuy2(0)));
    ASSERT_TRUE(WaitFor([&] { return calls.load() == 1; }));
    for (uint64_t i = 1; i <= 3; ++i) ASSERT_TRUE(camera.Feed(Yuy2(i)));
    EXPECT_EQ(KIV_Stop(in), KIV_OK);
    EXPECT_EQ(calls.load(), 1);
    const std::string log = LibraryLog();
    EXPECT_EQ(CountOf(log, "StopDirectShow dispatch still running device=0"), 2u);
    EXPECT_NE(log.find("stage=0 dispatchTid="), std::string::npos);
    const size_t joined = log.find("StopDirectShow dispatch thread joined device=0");
    ASSERT_NE(joined, std::string::npos);
    EXPECT_LT(log.rfind("dispatch still running"), joined);
}

TEST_F(VideoInputTest, SecondPortAskingMoreRestartsTheSharedSource) {
    FakeCamera& camera = Camera();
    void* first = Port(1280, 720, KIV_PIXEL_FORMAT_YUY2);
    void* second = Port(1920, 1080, KIV_PIXEL_FORMAT_YUY2);
    void* third = Port(640, 480, KIV_PIXEL_FORMAT_MJPG);
    void* firstOut = Add(KIV_CreateVideoMux());
    void* secondOut = Add(KIV_CreateVideoMux());
    FrameCatcher firstFrames(firstOut), secondFrames(secondOut);
    ASSERT_EQ(KIV_Connect(first, firstOut), KIV_OK);
    ASSERT_EQ(KIV_Connect(second, secondOut), KIV_OK);
    StopOnExit stops[] = {{third}, {second}, {first}};
    ASSERT_EQ(KIV_Start(first), KIV_OK);
    EXPECT_EQ(camera.connected.width, 1280);
    ASSERT_EQ(KIV_Start(second), KIV_OK);
    EXPECT_EQ(camera.builds, 2);
    EXPECT_EQ(camera.connected.width, 1920);
    ASSERT_EQ(KIV_Start(third), KIV_OK);
    EXPECT_EQ(camera.builds, 2);
    ASSERT_TRUE(camera.Feed(Yuy2(0, 1920, 1080)));
    ASSERT_TRUE(WaitFor([&] { return firstFrames.Count() == 1 && secondFrames.Count() == 1; }));
    for (FrameCatcher* c : {&firstFrames, &secondFrames})
        EXPECT_EQ(std::make_pair(c->frames[0].meta.width, c->frames[0].meta.height), std::make_pair(1920, 1080));
    const std::string log = LibraryLog();
    EXPECT_EQ(CountOf(log, "Restart shared source for new requests device=0 actual=1280x720 fps=30 fmt=1 "
                           "requested=1920x1080 fps=30 fmt=1"),
              1u);
    EXPECT_EQ(CountOf(log, "Restart shared source OK device=0 actual=1920x1080 fps=30 fmt=1"), 1u);
    EXPECT_EQ(CountOf(log, "Shared source already satisfies requests device=0 actual=1920x1080 fps=30 fmt=1 "
                           "requested=1920x1080 fps=30 fmt=5"),
              1u);
}

// A client stopping while its source runs detaches and may start again; the
// source stopping while the client's downstream port is busy with a frame
// closes the client's slot only after that delivery, and the client's own
// stop then finds its slot stale.
TEST_F(VideoInputTest, SharedClientSlotsDetachAndGoStale) {
    FakeCamera& camera = Camera();
    void* source = Port(640, 480, KIV_PIXEL_FORMAT_YUY2);
    void* client = Port(640, 480, KIV_PIXEL_FORMAT_YUY2);
    void* clientOut = Add(KIV_CreateVideoMux());
    static std::atomic<int> entered, finished;
    entered = finished = 0;
    struct Busy {
        static void KIV_CALL OnFrame(const KivVideoFrame*, void*) {
            entered.fetch_add(1);
            Sleep(300);
            finished.fetch_add(1);
        }
    };
    ASSERT_EQ(KIV_SetVideoFrameCallback(clientOut, &Busy::OnFrame, nullptr), KIV_OK);
    ASSERT_EQ(KIV_Connect(client, clientOut), KIV_OK);
    StopOnExit stops[] = {{client}, {source}};
    ASSERT_EQ(KIV_Start(source), KIV_OK);
    ASSERT_EQ(KIV_Start(client), KIV_OK);
    ASSERT_EQ(KIV_Stop(client), KIV_OK);
    ASSERT_TRUE(camera.Feed(Yuy2(0, 640, 480)));
    Sleep(50);
    EXPECT_EQ(entered.load(), 0);
    std::string log = LibraryLog();
    EXPECT_EQ(CountOf(log, "Shared client slot unregistered device=0"), 1u);
    EXPECT_EQ(CountOf(log, "Video input stop shared client complete device=0"), 1u);
    EXPECT_EQ(CountOf(log, "Register active video device index=0 source="), 1u);
    EXPECT_EQ(CountOf(log, "DirectShow capture graph started"), 1u);

    ASSERT_EQ(KIV_Start(client), KIV_OK);
    ASSERT_TRUE(camera.Feed(Yuy2(1, 640, 480)));
    ASSERT_TRUE(WaitFor([&] { return entered.load() == 1; }));
    EXPECT_EQ(KIV_Stop(source), KIV_OK);
    EXPECT_EQ(finished.load(), 1);
    EXPECT_FALSE(camera.Feed(Yuy2(2, 640, 480)));
    EXPECT_EQ(KIV_Stop(client), KIV_OK);
    log = LibraryLog();
    EXPECT_EQ(CountOf(log, "All shared client slots closed device=0"), 1u);
    EXPECT_EQ(CountOf(log, "Unregister active video device index=0"), 1u);
    EXPECT_EQ(CountOf(log, "closed stale shared slot"), 1u);
    EXPECT_EQ(entered.load(), 1);
}

}  // namespace
