// Start, split and stop over and over while other threads push video and audio, read statistics and swap
// callbacks; under the thread sanitizer it must finish clean, with every file finalised.
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <thread>

#include "ports/kiv_port_base.h"
#include "test_support.h"

namespace {

void KIV_CALL IgnorePacket(const KivEncodedVideoPacket*, void*) {}

TEST(RecorderStress, StartSplitStopWhileFramesFlow) {
    kivtest::LibraryScope library;
    const std::string dir = kivtest::TempDir("recorder_stress");
    void* source = KIV_CreateVideoFrameSource();
    void* rec = KIV_CreateRecorder((dir + "/stress.mp4").c_str());
    ASSERT_EQ(KIV_Connect(source, rec), KIV_OK);
    std::atomic<bool> done{false};
    std::thread video([&] {
        // SPS, PPS and IDR slice, or a delta slice; 2,000 slice bytes, none zero.
        std::vector<uint8_t> key = {0, 0, 0, 1, 0x67, 0x42, 0xC0, 0x1E, 0xDA, 0x02, 0x80, 0xBF, 0xE5, 0x84,
                                    0, 0, 0, 1, 0x68, 0xCE, 0x3C, 0x80, 0, 0, 1, 0x65};
        std::vector<uint8_t> delta = {0, 0, 1, 0x41};
        key.resize(key.size() + 2000, 0x21), delta.resize(2004, 0x43);
        for (int i = 0; !done.load(); ++i) {
            const std::vector<uint8_t>& au = i % 10 == 0 ? key : delta;
            KivVideoFrame f = kivtest::FrameOver(KIV_PIXEL_FORMAT_H264, 320, 240, au.data(), int32_t(au.size()));
            f.timestamp = 10000000 + i * 1000000LL;  // a tenth of a second per frame: time splits come quickly
            EXPECT_EQ(KIV_PushVideoFrame(source, &f), KIV_OK);
            if (i % 4 == 0) std::this_thread::yield();
        }
    });
    std::thread audio([&] {
        std::vector<uint8_t> pcm(960 * 4);  // 20 ms of 48 kHz stereo silence
        const KivAudioFrame frame{pcm.data(), uint32_t(pcm.size()), 48000, 2, 16, 0, 0};
        for (; !done.load(); std::this_thread::sleep_for(std::chrono::microseconds(500)))
            EXPECT_EQ(static_cast<KivPortBase*>(rec)->OnAudioFrame(&frame), KIV_OK);
    });
    std::thread observer([&] {
        for (int i = 0; !done.load(); ++i, std::this_thread::sleep_for(std::chrono::microseconds(300))) {
            KivRecorderStats s{};
            EXPECT_EQ(KIV_GetRecorderStats(rec, &s), KIV_OK);
            EXPECT_LE(s.encodedFrames, s.inputFrames);
            KIV_SetRecorderVideoCallback(rec, i % 2 ? IgnorePacket : nullptr, nullptr);
        }
    });
    for (int round = 0; round < 30; ++round) {
        // 10 frames a second, audio on, split every second or every 20,000 bytes.
        const KivRecorderConfig c{{}, 0, 0, 0, 0, 0, 10, 0, 1, 0, round % 3 ? KIV_RECORD_SPLIT_TIME : KIV_RECORD_SPLIT_SIZE, 20000, 0, 1};
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
