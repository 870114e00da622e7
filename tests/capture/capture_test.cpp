// The capture path's pure parts as tables, then the port with a stand-in camera feeding buffers as the grabber would.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <thread>

#include "../../src/capture/capture_frame_queue.h"
#include "../../src/capture/capture_graph.h"
#include "../../src/capture/capture_intake.h"
#include "../../src/capture/capture_registry.h"
#include "../../src/capture/kiv_video_input.h"
#include "../../src/core/kiv_video_caps.h"
#include "test_support.h"

using namespace kiv::capture;
using kivtest::FrameCatcher;

namespace {

using I64s = std::vector<int64_t>;

TEST(CaptureIntake, BufferChecksPerFormat) {
    using V = IntakeVerdict;
    const struct { int32_t format, w, h; int64_t length; V verdict; int64_t stride, required, chroma; } cases[] = {
        {1, 4, 3, 24, V::kAccept, 8, 24, 0},   {1, 4, 3, 23, V::kShort, 8, 24, 0},
        {1, 4, 3, 100, V::kAccept, 8, 24, 0},  {2, 4, 3, 20, V::kAccept, 4, 20, 12},
        {2, 4, 3, 19, V::kShort, 4, 20, 12},   {2, 6, 4, 36, V::kAccept, 6, 36, 24},
        {3, 5, 2, 30, V::kAccept, 15, 30, 0},  {3, 5, 2, 29, V::kShort, 15, 30, 0},
        {4, 5, 2, 40, V::kAccept, 20, 40, 0},  {5, 640, 480, 1, V::kAccept, 1, 1, 0},
        {6, 640, 480, 777, V::kAccept, 777, 777, 0}, {0, 4, 4, 64, V::kUnsupported, 0, 0, 0},
        {7, 4, 4, 64, V::kUnsupported, 0, 0, 0},
    };
    for (const auto& c : cases) {
        IntakeLayout l;
        EXPECT_EQ(CheckCapturedBuffer(c.format, c.w, c.h, c.length, &l), c.verdict) << c.format << " " << c.length;
        if (c.verdict == V::kUnsupported) continue;
        EXPECT_EQ((I64s{l.stride, l.required, l.chromaOffset}), (I64s{c.stride, c.required, c.chroma})) << c.format;
    }
}

TEST(CaptureFrameQueue, KeepsTheNewestFourAndRecyclesBuffers) {
    FrameQueue q;
    q.Open();
    for (uint64_t i = 0; i < 10; ++i) {
        QueuedFrame* item = q.Acquire();
        ASSERT_NE(item, nullptr);
        item->frame.frameIndex = i, item->Reserve(100);
        EXPECT_TRUE(q.Push(item));
    }
    EXPECT_EQ(std::make_pair(q.Size(), q.OverflowDrops()), std::make_pair(FrameQueue::kDepth, uint64_t{6}));
    for (uint64_t expected = 6; expected < 10; ++expected) {
        QueuedFrame* item = q.Pop();
        ASSERT_NE(item, nullptr);
        EXPECT_EQ(std::make_pair(item->frame.frameIndex, item->capacity >= 100), std::make_pair(expected, true));
        q.Recycle(item);
    }
    EXPECT_TRUE(q.Push(q.Acquire()));
    q.Close();
    EXPECT_EQ(std::make_pair(q.Size(), q.Pop()), std::make_pair(size_t{0}, static_cast<QueuedFrame*>(nullptr)));
    EXPECT_FALSE(q.Push(q.Acquire()));
    size_t taken = 0;
    while (q.Acquire()) ++taken;
    EXPECT_EQ(taken, FrameQueue::kDepth + 2);
}

std::vector<int32_t> Fields(const MergedRequest& m) { return {m.width, m.height, m.fps, m.format}; }

TEST(CaptureNegotiation, MergeTakesLargestAreaFastestRateAndFormatOrder) {
    const struct { const char* name; std::vector<ClientRequest> requests; MergedRequest expected; } cases[] = {
        {"no requests: defaults", {}, {1280, 720, 30, 1}},
        {"MJPG 720p and YUY2 1080p", {{nullptr, 1280, 720, 30, 5}, {nullptr, 1920, 1080, 30, 1}}, {1920, 1080, 30, 5}},
        {"equal areas keep the earlier", {{nullptr, 1600, 900, 30, 1}, {nullptr, 900, 1600, 30, 1}}, {1600, 900, 30, 1}},
        {"later larger area wins", {{nullptr, 640, 480, 60, 2}, {nullptr, 641, 480, 15, 2}}, {641, 480, 60, 2}},
        {"H.264 beats MJPG", {{nullptr, 640, 480, 30, 5}, {nullptr, 640, 480, 30, 6}}, {640, 480, 30, 6}},
        {"YUY2 beats NV12", {{nullptr, 640, 480, 30, 2}, {nullptr, 640, 480, 30, 1}}, {640, 480, 30, 1}},
        {"RGB24 asks RGB32", {{nullptr, 640, 480, 30, 3}}, {640, 480, 30, 4}},
        {"unknown format: YUY2", {{nullptr, 640, 480, 30, 9}}, {640, 480, 30, 1}},
        {"zero size and rate: defaults", {{nullptr, 0, 0, 0, 2}}, {1280, 720, 30, 2}},
        {"area does not overflow", {{nullptr, 70000, 70000, 1, 1}, {nullptr, 1920, 1080, 1, 1}}, {70000, 70000, 1, 1}},
    };
    for (const auto& c : cases) EXPECT_EQ(Fields(MergeRequests(c.requests)), Fields(c.expected)) << c.name;
}

TEST(CaptureNegotiation, ChoosesTheEntryThatBestServesTheRequest) {
    using C = CaptureCandidate;
    const struct { const char* name; MergedRequest request; std::vector<C> offered; int winner; } cases[] = {
        {"nearest at or above, preferred format", {1920, 1080, 30, 1},
         {{3840, 2160, 30, 1}, {1920, 1080, 30, 1}, {1920, 1080, 60, 5}}, 1},
        {"below the request the larger wins", {1920, 1080, 30, 1}, {{640, 480, 30, 1}, {1280, 720, 30, 1}}, 1},
        {"equal scores keep the lower index", {640, 480, 30, 1}, {{640, 480, 30, 1}, {640, 480, 30, 1}}, 0},
        {"unknown subtype never chosen", {640, 480, 30, 1}, {{1920, 1080, 30, 0}, {320, 240, 5, 2}}, 1},
        {"nothing usable", {640, 480, 30, 1}, {{0, 480, 30, 1}, {640, 480, 30, 7}}, -1},
        {"rate reached beats a closer size", {1280, 720, 30, 1}, {{1280, 720, 15, 1}, {1920, 1080, 30, 1}}, 1},
        // Below the request YUY2 at 640x480 (307,200 + 3,000,000) outweighs RGB24 at 1280x720 (921,600 + 900,000).
        {"format weight outweighs area", {1920, 1080, 30, 4}, {{1280, 720, 30, 3}, {640, 480, 30, 1}}, 1},
        {"preferred format bonus", {640, 480, 30, 5}, {{640, 480, 30, 1}, {640, 480, 30, 5}}, 1},
        {"faster rate breaks a tie", {640, 480, 30, 1}, {{640, 480, 30, 1}, {640, 480, 31, 1}}, 1},
        {"RGB32 outweighs RGB24", {640, 480, 30, 1}, {{640, 480, 30, 3}, {640, 480, 30, 4}}, 1},
    };
    for (auto c : cases) EXPECT_EQ(ChooseCandidate(c.request, &c.offered), c.winner) << c.name;
    std::vector<C> list = {{1920, 1080, 30, 1}, {1280, 720, 60, 2}, {1920, 1080, 30, 99}, {1920, 1080, 30, 1}};
    ASSERT_EQ(ChooseCandidate({1280, 720, 30, 2}, &list), 1);
    // size reached + rate reached + closeness + preferred + weight + rate
    EXPECT_EQ(list[0].score, 1000000000000LL + 1000000000LL + (500000000LL - (2073600 - 921600)) + 3000000 + 30);
    EXPECT_EQ(list[1].score, 1000000000000LL + 1000000000LL + 500000000LL + 10000000 + 2000000 + 60);
    EXPECT_EQ(std::make_pair(list[2].usable, list[2].score), std::make_pair(false, int64_t{-1}));
    const bool better[] = {true, true, false, false};
    for (size_t i = 0; i < list.size(); ++i) EXPECT_EQ(list[i].better, better[i]) << i;
    C small{320, 240, 10, 6};  // below the request the area itself counts
    ScoreCandidate({640, 480, 30, 1}, &small);
    EXPECT_EQ(small.score, 76800 + 1500000 + 10);
}

TEST(CaptureNegotiation, RateFromMediaTypeAndCapabilityRange) {
    const struct { int64_t media; bool caps; int64_t minI, maxI; int32_t fps; } cases[] = {
        {333333, false, 0, 0, 30},     {0, true, 166666, 0, 60},      {0, true, 0, 666666, 15},
        {333333, true, 166666, 0, 60}, {166666, true, 333333, 0, 60}, {0, false, 166666, 0, 30},
        {0, false, 0, 0, 30},          {400000, false, 0, 0, 25},     {10000001, false, 0, 0, 1},
    };
    for (const auto& c : cases)
        EXPECT_EQ(CandidateRate(c.media, c.caps, c.minI, c.maxI), c.fps) << c.media << " " << c.minI << " " << c.maxI;
    // Half a frame a second rounds up; the device list gives every interval the same rate.
    const std::pair<int64_t, int32_t> rates[] = {{-1, 0}, {0, 0}, {333333, 30}, {20000000, 1}, {20000001, 0}};
    for (const auto& r : rates)
        EXPECT_EQ(std::make_pair(RateFromInterval(r.first), kiv::FramesPerSecond(r.first)),
                  std::make_pair(r.second, r.second)) << r.first;
}

TEST(CaptureNegotiation, SourceRestartsOnlyWhenAskedForMore) {
    const struct { const char* name; bool running; MergedRequest actual, wanted; bool satisfied; } cases[] = {
        {"same request", true, {1280, 720, 30, 1}, {1280, 720, 30, 1}, true},
        {"stopped source", false, {1280, 720, 30, 1}, {1280, 720, 30, 1}, false},
        {"larger size asked", true, {1280, 720, 30, 1}, {1920, 1080, 30, 1}, false},
        {"taller only", true, {1920, 720, 30, 1}, {1280, 1080, 30, 1}, false},
        {"smaller asked", true, {1920, 1080, 30, 1}, {640, 480, 15, 1}, true},
        {"faster rate asked", true, {1280, 720, 30, 1}, {1280, 720, 60, 1}, false},
        {"unknown actual rate", true, {1280, 720, 0, 1}, {1280, 720, 60, 1}, true},
        {"MJPG asked of YUY2", true, {1280, 720, 30, 1}, {1280, 720, 30, 5}, true},
        {"YUY2 asked of MJPG", true, {1280, 720, 30, 5}, {1280, 720, 30, 1}, false},
        {"H.264 asked of YUY2", true, {1280, 720, 30, 1}, {1280, 720, 30, 6}, false},
        {"H.264 asked of H.264", true, {1280, 720, 30, 6}, {1280, 720, 30, 6}, true},
        {"RGB32 asked of NV12", true, {1280, 720, 30, 2}, {1280, 720, 30, 4}, true},
    };
    for (const auto& c : cases) EXPECT_EQ(SourceSatisfies(c.running, c.actual, c.wanted), c.satisfied) << c.name;
}

TEST(CaptureRegistry, ActiveSourceRemovedOnlyByItsOwner) {
    std::lock_guard<std::mutex> lock(DeviceLock());
    auto *a = reinterpret_cast<KivVideoInput*>(0x10), *b = reinterpret_cast<KivVideoInput*>(0x20);
    SetActiveSourceLocked(3, a);
    EXPECT_FALSE(RemoveActiveSourceLocked(3, b) || RemoveActiveSourceLocked(4, a));
    EXPECT_EQ(ActiveSourceLocked(3), a);
    EXPECT_TRUE(RemoveActiveSourceLocked(3, a));
    EXPECT_EQ(ActiveSourceLocked(3), nullptr);
}

// One device built at its merged request (or fixedFormat); Feed holds the lock through the hand-over to the
// running graph's sink, as a detached grabber lets its callback finish.
struct FakeCamera {
    int32_t fixedFormat = 0;
    bool bottomUp = false;
    std::mutex mutex;
    SampleSink* sink = nullptr;
    ConnectedFormat connected;
    int builds = 0;
    static inline FakeCamera* current = nullptr;

