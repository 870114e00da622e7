// The capture port driven through the public interface, with a stand-in
// camera feeding buffers as the sample grabber would.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <thread>

#include "../../src/capture/kiv_video_input.h"
#include "fake_camera.h"
#include "test_support.h"

using kivtest::CountOf;
using kivtest::FrameCatcher;
using kivtest::LibraryLog;

namespace {

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
    void* Port(int32_t w, int32_t h, int32_t fmt, int32_t device = 0) {
        void* p = KIV_CreateVideoInput();
        EXPECT_NE(p, nullptr);
        EXPECT_EQ(KIV_SetVideoInputDevice(p, device), KIV_OK);
        EXPECT_EQ(KIV_SetVideoInputFormat(p, w, h, 30, fmt), KIV_OK);
        ports.push_back(p);
        return p;
    }
    FakeCamera& Camera(int32_t devices = 1) {
        camera.reset();  // the old stand-in uninstalls itself
        camera = std::make_unique<FakeCamera>(devices);
        return *camera;
    }
    kivtest::LibraryScope library;
    std::unique_ptr<FakeCamera> camera;
    std::vector<void*> ports;
};

TEST_F(VideoInputTest, WithoutDevicesStartFailsAndBadSettingsAreRefused) {
    void* in = KIV_CreateVideoInput();
    ports.push_back(in);
    void* mux = KIV_CreateVideoMux();
    ports.push_back(mux);
    KivVideoInputConfig config{0, 640, 480, 30, 1, 0, 0, 0};
    struct Case {
        const char* name;
        KivResult result;
    } const cases[] = {
        {"negative device", KIV_SetVideoInputDevice(in, -1)},
        {"wrong port", KIV_SetVideoInputDevice(mux, 0)},
        {"zero width", KIV_SetVideoInputFormat(in, 0, 480, 30, 1)},
        {"zero fps", KIV_SetVideoInputFormat(in, 640, 480, 0, 1)},
        {"no format", KIV_SetVideoInputFormat(in, 640, 480, 30, 0)},
        {"format wrong port", KIV_SetVideoInputFormat(mux, 640, 480, 30, 1)},
        {"null config", KIV_SetVideoInputConfig(in, nullptr)},
        {"config wrong port", KIV_SetVideoInputConfig(mux, &config)},
    };
    for (const Case& c : cases) EXPECT_EQ(c.result, KIV_ERROR_INVALID_ARG) << c.name;
    EXPECT_EQ(KIV_Start(in), KIV_ERROR_INVALID_ARG);
    // A bad format in a config keeps the device index it carried.
    config = {3, 640, 0, 30, 1, 0, 0, 0};
    EXPECT_EQ(KIV_SetVideoInputConfig(in, &config), KIV_ERROR_INVALID_ARG);
    EXPECT_EQ(KIV_Start(in), KIV_ERROR_INVALID_ARG);
    const std::string log = LibraryLog();
    EXPECT_EQ(CountOf(log, "Invalid video device index=0 deviceCount=0"), 1u);
    EXPECT_EQ(CountOf(log, "Invalid video device index=3 deviceCount=0"), 1u);
    config = {1, 64, 48, 15, 2, 2, 1, 0};
    EXPECT_EQ(KIV_SetVideoInputConfig(in, &config), KIV_OK);
    EXPECT_NE(LibraryLog().find("Set video config device=1 64x48 fps=15 fmt=2 cs=2 range=1 buffers=4"),
              std::string::npos);
}

