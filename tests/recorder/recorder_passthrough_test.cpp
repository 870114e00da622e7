// The pass-through path with hand-made access units (no decoder needed, so
// it runs in the Windows build too): the wait for parameter sets, a writer
// that cannot open its file, and the encoded-packet callback.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <vector>

#include "recorder_test_util.h"
#include "test_support.h"

using rectest::Stats;

namespace {

std::vector<uint8_t> AccessUnit(bool key) {
    static const uint8_t kParameterSets[] = {0, 0, 0, 1, 0x67, 0x42, 0xC0, 0x1E, 0xDA, 0x02, 0x80, 0xBF, 0xE5, 0x84,  // SPS
                                             0, 0, 0, 1, 0x68, 0xCE, 0x3C, 0x80};                                      // PPS
    const uint8_t slice[] = {0, 0, 1, static_cast<uint8_t>(key ? 0x65 : 0x41), 0x88, 0x84, 0x21, 0x43};
    const size_t prefix = key ? sizeof(kParameterSets) : 0;
    std::vector<uint8_t> au(prefix + sizeof(slice));
    if (key) std::memcpy(au.data(), kParameterSets, prefix);
    std::memcpy(au.data() + prefix, slice, sizeof(slice));
    return au;
}

class RecorderPassThrough : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(KIV_EnableLog(1), KIV_OK);
        source_ = KIV_CreateVideoFrameSource();
        recorder_ = KIV_CreateRecorder(nullptr);
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

    void Push(const std::vector<uint8_t>& au) {
        // 640x480: the configured size wins.
        KivVideoFrame f = kivtest::FrameOver(KIV_PIXEL_FORMAT_H264, 640, 480, au.data(), static_cast<int32_t>(au.size()));
        f.timestamp = 20000000 + pushed_ * 400000;
        ASSERT_EQ(KIV_PushVideoFrame(source_, &f), KIV_OK);
        ++pushed_;
        ASSERT_TRUE(rectest::WaitUntil([&] { return Stats(recorder_).inputFrames == pushed_; }));
    }

    kivtest::LibraryScope library_;
    void* source_ = nullptr;
    void* recorder_ = nullptr;
    int64_t pushed_ = 0;
};

TEST_F(RecorderPassThrough, WaitsForParameterSetsAndLogsEveryThirtiethDrop) {
    const std::string dir = kivtest::TempDir("recorder_passthrough_wait");
    Start(dir + "/wait.mp4");
    for (int i = 0; i < 61; ++i) Push(AccessUnit(false));
    EXPECT_FALSE(std::filesystem::exists(dir + "/wait.mp4")) << "no file before the parameter sets";
    Push(AccessUnit(true));
    Push(AccessUnit(false));
    ASSERT_EQ(KIV_Stop(recorder_), KIV_OK);
    const KivRecorderStats s = Stats(recorder_);
    EXPECT_EQ(s.droppedFrames, 61);
    EXPECT_EQ(s.encodedFrames, 2);
    const std::string log = kivtest::LibraryLog();
    const std::string waiting = "] Raw H264 recorder waiting for SPS/PPS before MP4 writer start dropped=";
    EXPECT_EQ(kivtest::CountOf(log, waiting), 3u);
    EXPECT_EQ(kivtest::CountOf(log, waiting + "1 sampleBytes=9\r\n"), 1u);
    EXPECT_EQ(kivtest::CountOf(log, waiting + "31 sampleBytes=9\r\n"), 1u);
    EXPECT_EQ(kivtest::CountOf(log, waiting + "61 sampleBytes=9\r\n"), 1u);
    EXPECT_EQ(kivtest::CountOf(log, "] Raw H264 first sample source=AnnexB inputBytes=8 annexBBytes=9 nalCount=1 firstNal=1 key=0 "
                         "sps=0 pps=0\r\n"),
              1u);
    EXPECT_TRUE(std::filesystem::exists(dir + "/wait.mp4"));
}

TEST_F(RecorderPassThrough, AWriterThatCannotOpenDisablesThePathUntilTheNextStart) {
    const std::string dir = kivtest::TempDir("recorder_passthrough_fatal");
    Start(dir + "/missing-folder/x.mp4");
    // The first frame fails to open the file; the rest are dropped, with a
    // line on the 1st, 241st, ... drop.
    for (int i = 0; i < 242; ++i) Push(AccessUnit(true));
    EXPECT_EQ(Stats(recorder_).droppedFrames, 242);
    EXPECT_EQ(Stats(recorder_).encodedFrames, 0);
    ASSERT_EQ(KIV_Stop(recorder_), KIV_OK);
    const std::string log = kivtest::LibraryLog();
    EXPECT_EQ(kivtest::CountOf(log, "] Raw H264 custom MP4 open failed file="), 1u);
    EXPECT_EQ(kivtest::CountOf(log, "] Raw H264 recorder fatal: writer init failed. Stop direct record and inspect "
                         "sequence-header/media-type logs above.\r\n"),
              1u);
    const std::string disabled = "] Raw H264 recorder disabled after fatal writer init failure. dropped=";
    EXPECT_EQ(kivtest::CountOf(log, disabled), 1u);
    EXPECT_EQ(kivtest::CountOf(log, disabled + "241 input=241\r\n"), 1u);
    EXPECT_FALSE(std::filesystem::exists(dir + "/missing-folder"));

    Start(dir + "/good.mp4");
    Push(AccessUnit(true));
    ASSERT_EQ(KIV_Stop(recorder_), KIV_OK);
    EXPECT_EQ(Stats(recorder_).encodedFrames, 1);
    EXPECT_TRUE(std::filesystem::exists(dir + "/good.mp4"));
}

TEST_F(RecorderPassThrough, EncodedPacketsDescribeEachWrittenFrame) {
    const std::string dir = kivtest::TempDir("recorder_passthrough_packets");
    rectest::PacketLog seen;
    ASSERT_EQ(KIV_SetRecorderVideoCallback(recorder_, rectest::PacketLog::OnPacket, &seen), KIV_OK);
    Start(dir + "/p.mp4");
    Push(AccessUnit(false));  // dropped: no parameter sets yet
    Push(AccessUnit(true));
    Push(AccessUnit(false));
    Push(AccessUnit(false));
    ASSERT_EQ(KIV_Stop(recorder_), KIV_OK);
    EXPECT_EQ(Stats(recorder_).videoPackets, 3);
    ASSERT_EQ(seen.packets.size(), 3u);
    for (size_t i = 0; i < 3; ++i) {
        const KivEncodedVideoPacket& p = seen.packets[i];
        EXPECT_EQ(p.kind, 1);
        EXPECT_EQ(p.frameIndex, static_cast<int64_t>(i));
        EXPECT_EQ(p.key, i == 0 ? 1 : 0);
        EXPECT_EQ(p.pts, static_cast<int64_t>(i) * 400000) << "times start at the first written frame";
        EXPECT_EQ(p.dts, p.pts);
        EXPECT_EQ(p.width, 320);
        EXPECT_EQ(p.height, 240);
        EXPECT_EQ(p.size, i == 0 ? 4 + 10 + 4 + 4 + 4 + 5 : 4 + 5);  // normalised to 4-byte start codes
    }
    const std::string log = kivtest::LibraryLog();
    EXPECT_EQ(kivtest::CountOf(log, "] Raw H264 custom MP4 sequence header sps=10 pps=4 profile=66 level=30 chroma=1 "
                         "bitDepth=8/8 parsed=1\r\n"),
              1u);
    EXPECT_EQ(kivtest::CountOf(log, "] Raw H264 custom MP4 finalize segment=0 file="), 1u);
}

}  // namespace
