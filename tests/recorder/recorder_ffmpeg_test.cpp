// H.264 streams made by ffmpeg, pushed access unit by access unit through a
// frame source into a recorder; ffprobe and ffmpeg check frame counts, rates,
// durations and decoded pictures of the files.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <map>

#include "ports/kiv_port_base.h"
#include "recorder_test_util.h"
#include "stream_test_util.h"

namespace fs = std::filesystem;
using rectest::Stats;
using namespace streamtest;

namespace {

constexpr int kFrames = 75;

std::map<std::string, std::string> ProbeVideo(const std::string& file) {
    return Probe("-select_streams v:0 -count_frames -count_packets -show_entries "
                 "stream=codec_name,avg_frame_rate,nb_read_frames,nb_read_packets:format=duration,nb_streams '" + file + "'");
}

struct Stream {
    std::vector<Bytes> units;         // access units in Annex B form
    std::vector<std::string> hashes;  // of the decoded pictures
};

class RecorderFfmpeg : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        if (!HaveFfmpegTools()) return;
        const std::string dir = kivtest::TempDir("recorder_ffmpeg_streams");
        // Noise keeps every NAL unit long, so no 4-byte length looks like a
        // start code (lengths 256..511 begin 00 00 01).
        for (const auto& k : std::map<std::string, std::string>{{"baseline", "-profile:v baseline"},
                                                                {"high_bframes", "-profile:v high -bf 3"}}) {
            const std::string path = dir + "/" + k.first + ".h264";
            if (streamtest::Run("ffmpeg -v error -y -f lavfi -i 'testsrc=size=320x240:rate=25,noise=alls=40:allf=t' -frames:v " +
                    std::to_string(kFrames) + " -pix_fmt yuv420p -c:v libx264 -preset veryfast -threads 1 " + k.second +
                    " -crf 20 -g 25 -x264-params scenecut=0 -bsf:v h264_metadata=aud=insert -f h264 '" + path + "'") == 0)
                streams_[k.first] = Stream{SplitAccessUnits(ReadAll(path)), DecodedFrameHashes(path)};
        }
    }
    void SetUp() override {
#if defined(_WIN32)
        GTEST_SKIP() << "the ffmpeg tools run in the native build";
#endif
        if (!HaveFfmpegTools()) GTEST_SKIP() << "ffmpeg/ffprobe not found";
    }
    const Stream& Get(const std::string& name) {
        EXPECT_EQ(streams_.count(name), 1u) << "ffmpeg could not make " << name;
        EXPECT_EQ(streams_[name].hashes.size(), size_t(kFrames));
        return streams_[name];
    }

    // At 25 frames a second through a frame source, waiting for the worker
    // after each push so that the bounded queue never drops a frame; `audio`,
    // when given, follows every video frame.
    KivRecorderStats Record(const std::vector<Bytes>& units, const std::string& file, int32_t split = 0,
                            rectest::PacketLog* packets = nullptr, bool lengthPrefixed = false,
                            const KivAudioFrame* audio = nullptr) {
        void* source = KIV_CreateVideoFrameSource();
        void* rec = KIV_CreateRecorder(file.c_str());
        KivRecorderConfig c = rectest::Config("");
        c.recordFps = 25;
        c.split = split;
        c.maxBytesLow = 300000;
        c.seconds = 1;
        c.audio = audio != nullptr;
        EXPECT_EQ(KIV_SetRecorderConfig(rec, &c), KIV_OK);
        if (packets) packets->recorder = rec;
        EXPECT_EQ(packets ? KIV_SetRecorderVideoCallback(rec, rectest::PacketLog::OnPacket, packets) : KIV_OK, KIV_OK);
        EXPECT_EQ(KIV_Connect(source, rec) + KIV_Start(rec), KIV_OK);
        for (size_t i = 0; i < units.size(); ++i) {
            Bytes bytes = lengthPrefixed ? LengthPrefixed(NalUnits(units[i])) : units[i];
            KivVideoFrame f = kivtest::FrameOver(KIV_PIXEL_FORMAT_H264, 320, 240, bytes.data(), int32_t(bytes.size()));
            f.timestamp = 10000000 + int64_t(i) * 400000;
            EXPECT_EQ(KIV_PushVideoFrame(source, &f), KIV_OK);
            if (!rectest::WaitUntil([&] { return Stats(rec).inputFrames == int64_t(i) + 1; })) {
                ADD_FAILURE() << "frame " << i << " not taken";
                break;
            }
            EXPECT_EQ(audio ? static_cast<KivPortBase*>(rec)->OnAudioFrame(audio) : KIV_OK, KIV_OK);
        }
        EXPECT_EQ(KIV_Stop(rec), KIV_OK);
        const KivRecorderStats stats = Stats(rec);
        EXPECT_EQ(KIV_Disconnect(source, rec) + KIV_DestroyPort(rec) + KIV_DestroyPort(source), KIV_OK);
        return stats;
    }

    kivtest::LibraryScope library_;
    static std::map<std::string, Stream> streams_;
};

