// Start, split and stop over and over while other threads push video and
// audio, read statistics and swap callbacks; under the thread sanitizer it
// must finish clean, with every file finalised.
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>

#include "ports/kiv_port_base.h"
#include "recorder_test_util.h"

namespace {

void KIV_CALL CountPacket(const KivEncodedVideoPacket* p, void* count) {
    if (p->size > 0) static_cast<std::atomic<int>*>(count)->fetch_add(1);
}

TEST(RecorderStress, StartSplitStopWhileFramesFlow) {
    kivtest::LibraryScope library;
    const std::string dir = kivtest::TempDir("recorder_stress");
    void* source = KIV_CreateVideoFrameSource();
    void* rec = KIV_CreateRecorder((dir + "/stress.mp4").c_str());
    ASSERT_EQ(KIV_Connect(source, rec), KIV_OK);
    std::atomic<bool> done{false};
    std::atomic<int> packets{0};
    std::thread video([&] {
        const std::vector<uint8_t> key = rectest::AccessUnit(true, 2000), delta = rectest::AccessUnit(false, 2000, 0x43);
        for (int i = 0; !done.load(); ++i) {
            const std::vector<uint8_t>& au = i % 10 == 0 ? key : delta;
            KivVideoFrame f = kivtest::FrameOver(KIV_PIXEL_FORMAT_H264, 320, 240, au.data(), int32_t(au.size()));
            f.timestamp = 10000000 + i * 1000000LL;  // a tenth of a second per frame: time splits come quickly
            EXPECT_EQ(KIV_PushVideoFrame(source, &f), KIV_OK);
            if (i % 4 == 0) std::this_thread::yield();
        }
    });
    std::thread audio([&] {
        rectest::SilentPcm pcm(48000, 2, 960);
        for (; !done.load(); std::this_thread::sleep_for(std::chrono::microseconds(500)))
            EXPECT_EQ(static_cast<KivPortBase*>(rec)->OnAudioFrame(&pcm.frame), KIV_OK);
    });
    std::thread observer([&] {
        for (int i = 0; !done.load(); ++i, std::this_thread::sleep_for(std::chrono::microseconds(300))) {
            const KivRecorderStats s = rectest::Stats(rec);
            EXPECT_LE(s.encodedFrames, s.inputFrames);
            KIV_SetRecorderVideoCallback(rec, i % 2 ? CountPacket : nullptr, &packets);
        }
    });
    for (int round = 0; round < 30; ++round) {
        const KivRecorderConfig c = rectest::Config("", 0, 0, 10, round % 3 ? KIV_RECORD_SPLIT_TIME : KIV_RECORD_SPLIT_SIZE, 20000, 1, 1);
        ASSERT_EQ(KIV_SetRecorderConfig(rec, &c), KIV_OK);
        ASSERT_EQ(KIV_Start(rec), KIV_OK);
        EXPECT_EQ(KIV_SetRecorderConfig(rec, &c), KIV_ERROR_FAILED);
        std::this_thread::sleep_for(std::chrono::milliseconds(round % 5 * 5 + 2));
        ASSERT_EQ(KIV_Stop(rec), KIV_OK);
    }
    done.store(true);
    for (std::thread* t : {&video, &audio, &observer}) t->join();
    EXPECT_EQ(KIV_Disconnect(source, rec) + KIV_DestroyPort(rec) + KIV_DestroyPort(source), KIV_OK);
    // Every file opened was finalised (a moov follows the mdat); how many the
    // rounds open depends on the machine's speed.
    int files = 0;
    for (const auto& e : std::filesystem::directory_iterator(dir)) {
        ++files;
        EXPECT_NE(kivtest::ReadFile(e.path().string()).find("moov"), std::string::npos) << e.path();
    }
    EXPECT_GT(files, 0);
}

}  // namespace
