// H.264 streams made by ffmpeg, pushed access unit by access unit through a
// frame source into a recorder as an application would, and the files
// checked with ffprobe and ffmpeg: frame count, frame rate, duration and
// decoded pictures identical to the input's.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <map>

#include "ports/kiv_port_base.h"
#include "recorder_test_util.h"
#include "stream_test_util.h"
#include "test_support.h"

namespace fs = std::filesystem;
using rectest::Stats;
using namespace streamtest;

namespace {

constexpr int kFrames = 75;
constexpr int64_t kFrame25 = 400000;

struct Stream {
    std::string path;
    std::vector<Bytes> units;  // access units in Annex B form
};

std::map<std::string, std::string> ProbeVideo(const std::string& file) {
    return Probe("-select_streams v:0 -count_frames -count_packets -show_entries "
                 "stream=codec_name,avg_frame_rate,nb_read_frames,nb_read_packets:format=duration '" + file + "'");
}

int Count(std::map<std::string, std::string>& probe, const char* key) { return std::atoi(probe[key].c_str()); }

std::vector<std::string> Mp4Files(const std::string& dir) {
    std::vector<std::string> files;
    for (const auto& e : fs::directory_iterator(dir)) {
        if (e.path().extension() == ".mp4") files.push_back(e.path().string());
    }
    std::sort(files.begin(), files.end());  // names end in the segment number
    return files;
}

class RecorderFfmpeg : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        if (!HaveFfmpegTools()) return;
        dir_ = new std::string(kivtest::TempDir("recorder_ffmpeg_streams"));
        // Noise keeps every NAL unit long, so no 4-byte length looks like a
        // start code (lengths 256..511 begin 00 00 01).
        const struct {
            const char* name;
            const char* options;
        } kinds[] = {
            {"baseline", "-profile:v baseline"},
            {"main_bframes", "-profile:v main -bf 2"},
            {"high_bframes", "-profile:v high -bf 3"},
            {"high_nobframes", "-profile:v high -bf 0"},
        };
        for (const auto& k : kinds) {
            const std::string path = *dir_ + "/" + k.name + ".h264";
            const int status = streamtest::Run(
                "ffmpeg -v error -y -f lavfi -i 'testsrc=size=320x240:rate=25,noise=alls=40:allf=t' -frames:v " +
                std::to_string(kFrames) + " -pix_fmt yuv420p -c:v libx264 -preset veryfast -threads 1 " + k.options +
                " -crf 20 -g 25 -x264-params scenecut=0 -bsf:v h264_metadata=aud=insert -f h264 '" + path + "'");
            if (status == 0) (*streams_)[k.name] = Stream{path, SplitAccessUnits(ReadAll(path))};
        }
    }
    static void TearDownTestSuite() {
        delete dir_;
        dir_ = nullptr;
    }

    void SetUp() override {
#if defined(_WIN32)
        GTEST_SKIP() << "the ffmpeg tools run in the native build";
#endif
        if (!HaveFfmpegTools()) GTEST_SKIP() << "ffmpeg/ffprobe not found";
    }

    const Stream& Get(const std::string& name) {
        const auto it = streams_->find(name);
        EXPECT_NE(it, streams_->end()) << "ffmpeg could not make " << name;
        EXPECT_EQ(it->second.units.size(), static_cast<size_t>(kFrames));
        return it->second;
    }

    // Records `units` through a frame source; waits for the worker after each
    // push so that the bounded queue never drops a frame. `audio`, when given,
    // follows every video frame as an audio input's frames would.
    KivRecorderStats Record(const std::vector<Bytes>& units, const std::string& file, const KivRecorderConfig& config,
                            rectest::PacketLog* packets = nullptr, bool lengthPrefixed = false,
                            const KivAudioFrame* audio = nullptr) {
        void* source = KIV_CreateVideoFrameSource();
        void* rec = KIV_CreateRecorder(file.c_str());
        EXPECT_NE(rec, nullptr);
        if (!rec) return KivRecorderStats{};
        EXPECT_EQ(KIV_SetRecorderConfig(rec, &config), KIV_OK);
        if (packets) {
            packets->recorder = rec;
            EXPECT_EQ(KIV_SetRecorderVideoCallback(rec, rectest::PacketLog::OnPacket, packets), KIV_OK);
        }
        EXPECT_EQ(KIV_Connect(source, rec), KIV_OK);
        EXPECT_EQ(KIV_Start(rec), KIV_OK);
        for (size_t i = 0; i < units.size(); ++i) {
            Bytes bytes = lengthPrefixed ? LengthPrefixed(NalUnits(units[i])) : units[i];
            KivVideoFrame f =
                kivtest::FrameOver(KIV_PIXEL_FORMAT_H264, 320, 240, bytes.data(), static_cast<int32_t>(bytes.size()));
            f.timestamp = 10000000 + static_cast<int64_t>(i) * kFrame25;
            EXPECT_EQ(KIV_PushVideoFrame(source, &f), KIV_OK);
            const bool taken = rectest::WaitUntil([&] { return Stats(rec).inputFrames == static_cast<int64_t>(i) + 1; });
            EXPECT_TRUE(taken);
            if (!taken) break;
            if (audio) {
                EXPECT_EQ(static_cast<KivPortBase*>(rec)->OnAudioFrame(audio), KIV_OK);
            }
        }
        EXPECT_EQ(KIV_Stop(rec), KIV_OK);
        const KivRecorderStats stats = Stats(rec);
        EXPECT_EQ(KIV_Disconnect(source, rec), KIV_OK);
        EXPECT_EQ(KIV_DestroyPort(rec), KIV_OK);
        EXPECT_EQ(KIV_DestroyPort(source), KIV_OK);
        return stats;
    }

    KivRecorderConfig Config25(int32_t split = 0, uint64_t maxBytes = 0, int32_t seconds = 0) {
        KivRecorderConfig c = rectest::Config("");
        c.recordFps = 25;
        c.split = split;
        c.maxBytesLow = static_cast<uint32_t>(maxBytes);
        c.seconds = seconds;
        return c;
    }

    void ExpectSameAsInput(const std::string& name, bool lengthPrefixed) {
        const Stream& s = Get(name);
        const std::string out = kivtest::TempDir("recorder_ffmpeg_" + name) + "/out.mp4";
        rectest::PacketLog packets;
        const KivRecorderStats stats = Record(s.units, out, Config25(), &packets, lengthPrefixed);
        EXPECT_EQ(stats.inputFrames, kFrames);
        EXPECT_EQ(stats.encodedFrames, kFrames);
        EXPECT_EQ(stats.droppedFrames, 0);
        EXPECT_EQ(stats.videoPackets, kFrames);

        auto p = ProbeVideo(out);
        EXPECT_EQ(p["codec_name"], "h264") << out;
        EXPECT_EQ(Count(p, "nb_read_frames"), kFrames);
        EXPECT_EQ(p["avg_frame_rate"], "25/1");
        EXPECT_NEAR(std::atof(p["duration"].c_str()), kFrames / 25.0, 0.001);
        const std::vector<std::string> expected = DecodedFrameHashes(s.path);
        ASSERT_EQ(expected.size(), static_cast<size_t>(kFrames));
        EXPECT_EQ(DecodedFrameHashes(out), expected);

        // The encoded-packet callback saw every frame, outside the recorder's
        // lock, and its bytes alone decode to the same pictures.
        ASSERT_EQ(packets.packets.size(), static_cast<size_t>(kFrames));
        EXPECT_EQ(packets.statsCalls, kFrames);
        int keys = 0;
        for (size_t i = 0; i < packets.packets.size(); ++i) {
            keys += packets.packets[i].key;
            EXPECT_EQ(packets.packets[i].pts, static_cast<int64_t>(i) * kFrame25);
        }
        EXPECT_EQ(keys, 3);
        const std::string copy = fs::path(out).parent_path().string() + "/callback.h264";
        ASSERT_TRUE(WriteAll(copy, packets.bytes));
        EXPECT_EQ(DecodedFrameHashes(copy), expected);
    }

    kivtest::LibraryScope library_;
    static std::string* dir_;
    static std::map<std::string, Stream>* streams_;
};

