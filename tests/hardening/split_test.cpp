// Whatever the split limits, every segment the recorder closes is a whole
// MP4 file: ffprobe opens it (native build) and it holds its index.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

#include "hardening_util.h"
#include "stream_test_util.h"
#include "test_support.h"

namespace fs = std::filesystem;

namespace {

struct SplitCase {
    const char* what;
    int32_t split;
    uint32_t maxBytes;
    int32_t seconds;
    int32_t audio;
    int frames;
    int files;  // 0: more than one, number not fixed
};

const SplitCase kCases[] = {
    {"1-byte size limit", KIV_RECORD_SPLIT_SIZE, 1, 0, 0, 4, 4},
    {"1-byte size limit, audio reckoned", KIV_RECORD_SPLIT_SIZE, 1, 0, 1, 3, 3},
    {"2000-byte size limit", KIV_RECORD_SPLIT_SIZE, 2000, 0, 0, 8, 0},
    {"1-second time limit", KIV_RECORD_SPLIT_TIME, 0, 1, 0, 45, 2},
};

TEST(Split, EverySegmentIsACompleteFile) {
    kivtest::LibraryScope library;
    const bool probe = streamtest::HaveFfmpegTools();
    for (const SplitCase& c : kCases) {
        const std::string dir = kivtest::TempDir("hardening_split");
        void* source = KIV_CreateVideoFrameSource();
        void* recorder = KIV_CreateRecorder((dir + "/seg.mp4").c_str());
        KivRecorderConfig config{};
        const auto path = kivtest::Wide(dir + "/seg.mp4");
        std::copy(path.begin(), path.end(), config.filePath);
        config.audio = c.audio;
        config.split = c.split;
        config.maxBytesLow = c.maxBytes;
        config.seconds = c.seconds;
        ASSERT_EQ(KIV_SetRecorderConfig(recorder, &config), KIV_OK);
        ASSERT_EQ(KIV_Connect(source, recorder), KIV_OK);
        ASSERT_EQ(KIV_Start(recorder), KIV_OK);
        for (int i = 0; i < c.frames; ++i) {
            const std::vector<uint8_t> unit = hardening::IdrAccessUnit(i, i == 0, static_cast<uint8_t>(40 + i * 4));
            KivVideoFrame f =
                kivtest::FrameOver(KIV_PIXEL_FORMAT_H264, 16, 16, unit.data(), static_cast<int32_t>(unit.size()));
            f.timestamp = 1000 + int64_t{i} * 333333;
            ASSERT_EQ(KIV_PushVideoFrame(source, &f), KIV_OK);
            hardening::WaitForInput(recorder, i + 1);  // one at a time: the queue never drops
        }
        ASSERT_EQ(KIV_Stop(recorder), KIV_OK);
        KivRecorderStats stats{};
        KIV_GetRecorderStats(recorder, &stats);
        EXPECT_EQ(stats.encodedFrames, c.frames) << c.what;
        KIV_Disconnect(source, recorder);
        EXPECT_EQ(KIV_DestroyPort(recorder), KIV_OK);
        EXPECT_EQ(KIV_DestroyPort(source), KIV_OK);

        std::vector<std::string> files;
        for (const auto& e : fs::directory_iterator(dir)) files.push_back(e.path().string());
        if (c.files > 0) {
            EXPECT_EQ(files.size(), static_cast<size_t>(c.files)) << c.what;
        } else {
            EXPECT_GT(files.size(), 1u) << c.what;
        }
        int64_t framesInFiles = 0;
        for (const std::string& file : files) {
            const streamtest::Bytes bytes = streamtest::ReadAll(file);
            streamtest::Box stsz{};
            ASSERT_TRUE(streamtest::FindBox(bytes, "moov/trak/mdia/minf/stbl/stsz", &stsz)) << c.what << ": " << file;
            framesInFiles += streamtest::U32(bytes, stsz.payload + 8);  // after version/flags and sample_size
            if (!probe) continue;
            const auto info = streamtest::Probe("-select_streams v -show_entries stream=codec_name,width,nb_frames '" +
                                                file + "'");
            EXPECT_EQ(info.count("codec_name") ? info.at("codec_name") : "", "h264") << c.what << ": " << file;
            EXPECT_EQ(info.count("width") ? info.at("width") : "", "16") << c.what << ": " << file;
        }
        EXPECT_EQ(framesInFiles, c.frames) << c.what;
        if (!HasFailure()) fs::remove_all(dir);
    }
}

}  // namespace
