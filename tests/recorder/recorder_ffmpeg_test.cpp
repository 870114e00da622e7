// H.264 streams made by ffmpeg, pushed access unit by access unit through a
// frame source into a recorder as an application would; the files are checked
// with ffprobe and ffmpeg: frame count, rate, duration and decoded pictures.
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
constexpr int64_t kFrame25 = 400000;

std::map<std::string, std::string> ProbeVideo(const std::string& file) {
    return Probe("-select_streams v:0 -count_frames -count_packets -show_entries "
                 "stream=codec_name,avg_frame_rate,nb_read_frames,nb_read_packets:format=duration '" + file + "'");
}

struct Stream {
    std::vector<Bytes> units;  // access units in Annex B form
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
                                                                {"main_bframes", "-profile:v main -bf 2"},
                                                                {"high_bframes", "-profile:v high -bf 3"},
                                                                {"high_nobframes", "-profile:v high -bf 0"}}) {
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
        const Stream& s = streams_[name];
        EXPECT_EQ(std::make_pair(s.units.size(), s.hashes.size()), std::make_pair(size_t(kFrames), size_t(kFrames)));
        return s;
    }

    // Records `units` through a frame source at 25 frames a second; waits for
    // the worker after each push so that the bounded queue never drops a
    // frame. `audio`, when given, follows every video frame.
    KivRecorderStats Record(const std::vector<Bytes>& units, const std::string& file, int32_t split = 0,
                            uint64_t maxBytes = 0, rectest::PacketLog* packets = nullptr, bool lengthPrefixed = false,
                            const KivAudioFrame* audio = nullptr) {
        void* source = KIV_CreateVideoFrameSource();
        void* rec = KIV_CreateRecorder(file.c_str());
        KivRecorderConfig c = rectest::Config("");
        c.recordFps = 25;
        c.split = split;
        c.maxBytesLow = uint32_t(maxBytes);
        c.seconds = 1;
        c.audio = audio != nullptr;
        EXPECT_EQ(KIV_SetRecorderConfig(rec, &c), KIV_OK);
        if (packets) {
            packets->recorder = rec;
            EXPECT_EQ(KIV_SetRecorderVideoCallback(rec, rectest::PacketLog::OnPacket, packets), KIV_OK);
        }
        EXPECT_EQ(KIV_Connect(source, rec), KIV_OK);
        EXPECT_EQ(KIV_Start(rec), KIV_OK);
        for (size_t i = 0; i < units.size(); ++i) {
            Bytes bytes = lengthPrefixed ? LengthPrefixed(NalUnits(units[i])) : units[i];
            KivVideoFrame f = kivtest::FrameOver(KIV_PIXEL_FORMAT_H264, 320, 240, bytes.data(), int32_t(bytes.size()));
            f.timestamp = 10000000 + int64_t(i) * kFrame25;
            EXPECT_EQ(KIV_PushVideoFrame(source, &f), KIV_OK);
            if (!rectest::WaitUntil([&] { return Stats(rec).inputFrames == int64_t(i) + 1; })) {
                ADD_FAILURE() << "frame " << i << " not taken";
                break;
            }
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
    static std::vector<std::string> Mp4Files(const std::string& dir) {
        std::vector<std::string> files;
        for (const auto& e : fs::directory_iterator(dir))
            if (e.path().extension() == ".mp4") files.push_back(e.path().string());
        std::sort(files.begin(), files.end());  // names end in the segment number
        return files;
    }

    kivtest::LibraryScope library_;
    static std::map<std::string, Stream> streams_;
};

std::map<std::string, Stream> RecorderFfmpeg::streams_;

TEST_F(RecorderFfmpeg, EveryProfileAndFramingRecordsTheSamePictures) {
    for (const auto& c : std::vector<std::pair<std::string, bool>>{
             {"baseline", false}, {"main_bframes", false}, {"high_bframes", true}, {"high_nobframes", true}}) {
        SCOPED_TRACE(c.first);
        const Stream& s = Get(c.first);
        const std::string out = kivtest::TempDir("recorder_ffmpeg_" + c.first) + "/out.mp4";
        rectest::PacketLog packets;
        const KivRecorderStats stats = Record(s.units, out, 0, 0, &packets, c.second);
        EXPECT_EQ(std::vector<int64_t>({stats.inputFrames, stats.encodedFrames, stats.droppedFrames, stats.videoPackets}),
                  std::vector<int64_t>({kFrames, kFrames, 0, kFrames}));
        auto p = ProbeVideo(out);
        EXPECT_EQ(std::vector<std::string>({p["codec_name"], p["nb_read_frames"], p["avg_frame_rate"]}),
                  std::vector<std::string>({"h264", std::to_string(kFrames), "25/1"}));
        EXPECT_NEAR(std::atof(p["duration"].c_str()), kFrames / 25.0, 0.001);
        EXPECT_EQ(DecodedFrameHashes(out), s.hashes);

        // The encoded-packet callback saw every frame, outside the recorder's
        // lock, and its bytes alone decode to the same pictures.
        ASSERT_EQ(packets.packets.size(), size_t(kFrames));
        EXPECT_EQ(packets.statsCalls, kFrames);
        int keys = 0;
        for (size_t i = 0; i < packets.packets.size(); ++i) {
            keys += packets.packets[i].key;
            EXPECT_EQ(packets.packets[i].pts, int64_t(i) * kFrame25);
        }
        EXPECT_EQ(keys, 3);
        const std::string copy = fs::path(out).parent_path().string() + "/callback.h264";
        ASSERT_TRUE(WriteAll(copy, packets.bytes));
        EXPECT_EQ(DecodedFrameHashes(copy), s.hashes);
    }
}

// Started in the middle of the first group of pictures: P slices without
// SPS/PPS until the key frame of frame 25.
TEST_F(RecorderFfmpeg, FramesBeforeTheFirstParameterSetsAreDropped) {
    const Stream& s = Get("high_nobframes");
    const std::string out = kivtest::TempDir("recorder_ffmpeg_late") + "/late.mp4";
    const KivRecorderStats stats = Record(std::vector<Bytes>(s.units.begin() + 5, s.units.end()), out);
    EXPECT_EQ(std::make_pair(stats.droppedFrames, stats.encodedFrames), std::make_pair(int64_t(20), int64_t(kFrames - 25)));
    EXPECT_EQ(DecodedFrameHashes(out), std::vector<std::string>(s.hashes.begin() + 25, s.hashes.end()));
}

// Without an AAC encoder (this build has none) audio frames are refused by
// the encoder set-up and the file is written with its video track only.
TEST_F(RecorderFfmpeg, AudioWithoutAnEncoderLeavesAVideoOnlyFile) {
    const Stream& s = Get("baseline");
    const std::string out = kivtest::TempDir("recorder_ffmpeg_audio") + "/av.mp4";
    rectest::SilentPcm pcm(48000, 2, 1920);  // 40 ms
    ASSERT_EQ(KIV_EnableLog(1), KIV_OK);
    EXPECT_EQ(Record(s.units, out, 0, 0, nullptr, false, &pcm.frame).audioPackets, 0);
    const std::string log = kivtest::LibraryLog();
    KIV_EnableLog(0);
    for (const std::string& line : {"] AAC encoder MFTEnumEx failed hr=0x" + std::string(),
                                    "] Raw H264 custom MP4 AAC encoder init failed sr=48000 ch=2\r\n" + std::string(),
                                    "] Raw H264 custom MP4 finalize segment=0 file=" + out + " ok=1 "})
        EXPECT_NE(log.find(line), std::string::npos) << line << log;
    std::string streams;
    streamtest::Run("ffprobe -v error -show_entries stream=codec_type -of csv=p=0 '" + out + "'", &streams);
    EXPECT_EQ(streams, "video\n");
    EXPECT_EQ(DecodedFrameHashes(out), s.hashes);
}

// One-second segments at 25 frames a second begin on the key frames of this
// 25-frame group structure, so each one decodes on its own.
TEST_F(RecorderFfmpeg, TimeSplitSegmentsTogetherHoldEveryFrame) {
    const Stream& s = Get("main_bframes");
    const std::string dir = kivtest::TempDir("recorder_ffmpeg_timesplit");
    EXPECT_EQ(Record(s.units, dir + "/part.mp4", KIV_RECORD_SPLIT_TIME).encodedFrames, kFrames);
    const std::vector<std::string> files = Mp4Files(dir);
    ASSERT_EQ(files.size(), 3u);
    std::vector<std::string> joined;
    for (size_t i = 0; i < files.size(); ++i) {
        EXPECT_NE(files[i].find("_000" + std::to_string(i + 1) + ".mp4"), std::string::npos) << files[i];
        auto p = ProbeVideo(files[i]);
        EXPECT_EQ(p["nb_read_frames"], "25") << files[i];
        EXPECT_NEAR(std::atof(p["duration"].c_str()), 1.0, 0.001);
        const std::vector<std::string> h = DecodedFrameHashes(files[i]);
        joined.insert(joined.end(), h.begin(), h.end());
    }
    EXPECT_EQ(joined, s.hashes);
}

TEST_F(RecorderFfmpeg, SizeSplitSegmentsOpenAndHoldEveryFrame) {
    const Stream& s = Get("baseline");
    const std::string dir = kivtest::TempDir("recorder_ffmpeg_sizesplit");
    const uint64_t limit = 300000;
    EXPECT_EQ(Record(s.units, dir + "/part.mp4", KIV_RECORD_SPLIT_SIZE, limit).encodedFrames, kFrames);
    const std::vector<std::string> files = Mp4Files(dir);
    ASSERT_GE(files.size(), 3u);
    int packets = 0;
    for (const std::string& f : files) {
        const int n = std::atoi(ProbeVideo(f)["nb_read_packets"].c_str());
        EXPECT_GT(n, 0) << f;
        packets += n;
        // Closed once it reached the limit: over by at most one frame (and the index).
        EXPECT_LT(fs::file_size(f), limit + 200000) << f;
    }
    EXPECT_EQ(packets, kFrames);
    const std::vector<std::string> first = DecodedFrameHashes(files[0]);  // from the stream's start, exactly
    ASSERT_LE(first.size(), s.hashes.size());
    EXPECT_EQ(first, std::vector<std::string>(s.hashes.begin(), s.hashes.begin() + ptrdiff_t(first.size())));
}

}  // namespace