    FakeCamera() {
        current = this;
        SetCaptureGraphFactory([]() -> std::unique_ptr<CaptureGraph> { return std::make_unique<Graph>(); });
        SetCaptureDeviceCountOverride(1);
    }
    ~FakeCamera() { SetCaptureGraphFactory(nullptr), SetCaptureDeviceCountOverride(-1), current = nullptr; }
    bool Feed(const std::vector<uint8_t>& bytes, long length = -1) {
        std::lock_guard<std::mutex> lock(mutex);
        if (sink) sink->OnCapturedBuffer(bytes.data(), length < 0 ? static_cast<long>(bytes.size()) : length);
        return sink != nullptr;
    }
    struct Graph final : CaptureGraph {
        SampleSink* sink_ = nullptr;
        int32_t Build(int32_t device, const void*, MergedRequest* actual, ConnectedFormat* out, SampleSink* sink) override {
            std::lock_guard<std::mutex> lock(current->mutex);
            ++current->builds, *actual = MergeDeviceRequests(device);
            const int32_t format = current->fixedFormat ? current->fixedFormat : actual->format;
            *out = current->connected = {actual->width, actual->height, format, current->bottomUp};
            return sink_ = sink, 0;
        }
        int32_t Run() override {
            std::lock_guard<std::mutex> lock(current->mutex);
            return current->sink = sink_, 0;
        }
        void DetachCallback(int32_t, const void*) override {
            std::lock_guard<std::mutex> lock(current->mutex);
            if (current->sink == sink_) current->sink = nullptr;
        }
        void StopAndRelease(int32_t, const void*, uint32_t) override {}
    };
};

// A packed frame filled with the index's low byte, the index itself in the first eight bytes.
std::vector<uint8_t> Frame(int32_t format, int32_t width, int32_t height, uint64_t index) {
    IntakeLayout layout;
    CheckCapturedBuffer(format, width, height, 0, &layout);
    std::vector<uint8_t> bytes(static_cast<size_t>(layout.required > 8 ? layout.required : 64), uint8_t(index));
    return std::memcpy(bytes.data(), &index, sizeof index), bytes;
}
std::vector<uint8_t> Yuy2(uint64_t index, int32_t w = 8, int32_t h = 4) { return Frame(KIV_PIXEL_FORMAT_YUY2, w, h, index); }

void Sleep(int ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }
template <class Cond>
bool WaitFor(Cond cond, int ms = 5000) {
    for (auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms); !cond(); Sleep(2))
        if (std::chrono::steady_clock::now() > end) return false;
    return true;
}

