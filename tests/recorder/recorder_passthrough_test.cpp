// The pass-through path with hand-made access units (no decoder needed, so
// it runs in the Windows build too): the wait for parameter sets, a writer
// that cannot open its file, and the encoded-packet callback.
#include <gtest/gtest.h>

#include <filesystem>

#include "recorder_test_util.h"

using rectest::AccessUnit;
using rectest::Stats;

namespace {

class RecorderPassThrough : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(KIV_EnableLog(1), KIV_OK);
        ASSERT_EQ(KIV_Connect(source_, recorder_), KIV_OK);
    }
    void TearDown() override {
        KIV_EnableLog(0);
        EXPECT_EQ(KIV_Disconnect(source_, recorder_), KIV_OK);
        EXPECT_EQ(KIV_DestroyPort(recorder_), KIV_OK);
        EXPECT_EQ(KIV_DestroyPort(source_), KIV_OK);
    }
    void Start(const std::string& file) {
        KivRecorderConfig c = rectest::Config(file);
        c.width = 320;
        c.height = 240;
        c.recordFps = 25;
        ASSERT_EQ(KIV_SetRecorderConfig(recorder_, &c), KIV_OK);
        ASSERT_EQ(KIV_Start(recorder_), KIV_OK);
        pushed_ = 0;
    }
    void Push(bool key, int times = 1) {
        const std::vector<uint8_t> au = AccessUnit(key);
        for (int i = 0; i < times; ++i) {
            // 640x480: the configured size wins.
            KivVideoFrame f = kivtest::FrameOver(KIV_PIXEL_FORMAT_H264, 640, 480, au.data(), int32_t(au.size()));
            f.timestamp = 20000000 + pushed_ * 400000;
            ASSERT_EQ(KIV_PushVideoFrame(source_, &f), KIV_OK);
            ++pushed_;
            ASSERT_TRUE(rectest::WaitUntil([&] { return Stats(recorder_).inputFrames == pushed_; }));
        }
    }
    size_t Lines(const std::string& text) { return kivtest::CountOf(kivtest::LibraryLog(), text); }

    kivtest::LibraryScope library_;
    void* source_ = KIV_CreateVideoFrameSource();
    void* recorder_ = KIV_CreateRecorder(nullptr);
    int64_t pushed_ = 0;
    const std::string dir_ = kivtest::TempDir("recorder_passthrough");
};

TEST_F(RecorderPassThrough, WaitsForParameterSetsAndLogsEveryThirtiethDrop) {
    Start(dir_ + "/wait.mp4");
    Push(false, 61);
    EXPECT_FALSE(std::filesystem::exists(dir_ + "/wait.mp4")) << "no file before the parameter sets";
    Push(true);
    Push(false);
    ASSERT_EQ(KIV_Stop(recorder_), KIV_OK);
    EXPECT_EQ(Stats(recorder_).droppedFrames, 61);
    EXPECT_EQ(Stats(recorder_).encodedFrames, 2);
    const std::string waiting = "] Raw H264 recorder waiting for SPS/PPS before MP4 writer start dropped=";
    EXPECT_EQ(Lines(waiting), 3u);
    for (const char* n : {"1", "31", "61"}) EXPECT_EQ(Lines(waiting + n + " sampleBytes=9\r\n"), 1u) << n;
    EXPECT_EQ(Lines("] Raw H264 first sample source=AnnexB inputBytes=8 annexBBytes=9 nalCount=1 firstNal=1 key=0 "
                    "sps=0 pps=0\r\n"),
              1u);
    EXPECT_TRUE(std::filesystem::exists(dir_ + "/wait.mp4"));
}

TEST_F(RecorderPassThrough, AWriterThatCannotOpenDisablesThePathUntilTheNextStart) {
    Start(dir_ + "/missing-folder/x.mp4");
    // The first frame fails to open the file; the rest are dropped, with a
    // line on the 1st, 241st, ... drop.
    Push(true, 242);
    EXPECT_EQ(Stats(recorder_).droppedFrames, 242);
    EXPECT_EQ(Stats(recorder_).encodedFrames, 0);
    ASSERT_EQ(KIV_Stop(recorder_), KIV_OK);
    EXPECT_EQ(Lines("] Raw H264 custom MP4 open failed file="), 1u);
    EXPECT_EQ(Lines("] Raw H264 recorder fatal: writer init failed. Stop direct record and inspect "
                    "sequence-header/media-type logs above.\r\n"),
              1u);
    const std::string disabled = "] Raw H264 recorder disabled after fatal writer init failure. dropped=";
    EXPECT_EQ(Lines(disabled), 1u);
    EXPECT_EQ(Lines(disabled + "241 input=241\r\n"), 1u);
    EXPECT_FALSE(std::filesystem::exists(dir_ + "/missing-folder"));

    Start(dir_ + "/good.mp4");
    Push(true);
    ASSERT_EQ(KIV_Stop(recorder_), KIV_OK);
    EXPECT_EQ(Stats(recorder_).encodedFrames, 1);
    EXPECT_TRUE(std::filesystem::exists(dir_ + "/good.mp4"));
}

TEST_F(RecorderPassThrough, EncodedPacketsDescribeEachWrittenFrame) {
    rectest::PacketLog seen;
    ASSERT_EQ(KIV_SetRecorderVideoCallback(recorder_, rectest::PacketLog::OnPacket, &seen), KIV_OK);
    Start(dir_ + "/p.mp4");
    Push(false);  // dropped: no parameter sets yet
    Push(true);
    Push(false, 2);
    ASSERT_EQ(KIV_Stop(recorder_), KIV_OK);
    EXPECT_EQ(Stats(recorder_).videoPackets, 3);
    ASSERT_EQ(seen.packets.size(), 3u);
    for (size_t i = 0; i < 3; ++i) {
        const KivEncodedVideoPacket& p = seen.packets[i];
        // Times start at the first written frame; sizes with 4-byte start codes.
        EXPECT_EQ(std::vector<int64_t>({p.kind, p.frameIndex, p.key, p.pts, p.dts, p.width, p.height, p.size}),
                  std::vector<int64_t>({1, int64_t(i), i == 0, int64_t(i) * 400000, int64_t(i) * 400000, 320, 240,
                                        i == 0 ? 4 + 10 + 4 + 4 + 4 + 5 : 4 + 5}));
    }
    EXPECT_EQ(Lines("] Raw H264 custom MP4 sequence header sps=10 pps=4 profile=66 level=30 chroma=1 "
                    "bitDepth=8/8 parsed=1\r\n"),
              1u);
    EXPECT_EQ(Lines("] Raw H264 custom MP4 finalize segment=0 file="), 1u);
}

}  // namespace