std::map<std::string, Stream> RecorderFfmpeg::streams_;

// Baseline in Annex B form with audio, which this build cannot encode (the
// file keeps its video track only); High with B-frames, length-prefixed.
TEST_F(RecorderFfmpeg, EveryProfileAndFramingRecordsTheSamePictures) {
    rectest::SilentPcm pcm(48000, 2, 1920);  // 40 ms
    ASSERT_EQ(KIV_EnableLog(1), KIV_OK);
    for (const char* name : {"baseline", "high_bframes"}) {
        SCOPED_TRACE(name);
        const Stream& s = Get(name);
        const bool high = name[0] == 'h';
        const std::string out = kivtest::TempDir("recorder_ffmpeg_" + std::string(name)) + "/out.mp4";
        rectest::PacketLog packets;
        const KivRecorderStats stats = Record(s.units, out, 0, &packets, high, high ? nullptr : &pcm.frame);
        EXPECT_EQ(std::vector<int64_t>({stats.inputFrames, stats.encodedFrames, stats.droppedFrames, stats.videoPackets, stats.audioPackets}),
                  std::vector<int64_t>({kFrames, kFrames, 0, kFrames, 0}));
        auto p = ProbeVideo(out);
        EXPECT_EQ(std::vector<std::string>({p["codec_name"], p["nb_read_frames"], p["avg_frame_rate"], p["nb_streams"]}),
                  std::vector<std::string>({"h264", std::to_string(kFrames), "25/1", "1"}));
        EXPECT_NEAR(std::atof(p["duration"].c_str()), kFrames / 25.0, 0.001);
        EXPECT_EQ(DecodedFrameHashes(out), s.hashes);
        // The packet callback saw every frame, could read the statistics, and
        // its bytes alone decode to the same pictures.
        ASSERT_EQ(packets.packets.size(), size_t(kFrames));
        EXPECT_EQ(packets.statsCalls, kFrames);
        int keys = 0;
        for (size_t i = 0; i < packets.packets.size(); ++i) keys += packets.packets[i].key;
        EXPECT_EQ(keys, 3);
        const std::string copy = fs::path(out).parent_path().string() + "/callback.h264";
        ASSERT_TRUE(WriteAll(copy, packets.bytes));
        EXPECT_EQ(DecodedFrameHashes(copy), s.hashes);
    }
    EXPECT_EQ(kivtest::CountOf(kivtest::LibraryLog(), "AAC encoder init failed sr=48000 ch=2\r\n"), 1u);
    KIV_EnableLog(0);
}

// One-second segments begin on the key frames of this 25-frame group
// structure, so each decodes on its own; 300 KB segments start anywhere, so
// only the first decodes, and each is over the limit by at most a frame.
TEST_F(RecorderFfmpeg, SplitSegmentsAreCompleteFilesHoldingEveryFrame) {
    for (int32_t split : {KIV_RECORD_SPLIT_TIME, KIV_RECORD_SPLIT_SIZE}) {
        SCOPED_TRACE(split);
        const Stream& s = Get(split == KIV_RECORD_SPLIT_TIME ? "high_bframes" : "baseline");
        const std::string dir = kivtest::TempDir("recorder_ffmpeg_split" + std::to_string(split));
        EXPECT_EQ(Record(s.units, dir + "/part.mp4", split).encodedFrames, kFrames);
        std::vector<std::string> files, joined;
        for (const auto& e : fs::directory_iterator(dir)) files.push_back(e.path().string());
        std::sort(files.begin(), files.end());  // names end in the segment number
        ASSERT_GE(files.size(), 3u);
        if (split == KIV_RECORD_SPLIT_TIME) {
            EXPECT_EQ(files.size(), 3u);
        }
        int packets = 0;
        for (size_t i = 0; i < files.size(); ++i) {
            EXPECT_NE(files[i].find("_000" + std::to_string(i + 1) + ".mp4"), std::string::npos) << files[i];
            auto p = ProbeVideo(files[i]);
            packets += std::atoi(p["nb_read_packets"].c_str());
            if (split == KIV_RECORD_SPLIT_SIZE) {
                EXPECT_LT(fs::file_size(files[i]), 500000u) << files[i];
                if (i > 0) continue;
            } else {
                EXPECT_EQ(p["nb_read_frames"], "25") << files[i];
                EXPECT_NEAR(std::atof(p["duration"].c_str()), 1.0, 0.001);
            }
            for (const std::string& h : DecodedFrameHashes(files[i])) joined.push_back(h);
        }
        EXPECT_EQ(packets, kFrames);
        EXPECT_EQ(joined, std::vector<std::string>(s.hashes.begin(), s.hashes.begin() + ptrdiff_t(joined.size())));
        EXPECT_GE(joined.size(), split == KIV_RECORD_SPLIT_TIME ? size_t(kFrames) : 1u);
    }
}

}  // namespace
