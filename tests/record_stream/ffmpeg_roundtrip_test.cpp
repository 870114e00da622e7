// Real H.264 streams from libx264 (through the ffmpeg tools) analysed access
// unit by access unit and written with our MP4 writer; ffprobe and ffmpeg
// read the files back: every decoded frame must match the frames decoded
// from the original stream. Also files cut short by a full disk: they must
// play up to the failure.
#include <gtest/gtest.h>

#ifndef _WIN32
#include <signal.h>
#include <sys/resource.h>
#endif

#include "aac_config.h"
#include "h264_stream.h"
#include "mp4_writer.h"
#include "stream_test_util.h"
#include "test_support.h"

using namespace streamtest;

namespace {

// How frames are fed: Annex B, length-prefixed, or a frame of one NAL unit
// without any framing (the others in Annex B form).
enum Form { kAnnexB, kAvcc, kBare };

struct Clip {
    std::string path;
    std::vector<Bytes> units;
    std::vector<std::string> hashes;
};

class FfmpegRoundTrip : public ::testing::Test {
protected:
    void SetUp() override {
#ifdef _WIN32
        GTEST_SKIP() << "the ffmpeg tools are checked in the native build";
#else
        if (!HaveFfmpegTools()) GTEST_SKIP() << "ffmpeg/ffprobe not installed";
#endif
    }
    // 25 frames a second of libx264 output with the given options.
    Clip MakeClip(const std::string& name, int width, int height, int frames, const std::string& options) {
        Clip c{dir + "/" + name + ".h264", {}, {}};
        std::string log;
        EXPECT_EQ(streamtest::Run("ffmpeg -v error -y -f lavfi -i testsrc=size=" + std::to_string(width) + "x" + std::to_string(height) +
                          ":rate=25 -frames:v " + std::to_string(frames) + " -pix_fmt yuv420p -c:v libx264 -preset veryfast " +
                          options + " -f h264 '" + c.path + "' 2>&1",
                      &log),
                  0)
            << log;
        c.units = SplitAccessUnits(ReadAll(c.path));
        c.hashes = DecodedFrameHashes(c.path);
        EXPECT_EQ(std::make_pair(c.units.size(), c.hashes.size()), std::make_pair(size_t(frames), size_t(frames)));
        return c;
    }
    // Feeds the units through the analyser into the writer the way the
    // pass-through path does: the file opens at the first frame that brings
    // both parameter sets. Audio, when given, is interleaved as it would
    // arrive: everything due before the next video frame.
    void Write(kiv::Mp4Writer* writer, const Clip& clip, int form, const std::string& path, int width, int height,
               kiv::H264SpsInfo* sps, const std::vector<AdtsFrame>* audio = nullptr) {
        kiv::H264StreamAnalyzer analyzer;
        size_t audioNext = 0;
        for (size_t i = 0; i < clip.units.size(); ++i) {
            const std::vector<Bytes> nals = NalUnits(clip.units[i]);
            const bool bare = form == kBare && nals.size() == 1;
            const Bytes input = form == kAvcc ? LengthPrefixed(nals) : bare ? nals[0] : clip.units[i];
            bareFrames += bare;
            const kiv::H264FrameInfo info = analyzer.Analyze(input.data(), input.size());
            EXPECT_EQ(info.source, form == kAvcc ? kiv::kH264SourceAvcc : bare ? kiv::kH264SourceSingleNal : kiv::kH264SourceAnnexB);
            EXPECT_EQ(analyzer.Sample(), AnnexB(nals)) << "frame " << i;
            if (!writer->IsOpen()) {
                ASSERT_TRUE(analyzer.HasParameterSets());
                kiv::ParseH264Sps(analyzer.Sps().data(), analyzer.Sps().size(), sps);
                ASSERT_EQ(writer->Open(WidePath(path).c_str(), width, height, analyzer.Sps(), analyzer.Pps(), *sps),
                          kiv::Mp4OpenResult::kOk);
                uint8_t asc[2];
                kiv::AacAudioSpecificConfig(48000, 2, asc);
                EXPECT_TRUE(!audio || writer->EnableAudio(48000, 2, asc, 128000));
            }
            const int64_t t = int64_t(i) * 400000;
            writer->WriteVideoSample(analyzer.Sample().data(), analyzer.Sample().size(), t, 400000, info.key);
            for (; audio && audioNext < audio->size() && int64_t(audioNext) * 1024 * 10000000 / 48000 < t + 400000; ++audioNext) {
                const Bytes& au = (*audio)[audioNext].payload;
                EXPECT_TRUE(writer->WriteAudioSample(au.data(), au.size(), int64_t(audioNext) * 1024 * 10000000 / 48000));
            }
        }
    }

