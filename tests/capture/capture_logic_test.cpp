// The capture path's pure parts as tables: buffer checks of the intake, the
// bounded frame queue, request merge, capability scoring and the restart rule.
#include <gtest/gtest.h>

#include <thread>

#include "../../src/capture/capture_frame_queue.h"
#include "../../src/capture/capture_intake.h"
#include "../../src/capture/capture_negotiation.h"
#include "../../src/capture/capture_registry.h"

using namespace kiv::capture;

namespace {

TEST(CaptureIntake, BufferChecksPerFormat) {
    using V = IntakeVerdict;
    const struct {
        int32_t format, w, h;
        int64_t length;
        IntakeVerdict verdict;
        int64_t stride, required, chroma;
    } cases[] = {
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
        EXPECT_EQ((std::vector<int64_t>{l.stride, l.required, l.chromaOffset}),
                  (std::vector<int64_t>{c.stride, c.required, c.chroma}))
            << c.format;
    }
    const uint8_t in[] = {1, 2, 3, 4, 5, 6}, flipped[] = {5, 6, 3, 4, 1, 2};
    uint8_t out[6] = {};
    CopyRowsFlipped(in, 2, 3, out);
    EXPECT_EQ(0, memcmp(out, flipped, 6));
}

TEST(CaptureFrameQueue, KeepsTheNewestFourAndRecyclesBuffers) {
    FrameQueue q;
    q.Open();
    auto filled = [&q](uint64_t index) {
        QueuedFrame* item = q.Acquire();
        EXPECT_NE(item, nullptr);
        if (item) item->frame.frameIndex = index;
        return item;
    };
    for (uint64_t i = 0; i < 10; ++i) {
        QueuedFrame* item = filled(i);
        ASSERT_NE(item, nullptr);
        item->Reserve(100);
        EXPECT_TRUE(q.Push(item));
        EXPECT_LE(q.Size(), FrameQueue::kDepth);
    }
    EXPECT_EQ(q.OverflowDrops(), 6u);
    for (uint64_t expected = 6; expected < 10; ++expected) {
        QueuedFrame* item = q.Pop();
        ASSERT_NE(item, nullptr);
        EXPECT_EQ(item->frame.frameIndex, expected);
        EXPECT_GE(item->capacity, 100u);  // the buffer came back from the pool
        q.Recycle(item);
    }
    // Closing discards what waits and wakes the consumer with nothing.
    EXPECT_TRUE(q.Push(filled(11)));
    q.Close();
    EXPECT_EQ(q.Size(), 0u);
    EXPECT_EQ(q.Pop(), nullptr);
    EXPECT_FALSE(q.Push(filled(12)));
    // Every item is back in the pool: six can be taken at once.
    std::vector<QueuedFrame*> taken;
    while (QueuedFrame* item = q.Acquire()) taken.push_back(item);
    EXPECT_EQ(taken.size(), FrameQueue::kDepth + 2);
    // A consumer waiting on an open queue is woken by the close.
    q.Open();
    QueuedFrame* got = reinterpret_cast<QueuedFrame*>(1);
    std::thread consumer([&] { got = q.Pop(); });
    q.Close();
    consumer.join();
    EXPECT_EQ(got, nullptr);
}

CaptureCandidate Cap(int32_t w, int32_t h, int32_t fps, int32_t fmt) {
    CaptureCandidate c;
    c.width = w, c.height = h, c.fps = fps, c.format = fmt;
    return c;
}
std::vector<int32_t> Fields(const MergedRequest& m) { return {m.width, m.height, m.fps, m.format}; }

TEST(CaptureNegotiation, MergeTakesLargestAreaFastestRateAndFormatOrder) {
    const struct {
        const char* name;
        std::vector<ClientRequest> requests;
        MergedRequest expected;
    } cases[] = {
        {"no requests: defaults", {}, {1280, 720, 30, 1}},
        {"MJPG 720p and YUY2 1080p", {{nullptr, 1280, 720, 30, 5}, {nullptr, 1920, 1080, 30, 1}}, {1920, 1080, 30, 5}},
        {"equal areas keep the earlier size", {{nullptr, 1600, 900, 30, 1}, {nullptr, 900, 1600, 30, 1}},
         {1600, 900, 30, 1}},
        {"later larger area wins", {{nullptr, 640, 480, 60, 2}, {nullptr, 641, 480, 15, 2}}, {641, 480, 60, 2}},
        {"H.264 beats MJPG", {{nullptr, 640, 480, 30, 5}, {nullptr, 640, 480, 30, 6}}, {640, 480, 30, 6}},
        {"YUY2 beats NV12", {{nullptr, 640, 480, 30, 2}, {nullptr, 640, 480, 30, 1}}, {640, 480, 30, 1}},
        {"RGB24 asks RGB32", {{nullptr, 640, 480, 30, 3}}, {640, 480, 30, 4}},
        {"unknown format falls back to YUY2", {{nullptr, 640, 480, 30, 9}}, {640, 480, 30, 1}},
        {"zero size and rate take defaults", {{nullptr, 0, 0, 0, 2}}, {1280, 720, 30, 2}},
        {"area does not overflow", {{nullptr, 70000, 70000, 1, 1}, {nullptr, 1920, 1080, 1, 1}}, {70000, 70000, 1, 1}},
    };
    for (const auto& c : cases) EXPECT_EQ(Fields(MergeRequests(c.requests)), Fields(c.expected)) << c.name;
}

TEST(CaptureNegotiation, ChoosesTheEntryThatBestServesTheRequest) {
    const struct {
        const char* name;
        MergedRequest request;
        std::vector<CaptureCandidate> offered;
        int winner;
    } cases[] = {
        {"nearest size at or above, preferred format",
         {1920, 1080, 30, 1},
         {Cap(3840, 2160, 30, 1), Cap(1920, 1080, 30, 1), Cap(1920, 1080, 60, 5)},
         1},
        {"below the request the larger wins", {1920, 1080, 30, 1}, {Cap(640, 480, 30, 1), Cap(1280, 720, 30, 1)}, 1},
        {"equal scores keep the lower index", {640, 480, 30, 1}, {Cap(640, 480, 30, 1), Cap(640, 480, 30, 1)}, 0},
        {"unknown subtype never chosen", {640, 480, 30, 1}, {Cap(1920, 1080, 30, 0), Cap(320, 240, 5, 2)}, 1},
        {"nothing usable", {640, 480, 30, 1}, {Cap(0, 480, 30, 1), Cap(640, 480, 30, 7)}, -1},
        {"rate reached beats a closer size", {1280, 720, 30, 1}, {Cap(1280, 720, 15, 1), Cap(1920, 1080, 30, 1)}, 1},
        // Below the request YUY2 at 640x480 (307,200 + 3,000,000) outweighs
        // RGB24 at 1280x720 (921,600 + 900,000).
        {"format weight outweighs area", {1920, 1080, 30, 4}, {Cap(1280, 720, 30, 3), Cap(640, 480, 30, 1)}, 1},
        {"preferred format bonus", {640, 480, 30, 5}, {Cap(640, 480, 30, 1), Cap(640, 480, 30, 5)}, 1},
        {"faster rate breaks a tie", {640, 480, 30, 1}, {Cap(640, 480, 30, 1), Cap(640, 480, 31, 1)}, 1},
        {"RGB32 outweighs RGB24", {640, 480, 30, 1}, {Cap(640, 480, 30, 3), Cap(640, 480, 30, 4)}, 1},
    };
    for (const auto& c : cases) {
        std::vector<CaptureCandidate> list = c.offered;
        EXPECT_EQ(ChooseCandidate(c.request, &list), c.winner) << c.name;
    }
    std::vector<CaptureCandidate> list = {Cap(1920, 1080, 30, 1), Cap(1280, 720, 60, 2), Cap(1920, 1080, 30, 99),
                                          Cap(1920, 1080, 30, 1)};
    ASSERT_EQ(ChooseCandidate({1280, 720, 30, 2}, &list), 1);
    // size reached + rate reached + closeness + preferred + weight + rate
    EXPECT_EQ(list[0].score, 1000000000000LL + 1000000000LL + (500000000LL - (2073600 - 921600)) + 3000000 + 30);
    EXPECT_EQ(list[1].score, 1000000000000LL + 1000000000LL + 500000000LL + 10000000 + 2000000 + 60);
    EXPECT_FALSE(list[2].usable);
    EXPECT_EQ(list[2].score, -1);
    const bool better[] = {true, true, false, false};
    for (size_t i = 0; i < list.size(); ++i) EXPECT_EQ(list[i].better, better[i]) << i;
    CaptureCandidate small = Cap(320, 240, 10, 6);  // below the request the area itself counts
    ScoreCandidate({640, 480, 30, 1}, &small);
    EXPECT_EQ(small.score, 76800 + 1500000 + 10);
}

TEST(CaptureNegotiation, RateFromMediaTypeAndCapabilityRange) {
    const struct {
        int64_t media;
        bool caps;
        int64_t minI, maxI;
        int32_t fps;
    } cases[] = {
        {333333, false, 0, 0, 30},     {0, true, 166666, 0, 60},      {0, true, 0, 666666, 15},
        {333333, true, 166666, 0, 60}, {166666, true, 333333, 0, 60}, {0, false, 166666, 0, 30},
        {0, false, 0, 0, 30},          {400000, false, 0, 0, 25},     {10000001, false, 0, 0, 1},
    };
    for (const auto& c : cases)
        EXPECT_EQ(CandidateRate(c.media, c.caps, c.minI, c.maxI), c.fps) << c.media << " " << c.minI << " " << c.maxI;
    EXPECT_EQ(RateFromInterval(0), 0);
    EXPECT_EQ(RateFromInterval(20000000), 1);  // half a frame a second rounds up
    EXPECT_EQ(RateFromInterval(20000001), 0);
}

TEST(CaptureNegotiation, SourceRestartsOnlyWhenAskedForMore) {
    const struct {
        const char* name;
        bool running;
        MergedRequest actual, wanted;
        bool satisfied;
    } cases[] = {
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

// A device's active source is removed only by the port it names.
TEST(CaptureRegistry, ActiveSourceRemovedOnlyByItsOwner) {
    std::lock_guard<std::mutex> lock(DeviceLock());
    auto* a = reinterpret_cast<KivVideoInput*>(0x10);
    auto* b = reinterpret_cast<KivVideoInput*>(0x20);
    SetActiveSourceLocked(3, a);
    EXPECT_FALSE(RemoveActiveSourceLocked(3, b));
    EXPECT_FALSE(RemoveActiveSourceLocked(4, a));
    EXPECT_EQ(ActiveSourceLocked(3), a);
    EXPECT_TRUE(RemoveActiveSourceLocked(3, a));
    EXPECT_EQ(ActiveSourceLocked(3), nullptr);
}

}  // namespace