struct StopOnExit { void* port; ~StopOnExit() { KIV_Stop(port); } };

class VideoInputTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(KIV_EnableLog(1), KIV_OK); }
    void TearDown() override {
        for (void* p : ports) KIV_DestroyPort(p);
        camera.reset(), KIV_EnableLog(0);
    }
    void* Port(int32_t w, int32_t h, int32_t fmt) {
        void* p = Add(KIV_CreateVideoInput());
        EXPECT_EQ(KIV_SetVideoInputDevice(p, 0), KIV_OK);
        EXPECT_EQ(KIV_SetVideoInputFormat(p, w, h, 30, fmt), KIV_OK);
        return p;
    }
    void* Add(void* port) { return ports.insert(ports.begin(), port), port; }  // later ports go first
    FakeCamera& Camera() {
        camera.reset();  // the old stand-in uninstalls itself first
        return *(camera = std::make_unique<FakeCamera>());
    }
    size_t Lines(const char* text) { return kivtest::CountOf(kivtest::LibraryLog(), text); }
    kivtest::LibraryScope library;
    std::unique_ptr<FakeCamera> camera;
    std::vector<void*> ports;
};

TEST_F(VideoInputTest, BadSettingsAreRefusedAndStartNeedsADeviceWithAGraph) {
    SetCaptureDeviceCountOverride(0);
    void *in = Add(KIV_CreateVideoInput()), *mux = Add(KIV_CreateVideoMux());
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
    // A listed device without a capture graph to open it (no DirectShow).
    SetCaptureDeviceCountOverride(2);
    EXPECT_EQ(KIV_Start(in), KIV_ERROR_FAILED);
    SetCaptureDeviceCountOverride(-1);
    for (const char* line : {"device index=3 deviceCount=0", "cs=2 range=1 buffers=4", "not found index=1"})
        EXPECT_EQ(Lines(line), 1u) << line;
    EXPECT_EQ(Lines("Video dispatch thread enter"), 0u);  // nothing was built
}