    const std::string dir = kivtest::TempDir("record_stream_ffmpeg");
    int bareFrames = 0;
};

// Baseline and B-frames in both framings also go through the recorder in
// recorder_ffmpeg_test; these add the bare single-NAL reading, cropping and
// a large picture, and our SPS reading is compared with ffprobe's.
TEST_F(FfmpegRoundTrip, DecodesToTheSameFrames) {
    const struct {
        const char* name;
        std::string options;
        int width, height, form;
        const char* ffprobeProfile;
        int profileIdc;
    } cases[] = {{"main_single_nal", "-profile:v main -bf 0", 320, 240, kBare, "Main", 77},
                 {"high_cropped_annexb", "-profile:v high -bf 0", 320, 180, kAnnexB, "High", 100},
                 {"high_1080p_avcc", "-profile:v high -bf 2", 1920, 1080, kAvcc, "High", 100}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const Clip clip = MakeClip(c.name, c.width, c.height, 50, c.options);
        const std::string output = dir + "/" + c.name + ".mp4";
        kiv::H264SpsInfo sps;
        kiv::Mp4Writer writer;
        bareFrames = 0;
        Write(&writer, clip, c.form, output, c.width, c.height, &sps);
        EXPECT_TRUE(writer.Finalize());
        EXPECT_GE(c.form == kBare ? bareFrames : 45, 45);

        auto in = Probe("-show_entries stream=profile,level,width,height '" + clip.path + "'");
        EXPECT_EQ(in["profile"], c.ffprobeProfile);
        EXPECT_EQ(std::vector<int>({sps.parsed, sps.profile, sps.sizeParsed}), std::vector<int>({1, c.profileIdc, 1}));
        EXPECT_EQ(std::vector<std::string>({std::to_string(sps.level), std::to_string(sps.width), std::to_string(sps.height)}),
                  std::vector<std::string>({in["level"], in["width"], in["height"]}));
        auto out = Probe("-count_frames -select_streams v:0 -show_entries "
                         "stream=codec_name,width,height,nb_read_frames,nb_frames,r_frame_rate,avg_frame_rate,duration '" +
                         output + "'");
        EXPECT_EQ(std::vector<std::string>({out["codec_name"], out["width"], out["height"], out["nb_frames"],
                                            out["nb_read_frames"], out["r_frame_rate"], out["avg_frame_rate"], out["duration"]}),
                  std::vector<std::string>({"h264", std::to_string(c.width), std::to_string(c.height), "50", "50", "25/1",
                                            "25/1", "2.000000"}));
        EXPECT_EQ(DecodedFrameHashes(output), clip.hashes);
    }
}

TEST_F(FfmpegRoundTrip, AacTrackBesideTheVideoProbesAndDecodes) {
    const Clip clip = MakeClip("with_audio", 320, 240, 50, "-profile:v main -bf 0");
    const std::string adts = dir + "/tone.aac", output = dir + "/with_audio.mp4";
    std::string log;
    ASSERT_EQ(streamtest::Run("ffmpeg -v error -y -f lavfi -i sine=frequency=440:sample_rate=48000:duration=2 -ac 2 -c:a aac "
                  "-b:a 128k -f adts '" + adts + "' 2>&1", &log), 0) << log;
    const std::vector<AdtsFrame> audio = ParseAdts(ReadAll(adts));
    ASSERT_GE(audio.size(), 90u);
    ASSERT_EQ(std::make_pair(audio[0].sampleRateIndex, audio[0].channels), std::make_pair(3, 2));
    kiv::H264SpsInfo sps;
    kiv::Mp4Writer writer;
    Write(&writer, clip, kAnnexB, output, 320, 240, &sps, &audio);
    EXPECT_TRUE(writer.Finalize());

    auto a = Probe("-select_streams a:0 -show_entries stream=codec_type,codec_name,profile,sample_rate,channels '" + output + "'");
    EXPECT_EQ(std::vector<std::string>({a["codec_type"], a["codec_name"], a["profile"], a["sample_rate"], a["channels"]}),
              std::vector<std::string>({"audio", "aac", "LC", "48000", "2"}));
    EXPECT_EQ(DecodedFrameHashes(output), clip.hashes);
    // The audio frames written decode exactly like the same frames read from ADTS.
    std::vector<std::string> expected = DecodedFrameHashes(adts, "0:a");
    const std::vector<std::string> actual = DecodedFrameHashes(output, "0:a");
    ASSERT_GE(expected.size(), actual.size());
    ASSERT_GE(actual.size(), 90u);
    expected.resize(actual.size());
    EXPECT_EQ(actual, expected);
}

#ifndef _WIN32
// Bytes a sample takes in the file: each NAL unit behind a 4-byte length.
uint64_t StoredSize(const Bytes& annexB) {
    uint64_t size = 0;
    for (const Bytes& nal : NalUnits(annexB)) size += 4 + nal.size();
    return size;
}

// The file holds `frames` frames that decode to the first frames of the
// clip, and ends with its moov: nothing of the failed write is left behind.
void ExpectPlayablePrefix(const std::string& file, const Clip& clip, int frames) {
    auto probe = Probe("-count_frames -show_entries stream=nb_read_frames,codec_name '" + file + "'");
    EXPECT_EQ(std::make_pair(probe["codec_name"], probe["nb_read_frames"]), std::make_pair(std::string("h264"), std::to_string(frames)));
    EXPECT_EQ(DecodedFrameHashes(file), std::vector<std::string>(clip.hashes.begin(), clip.hashes.begin() + frames));
    Box moov;
    const Bytes bytes = ReadAll(file);
    ASSERT_TRUE(FindBox(bytes, "moov", &moov));
    EXPECT_EQ(moov.offset + moov.size, bytes.size());
}

// 40 frames of 640x480 without B-frames (so the frames that survive are a
// prefix in display order too), a key frame every 10. A write that fails
// part-way through a sample (a file size limit behaves so) must leave exactly
// the frames that got through.
TEST_F(FfmpegRoundTrip, FileCutShortByAFullDiskPlaysUpToTheFailure) {
    const Clip clip = MakeClip("cut", 640, 480, 40, "-bf 0 -g 10");
    const std::string output = dir + "/cut.mp4";
    kiv::H264SpsInfo sps;
    kiv::Mp4Writer writer;
    // Everything waits in the write buffer, so the failure comes when the file
    // is finalised, as it would at the end of a short recording. The limit
    // strikes half-way through key frame 20: room for the moov of 20 frames
    // (about 1 KB) but not for frame 20. The writer's own free-space check
    // sees a roomy disk and lets it happen.
    Write(&writer, clip, kAnnexB, output, 640, 480, &sps);
    uint64_t end = writer.FileBytes();
    for (size_t i = 0; i < 40; ++i) end -= i >= 20 ? StoredSize(clip.units[i]) : 0;
    const uint64_t room = StoredSize(clip.units[20]) / 2;
    ASSERT_GT(room, 2000u);
    rlimit saved{};
    getrlimit(RLIMIT_FSIZE, &saved);
    rlimit limit = saved;
    limit.rlim_cur = end + room;
    void (*oldHandler)(int) = signal(SIGXFSZ, SIG_IGN);  // the write fails instead
    setrlimit(RLIMIT_FSIZE, &limit);
    const bool finalized = writer.Finalize();
    setrlimit(RLIMIT_FSIZE, &saved);
    signal(SIGXFSZ, oldHandler);
    EXPECT_FALSE(finalized) << "frames were lost, and the writer says so";
    ExpectPlayablePrefix(output, clip, 20);
}

uint64_t g_capacity = 0;

// A volume that takes the writer's reserve plus about half the clip: writing
// stops while the index still fits.
TEST_F(FfmpegRoundTrip, WritingStopsWhileTheIndexStillFits) {
    const Clip clip = MakeClip("full", 640, 480, 40, "-bf 0 -g 10");
    uint64_t total = 0;
    for (const Bytes& s : clip.units) total += StoredSize(s);
    g_capacity = 256 * 1024 + 24 * 40 + total / 2;
    kiv::SetFreeSpaceProbe([](uint64_t onDisk) { return onDisk < g_capacity ? g_capacity - onDisk : 0; });
    kiv::Mp4Writer writer(16 * 1024);  // small blocks, so the volume fills part-way
    kiv::H264SpsInfo sps;
    Write(&writer, clip, kAnnexB, dir + "/full.mp4", 640, 480, &sps);
    EXPECT_FALSE(writer.Finalize());
    kiv::SetFreeSpaceProbe(nullptr);
    const int kept = int(writer.VideoSampleCount());
    EXPECT_GT(kept, 5);
    EXPECT_LT(kept, 35);
    EXPECT_LE(writer.FinalFileBytes(), g_capacity) << "the file never outgrew the volume";
    ExpectPlayablePrefix(dir + "/full.mp4", clip, kept);
}
#endif

}  // namespace