TEST_F(VideoInputTest, FramesArriveInOrderWithTheirLayout) {
    struct Case {
        int32_t format, w, h;
        bool bottomUp;
        int32_t stride, stride1;
    } const cases[] = {
        {KIV_PIXEL_FORMAT_YUY2, 8, 4, false, 16, 0}, {KIV_PIXEL_FORMAT_NV12, 8, 6, false, 8, 8},
        {KIV_PIXEL_FORMAT_RGB24, 6, 3, false, 18, 0}, {KIV_PIXEL_FORMAT_RGB32, 6, 3, true, 24, 0},
        {KIV_PIXEL_FORMAT_RGB24, 6, 3, true, 18, 0},  {KIV_PIXEL_FORMAT_YUY2, 8, 4, true, 16, 0},
        {KIV_PIXEL_FORMAT_MJPG, 8, 4, true, 0, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << "fmt " << c.format << " bottomUp " << c.bottomUp);
        FakeCamera& camera = Camera();
        camera.bottomUp = c.bottomUp;
        camera.fixedFormat = c.format;
        void* in = Port(c.w, c.h, c.format);
        FrameCatcher catcher(in);
        StopOnExit stop{in};
        ASSERT_EQ(KIV_Start(in), KIV_OK);
        std::vector<std::vector<uint8_t>> fed;
        for (uint64_t i = 0; i < 3; ++i) {
            std::vector<uint8_t> bytes = NumberedFrame(c.format, c.w, c.h, i);
            // Distinct rows, so a flip shows.
            const size_t rowBytes = c.stride ? static_cast<size_t>(c.stride) : bytes.size();
            for (size_t at = 8; at < bytes.size(); ++at) bytes[at] = static_cast<uint8_t>(at / rowBytes + 16 * i);
            ASSERT_TRUE(camera.Feed(0, bytes));
            ASSERT_TRUE(WaitFor([&] { return catcher.Count() == i + 1; }));
            fed.push_back(bytes);
        }
        EXPECT_EQ(KIV_Stop(in), KIV_OK);
        const bool flips = c.bottomUp && (c.format == KIV_PIXEL_FORMAT_RGB24 || c.format == KIV_PIXEL_FORMAT_RGB32);
        for (size_t i = 0; i < catcher.frames.size(); ++i) {
            const kivtest::CaughtFrame& f = catcher.frames[i];
            EXPECT_EQ(f.meta.frameIndex, i);
            EXPECT_EQ(f.meta.width, c.w);
            EXPECT_EQ(f.meta.height, c.h);
            EXPECT_EQ(f.meta.format, c.format);
            EXPECT_EQ(f.meta.strides[0], c.stride ? c.stride : static_cast<int32_t>(fed[i].size()));
            EXPECT_EQ(f.meta.strides[1], c.stride1);
            if (c.format == KIV_PIXEL_FORMAT_NV12) {
                EXPECT_EQ(f.meta.planes[1], f.meta.planes[0] + c.w * c.h);
                EXPECT_EQ(0, std::memcmp(f.plane1.data(), fed[i].data() + c.w * c.h, f.plane1.size()));
            }
            std::vector<uint8_t> expected(fed[i].begin(), fed[i].begin() + static_cast<long>(f.plane0.size()));
            if (flips) {
                const size_t row = static_cast<size_t>(c.stride);
                for (int32_t r = 0; r < c.h; ++r) {
                    std::memcpy(expected.data() + r * row, fed[i].data() + (c.h - 1 - r) * row, row);
                }
            }
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
    std::vector<uint8_t> frame = NumberedFrame(KIV_PIXEL_FORMAT_YUY2, 4, 3, 0);
    ASSERT_TRUE(camera.Feed(0, frame.data(), static_cast<long>(frame.size() - 1)));
    ASSERT_TRUE(camera.Feed(0, frame));
    ASSERT_TRUE(WaitFor([&] { return catcher.Count() == 1; }));
    EXPECT_EQ(catcher.frames[0].meta.frameIndex, 0u);
    EXPECT_EQ(CountOf(LibraryLog(), "Drop short video buffer len=23 required=24 fmt=1"), 1u);

    camera.fixedFormat = 9;  // a type the capture path does not carry
    void* other = Port(4, 3, KIV_PIXEL_FORMAT_YUY2);
    ASSERT_EQ(KIV_Stop(in), KIV_OK);
    ASSERT_EQ(KIV_Start(other), KIV_OK);
    ASSERT_TRUE(camera.Feed(0, frame));
    EXPECT_EQ(CountOf(LibraryLog(), "Drop unsupported captured format=9"), 1u);
}


// A consumer slower than the camera: at most four frames wait, the newest
// ones survive, and the slow deliveries are reported.
TEST_F(VideoInputTest, SlowConsumerGetsTheNewestFramesFromAShortQueue) {
    FakeCamera& camera = Camera();
    void* in = Port(8, 4, KIV_PIXEL_FORMAT_YUY2);
    void* mux = KIV_CreateVideoMux();
    ports.insert(ports.begin(), mux);
    FrameCatcher catcher(in);
    ASSERT_EQ(KIV_Connect(in, mux), KIV_OK);
    // The first delivery holds until everything is fed, so what waits is known.
    struct Slow {
        std::atomic<bool> open{false};
        static void KIV_CALL OnFrame(const KivVideoFrame*, void* user) {
            WaitFor([user] { return static_cast<Slow*>(user)->open.load(); });
            Sleep(520);
        }
    } slow;
    ASSERT_EQ(KIV_SetVideoFrameCallback(mux, &Slow::OnFrame, &slow), KIV_OK);
    StopOnExit stop{in};
    ASSERT_EQ(KIV_Start(in), KIV_OK);
    auto* port = static_cast<KivVideoInput*>(static_cast<KivPortBase*>(in));
    size_t mostWaiting = 0;
    const uint64_t fed = 12;
    for (uint64_t i = 0; i < fed; ++i) {
        ASSERT_TRUE(camera.Feed(0, NumberedFrame(KIV_PIXEL_FORMAT_YUY2, 8, 4, i)));
        if (i == 0) {
            ASSERT_TRUE(WaitFor([&] { return catcher.Count() == 1; }));
        }
        mostWaiting = std::max(mostWaiting, port->QueuedFrames());
    }
    slow.open.store(true);
    ASSERT_TRUE(WaitFor([&] { return catcher.Count() >= 5 && port->QueuedFrames() == 0; }));
    EXPECT_EQ(mostWaiting, 4u);
    // The first frame was taken at once; the last four fed waited and survived.
    ASSERT_EQ(catcher.Count(), 5u);
    const uint64_t expected[] = {0, 8, 9, 10, 11};
    for (size_t i = 0; i < 5; ++i) {
        EXPECT_EQ(catcher.frames[i].meta.frameIndex, expected[i]);
        EXPECT_EQ(FrameNumberOf(catcher.frames[i].plane0.data()), expected[i]);
    }
    const std::string log = LibraryLog();
    EXPECT_GE(CountOf(log, "Slow video dispatch chain device=0"), 1u);
    EXPECT_GE(CountOf(log, "Slow source downstream dispatch device=0"), 1u);
    EXPECT_NE(log.find("type=20 elapsed="), std::string::npos);
}

// A stop from inside the frame callback cannot join the thread it runs on:
// it is rejected and the port stays as it was until stopped from elsewhere.
TEST_F(VideoInputTest, StopFromInsideTheCallbackIsRejected) {
    FakeCamera& camera = Camera();
    void* in = Port(8, 4, KIV_PIXEL_FORMAT_YUY2);
    struct Inside {
        void* port;
        std::atomic<int> result{1};
        static void KIV_CALL OnFrame(const KivVideoFrame*, void* user) {
            auto* self = static_cast<Inside*>(user);
            if (self->result.load() == 1) self->result.store(KIV_Stop(self->port));
        }
    } inside;
    inside.port = in;
    ASSERT_EQ(KIV_SetVideoFrameCallback(in, &Inside::OnFrame, &inside), KIV_OK);
    ASSERT_EQ(KIV_Start(in), KIV_OK);
    const size_t completeAtStart = CountOf(LibraryLog(), "StopDirectShow complete");
    ASSERT_TRUE(camera.Feed(0, NumberedFrame(KIV_PIXEL_FORMAT_YUY2, 8, 4, 0)));
    ASSERT_TRUE(WaitFor([&] { return inside.result.load() != 1; }));
    EXPECT_EQ(inside.result.load(), KIV_ERROR_FAILED);
    std::string log = LibraryLog();
    EXPECT_EQ(CountOf(log, "StopDirectShow rejected self-join device=0"), 1u);
    EXPECT_EQ(CountOf(log, "StopDirectShow dispatch thread wait rejected device=0"), 1u);
    EXPECT_EQ(CountOf(log, "StopDirectShow complete"), completeAtStart);
    EXPECT_EQ(KIV_Stop(in), KIV_OK);
    log = LibraryLog();
    EXPECT_EQ(CountOf(log, "StopDirectShow complete"), completeAtStart + 1);
    EXPECT_EQ(CountOf(log, "Video dispatch thread exit device=0"), 1u);
}

// A dispatch thread stuck for five seconds: the stop reports it twice and
// then joins; frames queued meanwhile are discarded, none arrives later.
TEST_F(VideoInputTest, StopWaitsOutABlockedDispatchThread) {
    FakeCamera& camera = Camera();
    void* in = Port(8, 4, KIV_PIXEL_FORMAT_YUY2);
    struct Blocked {
        std::atomic<int> calls{0};
        static void KIV_CALL OnFrame(const KivVideoFrame*, void* user) {
            if (static_cast<Blocked*>(user)->calls.fetch_add(1) == 0) Sleep(5000);
        }
    } blocked;
    ASSERT_EQ(KIV_SetVideoFrameCallback(in, &Blocked::OnFrame, &blocked), KIV_OK);
    ASSERT_EQ(KIV_Start(in), KIV_OK);
    ASSERT_TRUE(camera.Feed(0, NumberedFrame(KIV_PIXEL_FORMAT_YUY2, 8, 4, 0)));
    ASSERT_TRUE(WaitFor([&] { return blocked.calls.load() == 1; }));
    for (uint64_t i = 1; i <= 3; ++i) ASSERT_TRUE(camera.Feed(0, NumberedFrame(KIV_PIXEL_FORMAT_YUY2, 8, 4, i)));
    EXPECT_EQ(KIV_Stop(in), KIV_OK);
    EXPECT_EQ(blocked.calls.load(), 1);
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
    // A shared client hands frames to its downstream ports.
    void* firstOut = KIV_CreateVideoMux();
    void* secondOut = KIV_CreateVideoMux();
    ports.insert(ports.begin(), {firstOut, secondOut});
    FrameCatcher firstFrames(firstOut), secondFrames(secondOut);
    ASSERT_EQ(KIV_Connect(first, firstOut), KIV_OK);
    ASSERT_EQ(KIV_Connect(second, secondOut), KIV_OK);
    StopOnExit stops[] = {{third}, {second}, {first}};

    ASSERT_EQ(KIV_Start(first), KIV_OK);
    EXPECT_EQ(camera.Connected(0).width, 1280);
    ASSERT_EQ(KIV_Start(second), KIV_OK);
    EXPECT_EQ(camera.Builds(), 2);
    EXPECT_EQ(camera.Connected(0).width, 1920);
    ASSERT_EQ(KIV_Start(third), KIV_OK);
    EXPECT_EQ(camera.Builds(), 2);
    ASSERT_TRUE(camera.Feed(0, NumberedFrame(KIV_PIXEL_FORMAT_YUY2, 1920, 1080, 0)));
    ASSERT_TRUE(WaitFor([&] { return firstFrames.Count() == 1 && secondFrames.Count() == 1; }));
    for (FrameCatcher* c : {&firstFrames, &secondFrames}) {
        EXPECT_EQ(c->frames[0].meta.width, 1920);
        EXPECT_EQ(c->frames[0].meta.height, 1080);
    }
    const std::string log = LibraryLog();
    EXPECT_EQ(CountOf(log, "Restart shared source for new requests device=0 actual=1280x720 fps=30 fmt=1 "
                           "requested=1920x1080 fps=30 fmt=1"),
              1u);
    EXPECT_EQ(CountOf(log, "Restart shared source OK device=0 actual=1920x1080 fps=30 fmt=1"), 1u);
    EXPECT_EQ(CountOf(log, "Shared source already satisfies requests device=0 actual=1920x1080 fps=30 fmt=1 "
                           "requested=1920x1080 fps=30 fmt=5"),
              1u);
}

// The source stops while its client's downstream port is busy with a frame:
// the client's slot closes only after that delivery, and the client's own
// stop then finds its slot stale.
TEST_F(VideoInputTest, SourceStopClosesClientSlotsAfterTheirDelivery) {
    FakeCamera& camera = Camera();
    void* source = Port(640, 480, KIV_PIXEL_FORMAT_YUY2);
    void* client = Port(640, 480, KIV_PIXEL_FORMAT_YUY2);
    void* clientOut = KIV_CreateVideoMux();
    ports.insert(ports.begin(), clientOut);
    struct Busy {
        std::atomic<int> entered{0}, finished{0};
        static void KIV_CALL OnFrame(const KivVideoFrame*, void* user) {
            auto* self = static_cast<Busy*>(user);
            self->entered.fetch_add(1);
            Sleep(300);
            self->finished.fetch_add(1);
        }
    } busy;
    ASSERT_EQ(KIV_SetVideoFrameCallback(clientOut, &Busy::OnFrame, &busy), KIV_OK);
    ASSERT_EQ(KIV_Connect(client, clientOut), KIV_OK);
    StopOnExit stops[] = {{client}, {source}};
    ASSERT_EQ(KIV_Start(source), KIV_OK);
    ASSERT_EQ(KIV_Start(client), KIV_OK);
    ASSERT_TRUE(camera.Feed(0, NumberedFrame(KIV_PIXEL_FORMAT_YUY2, 640, 480, 0)));
    ASSERT_TRUE(WaitFor([&] { return busy.entered.load() == 1; }));
    EXPECT_EQ(KIV_Stop(source), KIV_OK);
    EXPECT_EQ(busy.finished.load(), 1);
    EXPECT_FALSE(camera.Feed(0, NumberedFrame(KIV_PIXEL_FORMAT_YUY2, 640, 480, 1)));
    EXPECT_EQ(KIV_Stop(client), KIV_OK);
    const std::string log = LibraryLog();
    EXPECT_EQ(CountOf(log, "All shared client slots closed device=0"), 1u);
    EXPECT_EQ(CountOf(log, "Unregister active video device index=0"), 1u);
    EXPECT_EQ(CountOf(log, "closed stale shared slot"), 1u);
    EXPECT_EQ(busy.entered.load(), 1);
}

TEST_F(VideoInputTest, ClientStopDetachesFromARunningSource) {
    FakeCamera& camera = Camera();
    void* source = Port(640, 480, KIV_PIXEL_FORMAT_YUY2);
    void* client = Port(640, 480, KIV_PIXEL_FORMAT_YUY2);
    void* clientOut = KIV_CreateVideoMux();
    ports.insert(ports.begin(), clientOut);
    FrameCatcher frames(clientOut);
    ASSERT_EQ(KIV_Connect(client, clientOut), KIV_OK);
    StopOnExit stops[] = {{client}, {source}};
    ASSERT_EQ(KIV_Start(source), KIV_OK);
    ASSERT_EQ(KIV_Start(client), KIV_OK);
    ASSERT_EQ(KIV_Stop(client), KIV_OK);
    ASSERT_TRUE(camera.Feed(0, NumberedFrame(KIV_PIXEL_FORMAT_YUY2, 640, 480, 0)));
    Sleep(50);
    EXPECT_EQ(frames.Count(), 0u);
    const std::string log = LibraryLog();
    EXPECT_EQ(CountOf(log, "Shared client slot unregistered device=0"), 1u);
    EXPECT_EQ(CountOf(log, "Video input stop shared client complete device=0"), 1u);
    // A client may start again, and attaches anew.
    ASSERT_EQ(KIV_Start(client), KIV_OK);
    ASSERT_TRUE(camera.Feed(0, NumberedFrame(KIV_PIXEL_FORMAT_YUY2, 640, 480, 1)));
    EXPECT_TRUE(WaitFor([&] { return frames.Count() == 1; }));
}

}  // namespace