TEST_F(VideoInputTest, FramesArriveInOrderWithTheirLayoutAndShortBuffersAreDropped) {
    const struct { int32_t format, w, h; bool bottomUp; int32_t stride, stride1; } cases[] = {
        {KIV_PIXEL_FORMAT_YUY2, 8, 4, false, 16, 0},  {KIV_PIXEL_FORMAT_NV12, 8, 6, false, 8, 8},
        {KIV_PIXEL_FORMAT_RGB24, 6, 3, false, 18, 0}, {KIV_PIXEL_FORMAT_RGB32, 6, 3, true, 24, 0},
        {KIV_PIXEL_FORMAT_RGB24, 6, 3, true, 18, 0},  {KIV_PIXEL_FORMAT_YUY2, 8, 4, true, 16, 0},
        {KIV_PIXEL_FORMAT_MJPG, 8, 4, true, 0, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << "fmt " << c.format << " bottomUp " << c.bottomUp);
        FakeCamera& camera = Camera();
        camera.bottomUp = c.bottomUp, camera.fixedFormat = c.format;
        void* in = Port(c.w, c.h, c.format);
        FrameCatcher catcher(in);
        StopOnExit stop{in};
        ASSERT_EQ(KIV_Start(in), KIV_OK);
        std::vector<std::vector<uint8_t>> fed;
        const size_t row = static_cast<size_t>(c.stride);
        for (uint64_t i = 0; i < 3; ++i) {
            fed.push_back(Frame(c.format, c.w, c.h, i));
            ASSERT_TRUE(!row || camera.Feed(fed[i], c.stride * c.h + c.stride1 * c.h / 2 - 1));  // short: no number
            for (size_t at = 8; row && at < fed[i].size(); ++at) fed[i][at] = static_cast<uint8_t>(at / row + 16 * i);
            ASSERT_TRUE(camera.Feed(fed[i]));
            ASSERT_TRUE(WaitFor([&] { return catcher.Count() == i + 1; }));
        }
        EXPECT_EQ(KIV_Stop(in), KIV_OK);
        // Bottom-up RGB is turned top-down; YUV and compressed buffers never are.
        const bool flips = c.bottomUp && (c.format == KIV_PIXEL_FORMAT_RGB24 || c.format == KIV_PIXEL_FORMAT_RGB32);
        for (size_t i = 0; i < catcher.frames.size(); ++i) {
            const KivVideoFrame& m = catcher.frames[i].meta;
            EXPECT_EQ((I64s{static_cast<int64_t>(m.frameIndex), m.width, m.height, m.format, m.strides[0], m.strides[1]}),
                      (I64s{static_cast<int64_t>(i), c.w, c.h, c.format,
                            c.stride ? c.stride : static_cast<int64_t>(fed[i].size()), c.stride1}));
            const std::vector<uint8_t>& chroma = catcher.frames[i].plane1;  // NV12: after the luma
            EXPECT_TRUE(c.format != KIV_PIXEL_FORMAT_NV12 || (m.planes[1] == m.planes[0] + c.w * c.h &&
                                                              std::equal(fed[i].begin() + c.w * c.h, fed[i].end(), chroma.begin(), chroma.end())));
            const auto size = static_cast<std::ptrdiff_t>(catcher.frames[i].plane0.size());
            std::vector<uint8_t> expected(fed[i].begin(), fed[i].begin() + size);
            for (int32_t r = 0; flips && r < c.h; ++r)
                std::memcpy(expected.data() + r * row, fed[i].data() + (c.h - 1 - r) * row, row);
            EXPECT_EQ(catcher.frames[i].plane0, expected) << "frame " << i;
        }
    }
}