std::string* RecorderFfmpeg::dir_ = nullptr;
std::map<std::string, Stream>* RecorderFfmpeg::streams_ = new std::map<std::string, Stream>();

TEST_F(RecorderFfmpeg, BaselineAnnexB) { ExpectSameAsInput("baseline", false); }
TEST_F(RecorderFfmpeg, MainWithBFramesAnnexB) { ExpectSameAsInput("main_bframes", false); }
TEST_F(RecorderFfmpeg, HighWithBFramesLengthPrefixed) { ExpectSameAsInput("high_bframes", true); }
TEST_F(RecorderFfmpeg, HighWithoutBFramesLengthPrefixed) { ExpectSameAsInput("high_nobframes", true); }

TEST_F(RecorderFfmpeg, FramesBeforeTheFirstParameterSetsAreDropped) {
    const Stream& s = Get("high_nobframes");
    // Start in the middle of the first group of pictures: P slices without
    // SPS/PPS until the key frame of frame 25.
    const std::vector<Bytes> units(s.units.begin() + 5, s.units.end());
    const std::string out = kivtest::TempDir("recorder_ffmpeg_late") + "/late.mp4";
    const KivRecorderStats stats = Record(units, out, Config25());
    EXPECT_EQ(stats.droppedFrames, 20);
    EXPECT_EQ(stats.encodedFrames, kFrames - 25);
    const std::vector<std::string> all = DecodedFrameHashes(s.path);
    ASSERT_EQ(all.size(), static_cast<size_t>(kFrames));
    EXPECT_EQ(DecodedFrameHashes(out), std::vector<std::string>(all.begin() + 25, all.end()));
}

