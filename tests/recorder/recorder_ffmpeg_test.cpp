// H.264 streams made by ffmpeg, pushed access unit by access unit through a
// frame source into a recorder as an application would, and the files
// checked with ffprobe and ffmpeg: frame count, frame rate, duration and
// decoded pictures identical to the input's.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <map>
#include <sstream>

#include "ports/kiv_port_base.h"
#include "recorder_test_util.h"
#include "test_support.h"

namespace fs = std::filesystem;
using rectest::Run;
using rectest::Stats;

namespace {

constexpr int kFrames = 75;
constexpr int64_t kFrame25 = 400000;

struct Stream {
    std::string path;
    std::vector<std::vector<uint8_t>> units;  // access units in Annex B form
};

// Byte offsets of the NAL units of an Annex B buffer: (start, end) pairs,
// start just after the start code.
std::vector<std::pair<size_t, size_t>> NalUnits(const std::vector<uint8_t>& b) {
    std::vector<size_t> starts;
    for (size_t i = 0; i + 3 <= b.size(); ++i) {
        if (b[i] == 0 && b[i + 1] == 0 && b[i + 2] == 1) starts.push_back(i + 3);
    }
    std::vector<std::pair<size_t, size_t>> units;
    for (size_t k = 0; k < starts.size(); ++k) {
        size_t end = k + 1 < starts.size() ? starts[k + 1] - 3 : b.size();
        while (end > starts[k] && b[end - 1] == 0) --end;
        units.emplace_back(starts[k], end);
    }
    return units;
}

// Splits a stream whose access units each begin with a delimiter NAL (9).
std::vector<std::vector<uint8_t>> SplitAtDelimiters(const std::vector<uint8_t>& b) {
    std::vector<size_t> cuts;
    for (const auto& u : NalUnits(b)) {
        if ((b[u.first] & 0x1F) == 9) cuts.push_back(u.first >= 4 && b[u.first - 4] == 0 ? u.first - 4 : u.first - 3);
    }
    std::vector<std::vector<uint8_t>> units;
    for (size_t k = 0; k < cuts.size(); ++k) {
        const size_t end = k + 1 < cuts.size() ? cuts[k + 1] : b.size();
        units.emplace_back(b.begin() + static_cast<ptrdiff_t>(cuts[k]), b.begin() + static_cast<ptrdiff_t>(end));
    }
    return units;
}

// The same access unit with 4-byte big-endian lengths instead of start codes.
std::vector<uint8_t> ToLengthPrefixed(const std::vector<uint8_t>& au) {
    std::vector<uint8_t> out;
    for (const auto& u : NalUnits(au)) {
        const size_t n = u.second - u.first;
        out.push_back(static_cast<uint8_t>(n >> 24));
        out.push_back(static_cast<uint8_t>(n >> 16));
        out.push_back(static_cast<uint8_t>(n >> 8));
        out.push_back(static_cast<uint8_t>(n));
        out.insert(out.end(), au.begin() + static_cast<ptrdiff_t>(u.first), au.begin() + static_cast<ptrdiff_t>(u.second));
    }
    return out;
}

std::vector<uint8_t> ReadBytes(const std::string& path) {
    const std::string s = kivtest::ReadFile(path);
    return std::vector<uint8_t>(s.begin(), s.end());
}

// The picture checksums of every decoded frame, in output order.
std::vector<std::string> FrameHashes(const std::string& file) {
    const std::string out = Run("ffmpeg -v error -i '" + file + "' -map 0:v -fps_mode passthrough -f framemd5 - 2>/dev/null");
    std::vector<std::string> hashes;
    std::istringstream lines(out);
    std::string line;
    while (std::getline(lines, line)) {
        if (line.empty() || line[0] == '#') continue;
        hashes.push_back(line.substr(line.rfind(',') + 1));
    }
    return hashes;
}

struct Probe {
    bool ok = false;
    int frames = -1;
    int packets = -1;
    std::string frameRate;
    double duration = -1;
    std::string codec;
};

Probe ProbeFile(const std::string& file) {
    int status = -1;
    const std::string out = Run("ffprobe -v error -select_streams v:0 -count_frames -count_packets -show_entries "
                                "stream=codec_name,avg_frame_rate,nb_read_frames,nb_read_packets:format=duration "
                                "-of default=nw=1 '" + file + "' 2>/dev/null",
                                &status);
    Probe p;
    p.ok = status == 0;
    std::istringstream lines(out);
    std::string line;
    while (std::getline(lines, line)) {
        const size_t eq = line.find('=');
        if (eq == std::string::npos) continue;
        const std::string key = line.substr(0, eq), value = line.substr(eq + 1);
        if (key == "codec_name") p.codec = value;
        if (key == "avg_frame_rate") p.frameRate = value;
        if (key == "nb_read_frames") p.frames = std::atoi(value.c_str());
        if (key == "nb_read_packets") p.packets = std::atoi(value.c_str());
        if (key == "duration") p.duration = std::atof(value.c_str());
    }
    return p;
}

std::vector<std::string> Mp4Files(const std::string& dir) {
    std::vector<std::string> files;
    for (const auto& e : fs::directory_iterator(dir)) {
        if (e.path().extension() == ".mp4") files.push_back(e.path().string());
    }
    std::sort(files.begin(), files.end());  // names end in the segment number
    return files;
}

struct Packets {
    std::atomic<int> count{0};
    std::atomic<int> keys{0};
    std::atomic<int> statsCalls{0};
    std::vector<uint8_t> annexB;
    std::vector<int64_t> pts;
    void* recorder = nullptr;
};

void KIV_CALL CollectPacket(const KivEncodedVideoPacket* p, void* user) {
    Packets* packets = static_cast<Packets*>(user);
    packets->annexB.insert(packets->annexB.end(), p->data, p->data + p->size);
    packets->pts.push_back(p->pts);
    packets->count += 1;
    packets->keys += p->key;
    // Taking the recorder's lock here proves the callback runs outside it.
    KivRecorderStats s{};
    if (KIV_GetRecorderStats(packets->recorder, &s) == KIV_OK) packets->statsCalls += 1;
}

class RecorderFfmpeg : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        if (!rectest::HaveFfmpeg()) return;
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
            int status = -1;
            rectest::Run(std::string("ffmpeg -v error -y -f lavfi -i 'testsrc=size=320x240:rate=25,noise=alls=40:allf=t' -frames:v ") +
                    std::to_string(kFrames) + " -pix_fmt yuv420p -c:v libx264 -preset veryfast -threads 1 " + k.options +
                    " -crf 20 -g 25 -x264-params scenecut=0 -bsf:v h264_metadata=aud=insert -f h264 '" + path + "'",
                &status);
            if (status == 0) (*streams_)[k.name] = Stream{path, SplitAtDelimiters(ReadBytes(path))};
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
        if (!rectest::HaveFfmpeg()) GTEST_SKIP() << "ffmpeg/ffprobe not found";
    }

    const Stream& Get(const std::string& name) {
        const auto it = streams_->find(name);
        EXPECT_NE(it, streams_->end()) << "ffmpeg could not make " << name;
        EXPECT_EQ(it->second.units.size(), static_cast<size_t>(kFrames));
        return it->second;
    }

    // Records `units` through a frame source; waits for the worker after each
    // push so that the bounded queue never drops a frame.
    KivRecorderStats Record(const std::vector<std::vector<uint8_t>>& units, const std::string& file,
                            const KivRecorderConfig& config, Packets* packets = nullptr, bool lengthPrefixed = false) {
        void* source = KIV_CreateVideoFrameSource();
        void* rec = KIV_CreateRecorder(file.c_str());
        EXPECT_NE(rec, nullptr);
        if (!rec) return KivRecorderStats{};
        EXPECT_EQ(KIV_SetRecorderConfig(rec, &config), KIV_OK);
        if (packets) {
            packets->recorder = rec;
            EXPECT_EQ(KIV_SetRecorderVideoCallback(rec, CollectPacket, packets), KIV_OK);
        }
        EXPECT_EQ(KIV_Connect(source, rec), KIV_OK);
        EXPECT_EQ(KIV_Start(rec), KIV_OK);
        for (size_t i = 0; i < units.size(); ++i) {
            std::vector<uint8_t> bytes = lengthPrefixed ? ToLengthPrefixed(units[i]) : units[i];
            KivVideoFrame f{};
            f.format = KIV_PIXEL_FORMAT_H264;
            f.width = 320;
            f.height = 240;
            f.planes[0] = bytes.data();
            f.strides[0] = static_cast<int32_t>(bytes.size());
            f.timestamp = 10000000 + static_cast<int64_t>(i) * kFrame25;
            EXPECT_EQ(KIV_PushVideoFrame(source, &f), KIV_OK);
            const bool taken = rectest::WaitUntil([&] { return Stats(rec).inputFrames == static_cast<int64_t>(i) + 1; });
            EXPECT_TRUE(taken);
            if (!taken) break;
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
        Packets packets;
        const KivRecorderStats stats = Record(s.units, out, Config25(), &packets, lengthPrefixed);
        EXPECT_EQ(stats.inputFrames, kFrames);
        EXPECT_EQ(stats.encodedFrames, kFrames);
        EXPECT_EQ(stats.droppedFrames, 0);
        EXPECT_EQ(stats.videoPackets, kFrames);

        const Probe p = ProbeFile(out);
        ASSERT_TRUE(p.ok) << out;
        EXPECT_EQ(p.codec, "h264");
        EXPECT_EQ(p.frames, kFrames);
        EXPECT_EQ(p.frameRate, "25/1");
        EXPECT_NEAR(p.duration, kFrames / 25.0, 0.001);
        const std::vector<std::string> expected = FrameHashes(s.path);
        ASSERT_EQ(expected.size(), static_cast<size_t>(kFrames));
        EXPECT_EQ(FrameHashes(out), expected);

        // The encoded-packet callback saw every frame, outside the recorder's
        // lock, and its bytes alone decode to the same pictures.
        EXPECT_EQ(packets.count.load(), kFrames);
        EXPECT_EQ(packets.statsCalls.load(), kFrames);
        EXPECT_EQ(packets.keys.load(), 3);
        for (size_t i = 0; i < packets.pts.size(); ++i) EXPECT_EQ(packets.pts[i], static_cast<int64_t>(i) * kFrame25);
        const std::string copy = fs::path(out).parent_path().string() + "/callback.h264";
        FILE* f = std::fopen(copy.c_str(), "wb");
        ASSERT_NE(f, nullptr);
        std::fwrite(packets.annexB.data(), 1, packets.annexB.size(), f);
        std::fclose(f);
        EXPECT_EQ(FrameHashes(copy), expected);
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
    const std::vector<std::vector<uint8_t>> units(s.units.begin() + 5, s.units.end());
    const std::string out = kivtest::TempDir("recorder_ffmpeg_late") + "/late.mp4";
    const KivRecorderStats stats = Record(units, out, Config25());
    EXPECT_EQ(stats.droppedFrames, 20);
    EXPECT_EQ(stats.encodedFrames, kFrames - 25);
    const Probe p = ProbeFile(out);
    ASSERT_TRUE(p.ok);
    EXPECT_EQ(p.frames, kFrames - 25);
    const std::vector<std::string> all = FrameHashes(s.path);
    EXPECT_EQ(FrameHashes(out), std::vector<std::string>(all.begin() + 25, all.end()));
}

// Without an AAC encoder (this build has none) audio frames are refused by
// the encoder set-up and the file is written with its video track only.
TEST_F(RecorderFfmpeg, AudioWithoutAnEncoderLeavesAVideoOnlyFile) {
    const Stream& s = Get("baseline");
    const std::string out = kivtest::TempDir("recorder_ffmpeg_audio") + "/av.mp4";
    ASSERT_EQ(KIV_EnableLog(1), KIV_OK);
    void* source = KIV_CreateVideoFrameSource();
    void* rec = KIV_CreateRecorder(out.c_str());
    KivRecorderConfig c = Config25();
    c.audio = 1;
    ASSERT_EQ(KIV_SetRecorderConfig(rec, &c), KIV_OK);
    ASSERT_EQ(KIV_Connect(source, rec), KIV_OK);
    ASSERT_EQ(KIV_Start(rec), KIV_OK);
    std::vector<uint8_t> pcm(1920 * 4, 0);  // 40 ms of 48 kHz stereo
    KivAudioFrame a{};
    a.data = pcm.data();
    a.bytes = static_cast<uint32_t>(pcm.size());
    a.sampleRate = 48000;
    a.channels = 2;
    a.bitsPerSample = 16;
    for (size_t i = 0; i < s.units.size(); ++i) {
        KivVideoFrame f{};
        f.format = KIV_PIXEL_FORMAT_H264;
        f.width = 320;
        f.height = 240;
        f.planes[0] = const_cast<uint8_t*>(s.units[i].data());
        f.strides[0] = static_cast<int32_t>(s.units[i].size());
        f.timestamp = 10000000 + static_cast<int64_t>(i) * kFrame25;
        ASSERT_EQ(KIV_PushVideoFrame(source, &f), KIV_OK);
        ASSERT_TRUE(rectest::WaitUntil([&] { return Stats(rec).inputFrames == static_cast<int64_t>(i) + 1; }));
        // Audio reaches the recorder as an audio input's frames would.
        ASSERT_EQ(static_cast<KivPortBase*>(rec)->OnAudioFrame(&a), KIV_OK);
    }
    ASSERT_EQ(KIV_Stop(rec), KIV_OK);
    const std::string log = rectest::ReadLog();
    KIV_EnableLog(0);
    EXPECT_EQ(Stats(rec).audioPackets, 0);
    EXPECT_NE(log.find("] AAC encoder MFTEnumEx failed hr=0x"), std::string::npos);
    EXPECT_NE(log.find("] Raw H264 custom MP4 AAC encoder init failed sr=48000 ch=2\r\n"), std::string::npos);
    EXPECT_NE(log.find("] Raw H264 custom MP4 finalize segment=0 file=" + out + " ok=1 "), std::string::npos) << log;
    EXPECT_EQ(KIV_Disconnect(source, rec), KIV_OK);
    EXPECT_EQ(KIV_DestroyPort(rec), KIV_OK);
    EXPECT_EQ(KIV_DestroyPort(source), KIV_OK);

    const std::string streams = rectest::Run("ffprobe -v error -show_entries stream=codec_type -of csv=p=0 '" + out + "'");
    EXPECT_EQ(streams, "video\n");
    EXPECT_EQ(ProbeFile(out).frames, kFrames);
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
        const Probe p = ProbeFile(files[i]);
        ASSERT_TRUE(p.ok) << files[i];
        EXPECT_EQ(p.frames, 25);
        EXPECT_NEAR(p.duration, 1.0, 0.001);
        const std::vector<std::string> h = FrameHashes(files[i]);
        joined.insert(joined.end(), h.begin(), h.end());
    }
    EXPECT_EQ(joined, FrameHashes(s.path));
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
        const Probe p = ProbeFile(f);
        ASSERT_TRUE(p.ok) << f;
        EXPECT_GT(p.packets, 0);
        packets += p.packets;
        // A file is closed once it reached the limit: it overshoots by at most
        // one frame (and the index).
        EXPECT_LT(fs::file_size(f), limit + 200000) << f;
    }
    EXPECT_EQ(packets, kFrames);
    // The first segment starts at the stream's start and decodes exactly.
    const std::vector<std::string> all = FrameHashes(s.path);
    const std::vector<std::string> first = FrameHashes(files[0]);
    ASSERT_LE(first.size(), all.size());
    EXPECT_EQ(first, std::vector<std::string>(all.begin(), all.begin() + static_cast<ptrdiff_t>(first.size())));
}

}  // namespace
