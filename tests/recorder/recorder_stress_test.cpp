// Start, record, split and stop over and over while other threads push
// video and audio frames, read statistics and swap callbacks. Run under
// the thread sanitizer: it must finish clean, with every file finalised.
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <thread>

#include "kivcapture.h"
#include "ports/kiv_port_base.h"
#include "recorder_test_util.h"
#include "test_support.h"

namespace {

std::atomic<int> g_videoPackets{0};

void KIV_CALL CountPacket(const KivEncodedVideoPacket* p, void*) {
    if (p->size > 0) g_videoPackets.fetch_add(1);
}

// A parameter-set prefix and an IDR slice: enough for the writer, which
// does not decode.
std::vector<uint8_t> AccessUnit(bool key, uint8_t fill) {
    std::vector<uint8_t> au = {0, 0, 0, 1, 0x09, 0xF0};
    if (key) {
        const uint8_t sps[] = {0, 0, 0, 1, 0x67, 0x42, 0xC0, 0x1E, 0xDA, 0x02, 0x80, 0xBF, 0xE5, 0x84};
        const uint8_t pps[] = {0, 0, 0, 1, 0x68, 0xCE, 0x3C, 0x80};
        au.insert(au.end(), sps, sps + sizeof(sps));
        au.insert(au.end(), pps, pps + sizeof(pps));
    }
    au.insert(au.end(), {0, 0, 0, 1, static_cast<uint8_t>(key ? 0x65 : 0x41), 0x88});
    au.insert(au.end(), 2000, fill | 1);  // no zero bytes: no stray start codes
    return au;
}

TEST(RecorderStress, StartSplitStopWhileFramesFlow) {
    kivtest::LibraryScope library;
    const std::string dir = kivtest::TempDir("recorder_stress");
    void* source = KIV_CreateVideoFrameSource();
    void* rec = KIV_CreateRecorder((dir + "/stress.mp4").c_str());
    ASSERT_NE(rec, nullptr);
    ASSERT_EQ(KIV_Connect(source, rec), KIV_OK);

    std::atomic<bool> done{false};
    std::thread video([&] {
        const std::vector<uint8_t> key = AccessUnit(true, 0x21), delta = AccessUnit(false, 0x43);
        int64_t t = 10000000;
        for (int i = 0; !done.load(); ++i) {
            const std::vector<uint8_t>& au = i % 10 == 0 ? key : delta;
            KivVideoFrame f{};
            f.format = KIV_PIXEL_FORMAT_H264;
            f.width = 320;
            f.height = 240;
            f.planes[0] = const_cast<uint8_t*>(au.data());
            f.strides[0] = static_cast<int32_t>(au.size());
            f.timestamp = t += 1000000;  // a tenth of a second per frame: time splits come quickly
            EXPECT_EQ(KIV_PushVideoFrame(source, &f), KIV_OK);
            if (i % 4 == 0) std::this_thread::yield();
        }
    });
    std::thread audio([&] {
        rectest::SilentPcm pcm(48000, 2, 960);
        while (!done.load()) {
            EXPECT_EQ(static_cast<KivPortBase*>(rec)->OnAudioFrame(&pcm.frame), KIV_OK);
            std::this_thread::sleep_for(std::chrono::microseconds(500));
        }
    });
    std::thread observer([&] {
        for (int i = 0; !done.load(); ++i) {
            KivRecorderStats s{};
            EXPECT_EQ(KIV_GetRecorderStats(rec, &s), KIV_OK);
            EXPECT_LE(s.encodedFrames, s.inputFrames);
            KIV_SetRecorderVideoCallback(rec, i % 2 ? CountPacket : nullptr, nullptr);
            std::this_thread::sleep_for(std::chrono::microseconds(300));
        }
    });

    for (int round = 0; round < 30; ++round) {
        KivRecorderConfig c = rectest::Config("");
        c.recordFps = 10;
        c.audio = 1;
        c.split = round % 3 == 0 ? KIV_RECORD_SPLIT_SIZE : KIV_RECORD_SPLIT_TIME;
        c.maxBytesLow = 20000;
        c.seconds = 1;
        ASSERT_EQ(KIV_SetRecorderConfig(rec, &c), KIV_OK);
        ASSERT_EQ(KIV_Start(rec), KIV_OK);
        EXPECT_EQ(KIV_SetRecorderConfig(rec, &c), KIV_ERROR_FAILED);
        std::this_thread::sleep_for(std::chrono::milliseconds(round % 5 * 5 + 2));
        ASSERT_EQ(KIV_Stop(rec), KIV_OK);
    }
    done.store(true);
    video.join();
    audio.join();
    observer.join();
    EXPECT_EQ(KIV_Disconnect(source, rec), KIV_OK);
    EXPECT_EQ(KIV_DestroyPort(rec), KIV_OK);
    EXPECT_EQ(KIV_DestroyPort(source), KIV_OK);

    // Every file that was opened was also finalised: its mdat size is set
    // (bytes 36..51 hold the 64-bit mdat header) and a moov follows.
    int files = 0;
    for (const auto& e : std::filesystem::directory_iterator(dir)) {
        const std::string bytes = kivtest::ReadFile(e.path().string());
        ASSERT_GE(bytes.size(), 52u) << e.path();
        ++files;
        EXPECT_NE(bytes.find("moov"), std::string::npos) << e.path();
    }
    // How many files the rounds open depends on the machine's speed (a round
    // opens none until a key frame arrives), so only require some.
    EXPECT_GT(files, 0);
}

}  // namespace