TEST_F(VideoInputTest, SlowConsumerGetsTheNewestFramesFromAShortQueue) {
    FakeCamera& camera = Camera();
    void *in = Port(8, 4, KIV_PIXEL_FORMAT_YUY2), *mux = Add(KIV_CreateVideoMux());
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
        ASSERT_TRUE(i > 0 || WaitFor([&] { return catcher.Count() == 1; }));
        mostWaiting = std::max(mostWaiting, port->QueuedFrames());
    }
    open.store(true);
    ASSERT_TRUE(WaitFor([&] { return catcher.Count() >= 5 && port->QueuedFrames() == 0; }));
    EXPECT_EQ(mostWaiting, 4u);
    ASSERT_EQ(catcher.Count(), 5u);
    const uint64_t expected[] = {0, 8, 9, 10, 11};
    for (size_t i = 0; i < 5; ++i)
        EXPECT_EQ(std::make_pair(catcher.frames[i].meta.frameIndex, uint64_t{catcher.frames[i].plane0[0]}),
                  std::make_pair(expected[i], expected[i]));
    for (const char* line : {"Slow video dispatch chain", "Slow source downstream dispatch", "type=20 elapsed="})
        EXPECT_GE(Lines(line), 1u) << line;
}

// A stop from inside the frame callback cannot join its own thread: rejected. A stop from elsewhere while that
// callback is stuck for five seconds reports it twice, then joins; frames queued meanwhile are discarded.
TEST_F(VideoInputTest, StopFromInsideIsRejectedAndStopWaitsOutABlockedCallback) {
    FakeCamera& camera = Camera();
    static void* in;
    static std::atomic<int> calls, result;
    in = Port(8, 4, KIV_PIXEL_FORMAT_YUY2), calls = 0, result = 1;
    struct Inside {
        static void KIV_CALL OnFrame(const KivVideoFrame*, void*) {
            if (calls.fetch_add(1) > 0) return;
            WaitFor([] { return result.load() == 2; });
            result.store(KIV_Stop(in)), Sleep(5000);
        }
    };
    ASSERT_EQ(KIV_SetVideoFrameCallback(in, &Inside::OnFrame, nullptr), KIV_OK);
    ASSERT_EQ(KIV_Start(in), KIV_OK);
    const size_t completeAtStart = Lines("StopDirectShow complete");
    for (uint64_t i = 0; i <= 3; ++i) ASSERT_TRUE(camera.Feed(Yuy2(i)) && WaitFor([&] { return calls.load() == 1; }));
    result.store(2);
    ASSERT_TRUE(WaitFor([&] { return result.load() != 2; }));
    EXPECT_EQ(std::make_pair(result.load(), Lines("StopDirectShow complete")), std::make_pair(int{KIV_ERROR_FAILED}, completeAtStart));
    EXPECT_EQ(KIV_Stop(in), KIV_OK);
    EXPECT_EQ(std::make_pair(calls.load(), Lines("StopDirectShow complete")), std::make_pair(1, completeAtStart + 1));
    for (const auto& [line, count] : {std::make_pair("dispatch still running", 2), {"stage=0 dispatchTid=", 2}, {"Video dispatch thread exit", 1}})
        EXPECT_EQ(Lines(line), size_t(count)) << line;
}