// Without an AAC encoder (this build has none) audio frames are refused by
// the encoder set-up and the file is written with its video track only.
TEST_F(RecorderFfmpeg, AudioWithoutAnEncoderLeavesAVideoOnlyFile) {
    const Stream& s = Get("baseline");
    const std::string out = kivtest::TempDir("recorder_ffmpeg_audio") + "/av.mp4";
    rectest::SilentPcm pcm(48000, 2, 1920);  // 40 ms
    KivRecorderConfig c = Config25();
    c.audio = 1;
    ASSERT_EQ(KIV_EnableLog(1), KIV_OK);
    const KivRecorderStats stats = Record(s.units, out, c, nullptr, false, &pcm.frame);
    const std::string log = kivtest::LibraryLog();
    KIV_EnableLog(0);
    EXPECT_EQ(stats.audioPackets, 0);
    EXPECT_NE(log.find("] AAC encoder MFTEnumEx failed hr=0x"), std::string::npos);
    EXPECT_NE(log.find("] Raw H264 custom MP4 AAC encoder init failed sr=48000 ch=2\r\n"), std::string::npos);
    EXPECT_NE(log.find("] Raw H264 custom MP4 finalize segment=0 file=" + out + " ok=1 "), std::string::npos) << log;

    std::string streams;
    streamtest::Run("ffprobe -v error -show_entries stream=codec_type -of csv=p=0 '" + out + "'", &streams);
    EXPECT_EQ(streams, "video\n");
    EXPECT_EQ(DecodedFrameHashes(out), DecodedFrameHashes(s.path));
}
TEST_F(RecorderFfmpeg, TimeSplitSegmentsTogetherHoldEveryFrame) {
    const Stream& s = Get("main_bframes");
    const std::string dir = kivtest::TempDir("recorder_ffmpeg_timesplit");
    const KivRecorderStats stats = Record(s.units, dir + "/part.mp4", Config25(KIV_RECORD_SPLIT_TIME, 0, 1));
    EXPECT_EQ(stats.encodedFrames, kFrames);
    const std::vector<std::string> files = Mp4Files(dir);
    ASSERT_EQ(files.size(), 3u);
    // One-second segments at 25 frames a second begin on the key frames of
    // this 25-frame group structure, so each one decodes on its own.
    std::vector<std::string> joined;
    for (size_t i = 0; i < files.size(); ++i) {
        EXPECT_NE(files[i].find("_000" + std::to_string(i + 1) + ".mp4"), std::string::npos) << files[i];
        auto p = ProbeVideo(files[i]);
        EXPECT_EQ(Count(p, "nb_read_frames"), 25) << files[i];
        EXPECT_NEAR(std::atof(p["duration"].c_str()), 1.0, 0.001);
        const std::vector<std::string> h = DecodedFrameHashes(files[i]);
        joined.insert(joined.end(), h.begin(), h.end());
    }
    EXPECT_EQ(joined, DecodedFrameHashes(s.path));
}

TEST_F(RecorderFfmpeg, SizeSplitSegmentsOpenAndHoldEveryFrame) {
    const Stream& s = Get("baseline");
    const std::string dir = kivtest::TempDir("recorder_ffmpeg_sizesplit");
    const uint64_t limit = 300000;
    const KivRecorderStats stats = Record(s.units, dir + "/part.mp4", Config25(KIV_RECORD_SPLIT_SIZE, limit));
    EXPECT_EQ(stats.encodedFrames, kFrames);
    const std::vector<std::string> files = Mp4Files(dir);
    ASSERT_GE(files.size(), 3u);
    int packets = 0;
    for (const std::string& f : files) {
        auto p = ProbeVideo(f);
        EXPECT_GT(Count(p, "nb_read_packets"), 0) << f;
        packets += Count(p, "nb_read_packets");
        // A file is closed once it reached the limit: it overshoots by at most
        // one frame (and the index).
        EXPECT_LT(fs::file_size(f), limit + 200000) << f;
    }
    EXPECT_EQ(packets, kFrames);
    // The first segment starts at the stream's start and decodes exactly.
    const std::vector<std::string> all = DecodedFrameHashes(s.path);
    const std::vector<std::string> first = DecodedFrameHashes(files[0]);
    ASSERT_LE(first.size(), all.size());
    EXPECT_EQ(first, std::vector<std::string>(all.begin(), all.begin() + static_cast<ptrdiff_t>(first.size())));
}

}  // namespace
