// The recorder's exported functions as an application calls them: bad
// input, configuration while running, statistics, the creation text, the
// log lines and the encode path when the platform has no encoder.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>

#include "record/kiv_recorder.h"
#include "recorder_test_util.h"
#include "test_support.h"

using rectest::Stats;

namespace {

void KIV_CALL IgnoreVideo(const KivEncodedVideoPacket*, void*) {}
void KIV_CALL IgnoreAudio(const KivEncodedAudioPacket*, void*) {}

class RecorderApi : public ::testing::Test {
protected:
    kivtest::LibraryScope library_;
};

TEST_F(RecorderApi, BadHandlesAndRecordsAreRefusedAndChangeNothing) {
    void* rec = KIV_CreateRecorder("first.mp4");
    void* mux = KIV_CreateVideoMux();
    ASSERT_NE(rec, nullptr);
    KivRecorderConfig c = rectest::Config("other.mp4");
    c.width = 320;
    KivRecorderStats s{};
    for (void* bad : {static_cast<void*>(nullptr), mux}) {
        EXPECT_EQ(KIV_SetRecorderConfig(bad, &c), KIV_ERROR_INVALID_ARG);
        EXPECT_EQ(KIV_GetRecorderStats(bad, &s), KIV_ERROR_INVALID_ARG);
        EXPECT_EQ(KIV_SetRecorderVideoCallback(bad, IgnoreVideo, nullptr), KIV_ERROR_INVALID_ARG);
        EXPECT_EQ(KIV_SetRecorderAudioCallback(bad, IgnoreAudio, nullptr), KIV_ERROR_INVALID_ARG);
    }
    EXPECT_EQ(KIV_SetRecorderConfig(rec, nullptr), KIV_ERROR_INVALID_ARG);
    EXPECT_EQ(KIV_GetRecorderStats(rec, nullptr), KIV_ERROR_INVALID_ARG);
    EXPECT_EQ(Stats(rec).width, 0) << "no refused call stored anything";
    EXPECT_EQ(Stats(rec).fps, 30);
    EXPECT_EQ(KIV_SetRecorderVideoCallback(rec, nullptr, nullptr), KIV_OK);
    EXPECT_EQ(KIV_SetRecorderAudioCallback(rec, nullptr, nullptr), KIV_OK);
    EXPECT_EQ(static_cast<KivPortBase*>(rec)->OnVideoFrame(nullptr), KIV_ERROR_INVALID_ARG);
    EXPECT_EQ(static_cast<KivPortBase*>(rec)->OnAudioFrame(nullptr), KIV_ERROR_INVALID_ARG);
    EXPECT_EQ(KIV_DestroyPort(rec), KIV_OK);
    EXPECT_EQ(KIV_DestroyPort(mux), KIV_OK);
}

TEST_F(RecorderApi, StatsFillTheRecordAndConfigIsRefusedWhileRunning) {
    void* rec = KIV_CreateRecorder("/tmp/kivtest_recorder_api/a.mp4");
    KivRecorderConfig c = rectest::Config("");
    c.width = 640;
    c.height = 360;
    c.inputFps = 25;
    ASSERT_EQ(KIV_SetRecorderConfig(rec, &c), KIV_OK);
    KivRecorderStats s;
    std::memset(&s, 0xAB, sizeof(s));
    ASSERT_EQ(KIV_GetRecorderStats(rec, &s), KIV_OK);  // every field written, counters zero
    EXPECT_EQ((std::vector<int64_t>{s.inputFrames, s.audioPackets, s.fps, s.width, s.height, s.reserved}),
              (std::vector<int64_t>{0, 0, 25, 640, 360, 0}));

    ASSERT_EQ(KIV_Start(rec), KIV_OK);
    c.width = 1280;
    c.recordFps = 50;
    EXPECT_EQ(KIV_SetRecorderConfig(rec, &c), KIV_ERROR_FAILED);
    EXPECT_EQ(Stats(rec).width, 640);
    EXPECT_EQ(Stats(rec).fps, 25);
    ASSERT_EQ(KIV_Stop(rec), KIV_OK);
    EXPECT_EQ(KIV_SetRecorderConfig(rec, &c), KIV_OK);
    EXPECT_EQ(Stats(rec).fps, 50);
    EXPECT_EQ(KIV_DestroyPort(rec), KIV_OK);
}

TEST_F(RecorderApi, StartNeedsAPathAndCreationTextIsWidened) {
    void* none = KIV_CreateRecorder(nullptr);
    EXPECT_EQ(KIV_Start(none), KIV_ERROR_INVALID_ARG);
    EXPECT_EQ(KIV_Stop(none), KIV_OK);
    const KivRecorderConfig c = rectest::Config("/tmp/kivtest_recorder_api/b.mp4");
    ASSERT_EQ(KIV_SetRecorderConfig(none, &c), KIV_OK);
    EXPECT_EQ(KIV_Start(none), KIV_OK);
    EXPECT_EQ(KIV_DestroyPort(none), KIV_OK) << "destroying a running recorder stops it";

#if !defined(_WIN32)
    void* rec = KIV_CreateRecorder("caf\xC3\xA9-\xF0\x9F\x8E\xA5.mp4");  // UTF-8 is the system code page here
    const kiv::RecorderPath path = static_cast<KivRecorder*>(static_cast<KivPortBase*>(rec))->Settings().path;
    const kiv::RecorderPath expected = {'c', 'a', 'f', 0xE9, '-', 0xD83C, 0xDFA5, '.', 'm', 'p', '4'};
    EXPECT_EQ(path, expected);
    EXPECT_EQ(KIV_DestroyPort(rec), KIV_OK);
#endif
}

TEST_F(RecorderApi, LogLinesOfConfigurationStartAndCallbacks) {
    ASSERT_EQ(KIV_EnableLog(1), KIV_OK);
    void* rec = KIV_CreateRecorder("/tmp/kivtest_recorder_api/c.mp4");
    KivRecorderConfig c = rectest::Config("");
    c.width = 640;
    c.height = 360;
    c.inputFps = 25;
    c.bitrate = 0;
    c.split = KIV_RECORD_SPLIT_SIZE;
    ASSERT_EQ(KIV_SetRecorderConfig(rec, &c), KIV_OK);
    ASSERT_EQ(KIV_SetRecorderVideoCallback(rec, IgnoreVideo, nullptr), KIV_OK);
    ASSERT_EQ(KIV_SetRecorderAudioCallback(rec, nullptr, nullptr), KIV_OK);
    ASSERT_EQ(KIV_Start(rec), KIV_OK);
    ASSERT_EQ(KIV_Stop(rec), KIV_OK);
    const std::string log = kivtest::LibraryLog();
    KIV_EnableLog(0);
    EXPECT_NE(log.find("[kiv_recorder.cpp:"), std::string::npos);
    EXPECT_NE(log.find("] Recorder config file=/tmp/kivtest_recorder_api/c.mp4 size=640x360 inputFps=25 recordFps=0 "
                       "mode=follow-input targetFps=25 bitrate=8000000 audio=0 inputMode=0 split=1 "
                       "maxBytes=1073741824 seconds=0\r\n"),
              std::string::npos)
        << log;
    EXPECT_NE(log.find("] Recorder encoded video callback enabled\r\n"), std::string::npos);
    EXPECT_NE(log.find("] Recorder encoded audio callback disabled\r\n"), std::string::npos);
    EXPECT_NE(log.find("] Recorder start file=/tmp/kivtest_recorder_api/c.mp4 targetFps=25 asyncQueue=8\r\n"),
              std::string::npos);
    EXPECT_NE(log.find("] Recorder stop asyncDropped=0\r\n"), std::string::npos);
    EXPECT_EQ(KIV_DestroyPort(rec), KIV_OK);
}

// The native build has no platform encoder: uncompressed frames are taken,
// counted, and refused by the writer without leaving a file behind.
TEST_F(RecorderApi, EncodePathWithoutAPlatformEncoderFailsCleanly) {
    const std::string dir = kivtest::TempDir("recorder_noencoder");
    const std::string file = dir + "/clip.mp4";
    ASSERT_EQ(KIV_EnableLog(1), KIV_OK);
    void* source = KIV_CreateVideoFrameSource();
    void* rec = KIV_CreateRecorder(file.c_str());
    ASSERT_EQ(KIV_Connect(source, rec), KIV_OK);
    ASSERT_EQ(KIV_Start(rec), KIV_OK);
    kivtest::OwnedFrame frame(KIV_PIXEL_FORMAT_RGB32, 32, 16, 200);
    for (int i = 0; i < 3; ++i) {
        frame.frame.timestamp = 1000000 + i * 333333;
        ASSERT_EQ(KIV_PushVideoFrame(source, &frame.frame), KIV_OK);
        ASSERT_TRUE(rectest::WaitUntil([&] { return Stats(rec).inputFrames == i + 1; }));
    }
    EXPECT_EQ(Stats(rec).encodedFrames, 0);
    EXPECT_EQ(KIV_Stop(rec), KIV_OK);
    const std::string log = kivtest::LibraryLog();
    KIV_EnableLog(0);
#if defined(_WIN32)
    // Systems without the sink writer refuse at its creation.
    const std::string failure = "] MFCreateSinkWriterFromURL failed hr=0x";
#else
    const std::string failure = "] MFCreateSinkWriterFromURL failed hr=0x80004001 file=" + file + "\r\n";
#endif
    const size_t count = kivtest::CountOf(log, failure);
    if (count > 0) {
        EXPECT_EQ(count, 3u) << "every frame tries to open the file again";
        EXPECT_FALSE(std::filesystem::exists(file));
    } else {
        // A system that has the sink writer records the three frames.
        EXPECT_NE(log.find("] Recorder writer ready file="), std::string::npos) << log;
    }
    EXPECT_EQ(KIV_Disconnect(source, rec), KIV_OK);
    EXPECT_EQ(KIV_DestroyPort(rec), KIV_OK);
    EXPECT_EQ(KIV_DestroyPort(source), KIV_OK);
}

}  // namespace