// Ports sharing a device: asking more restarts the source, asking less does not. A client stopping while its
// source runs detaches and may start again; the source stopping while the client's downstream port is busy closes
// the client's slots only after that delivery, and the client's own stop then finds its slot stale.
TEST_F(VideoInputTest, SharedSourceGrowsAndClientSlotsDetachAndGoStale) {
    FakeCamera& camera = Camera();
    void *first = Port(1280, 720, KIV_PIXEL_FORMAT_YUY2), *second = Port(1920, 1080, KIV_PIXEL_FORMAT_YUY2);
    void *third = Port(640, 480, KIV_PIXEL_FORMAT_MJPG), *secondOut = Add(KIV_CreateVideoMux());
    static FrameCatcher firstFrames, secondFrames;
    static std::atomic<int> finished;
    firstFrames.frames.clear(), secondFrames.frames.clear(), finished = 0;
    struct Busy {
        static void KIV_CALL OnFrame(const KivVideoFrame* frame, void*) {
            FrameCatcher::OnFrame(frame, &secondFrames), Sleep(300), finished++;
        }
    };
    ASSERT_EQ(KIV_SetVideoFrameCallback(first, &FrameCatcher::OnFrame, &firstFrames), KIV_OK);
    ASSERT_EQ(KIV_SetVideoFrameCallback(secondOut, &Busy::OnFrame, nullptr), KIV_OK);
    ASSERT_EQ(KIV_Connect(second, secondOut), KIV_OK);
    StopOnExit stops[] = {{third}, {second}, {first}};
    ASSERT_EQ(KIV_Start(first), KIV_OK);
    EXPECT_EQ(camera.connected.width, 1280);
    ASSERT_EQ(KIV_Start(second), KIV_OK);
    EXPECT_EQ(std::make_pair(camera.builds, camera.connected.width), std::make_pair(2, 1920));
    ASSERT_EQ(KIV_Start(third), KIV_OK);
    ASSERT_EQ(KIV_Stop(second), KIV_OK);
    ASSERT_TRUE(camera.Feed(Yuy2(0, 1920, 1080)));
    ASSERT_TRUE(WaitFor([&] { return firstFrames.Count() == 1; }));
    Sleep(50);
    EXPECT_EQ(std::make_pair(secondFrames.Count(), Lines("Shared client slot unregistered device=0")), std::make_pair(size_t{0}, size_t{1}));
    ASSERT_EQ(KIV_Start(second), KIV_OK);
    ASSERT_TRUE(camera.Feed(Yuy2(1, 1920, 1080)));
    ASSERT_TRUE(WaitFor([&] { return secondFrames.Count() == 1; }));
    EXPECT_EQ(KIV_Stop(first), KIV_OK);
    EXPECT_EQ(finished.load(), 1);
    EXPECT_FALSE(camera.Feed(Yuy2(2, 1920, 1080)));
    EXPECT_EQ(KIV_Stop(second), KIV_OK);
    EXPECT_EQ(std::make_tuple(camera.builds, firstFrames.Count(), secondFrames.Count()), std::make_tuple(2, size_t{2}, size_t{1}));
    for (FrameCatcher* c : {&firstFrames, &secondFrames})
        EXPECT_EQ(std::make_pair(c->frames[0].meta.width, c->frames[0].meta.height), std::make_pair(1920, 1080));
    for (const auto& [line, count] : {std::make_pair("closed stale shared slot", 1), {"capture graph started", 2}})
        EXPECT_EQ(Lines(line), size_t(count)) << line;
}

}  // namespace
