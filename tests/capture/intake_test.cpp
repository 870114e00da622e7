// Buffer checks of the sample intake and the bounded frame queue.
#include <gtest/gtest.h>

#include <thread>

#include "../../src/capture/capture_frame_queue.h"
#include "../../src/capture/capture_intake.h"

using namespace kiv::capture;

namespace {

TEST(CaptureIntake, BufferChecksPerFormat) {
    struct Case {
        int32_t format, w, h;
        int64_t length;
        IntakeVerdict verdict;
        int32_t stride;
        int64_t required, chroma;
    } const cases[] = {
        {1, 4, 3, 24, IntakeVerdict::kAccept, 8, 24, 0},
        {1, 4, 3, 23, IntakeVerdict::kShort, 8, 24, 0},
        {1, 4, 3, 100, IntakeVerdict::kAccept, 8, 24, 0},
        {2, 4, 3, 4 * (3 + 2), IntakeVerdict::kAccept, 4, 20, 12},
        {2, 4, 3, 19, IntakeVerdict::kShort, 4, 20, 12},
        {2, 6, 4, 36, IntakeVerdict::kAccept, 6, 36, 24},
        {3, 5, 2, 30, IntakeVerdict::kAccept, 15, 30, 0},
        {3, 5, 2, 29, IntakeVerdict::kShort, 15, 30, 0},
        {4, 5, 2, 40, IntakeVerdict::kAccept, 20, 40, 0},
        {5, 640, 480, 1, IntakeVerdict::kAccept, 1, 1, 0},
        {6, 640, 480, 777, IntakeVerdict::kAccept, 777, 777, 0},
        {0, 4, 4, 64, IntakeVerdict::kUnsupported, 0, 0, 0},
        {7, 4, 4, 64, IntakeVerdict::kUnsupported, 0, 0, 0},
    };
    for (const Case& c : cases) {
        IntakeLayout layout;
        EXPECT_EQ(CheckCapturedBuffer(c.format, c.w, c.h, c.length, &layout), c.verdict)
            << c.format << " " << c.length;
        if (c.verdict == IntakeVerdict::kUnsupported) continue;
        EXPECT_EQ(layout.stride, c.stride) << c.format;
        EXPECT_EQ(layout.required, c.required) << c.format;
        EXPECT_EQ(layout.chromaOffset, c.chroma) << c.format;
    }
}

TEST(CaptureIntake, FlipReversesRows) {
    const uint8_t in[] = {1, 2, 3, 4, 5, 6};
    uint8_t out[6] = {};
    CopyRowsFlipped(in, 2, 3, out);
    const uint8_t expected[] = {5, 6, 3, 4, 1, 2};
    EXPECT_EQ(0, memcmp(out, expected, 6));
}

QueuedFrame* Filled(FrameQueue& q, uint64_t index) {
    QueuedFrame* item = q.Acquire();
    EXPECT_NE(item, nullptr);
    if (item) item->frame.frameIndex = index;
    return item;
}

TEST(CaptureFrameQueue, KeepsTheNewestFourAndRecyclesBuffers) {
    FrameQueue q;
    q.Open();
    for (uint64_t i = 0; i < 10; ++i) {
        QueuedFrame* item = Filled(q, i);
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
    EXPECT_TRUE(q.Push(Filled(q, 11)));
    q.Close();
    EXPECT_EQ(q.Size(), 0u);
    EXPECT_EQ(q.Pop(), nullptr);
    EXPECT_FALSE(q.Push(Filled(q, 12)));
    // Every item is back in the pool: six can be taken at once.
    std::vector<QueuedFrame*> taken;
    while (QueuedFrame* item = q.Acquire()) taken.push_back(item);
    EXPECT_EQ(taken.size(), FrameQueue::kDepth + 2);
}

TEST(CaptureFrameQueue, CloseWakesAWaitingConsumer) {
    FrameQueue q;
    q.Open();
    QueuedFrame* got = reinterpret_cast<QueuedFrame*>(1);
    std::thread consumer([&] { got = q.Pop(); });
    q.Close();
    consumer.join();
    EXPECT_EQ(got, nullptr);
}

}  // namespace
