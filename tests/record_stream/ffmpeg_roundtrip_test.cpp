// Real H.264 streams from libx264 (through the ffmpeg tools) are analysed
// access unit by access unit, written with our MP4 writer, and the files are
// checked by ffprobe and by decoding them with ffmpeg: every decoded frame
// must match the frames decoded from the original elementary stream.
#include <gtest/gtest.h>

#include <sstream>

#include "aac_config.h"
#include "h264_stream.h"
#include "mp4_writer.h"
#include "stream_test_util.h"
#include "test_support.h"

using namespace streamtest;

namespace {

// kBare feeds every frame that holds one NAL unit without any framing (the
// single-NAL reading) and the others in Annex B form.
enum Form { kAnnexB, kAvcc, kBare };

struct StreamCase {
    const char* name;
    const char* profile;  // x264 profile
    int bframes, width, height;
    int form;  // how frames are fed: kAnnexB, kAvcc or kBare
    int expectedProfileIdc;
    const char* ffprobeProfile;
};

std::string MakeVideo(const StreamCase& c, const std::string& dir) {
    const std::string path = dir + "/" + c.name + ".h264";
    std::ostringstream cmd;
    cmd << "ffmpeg -v error -y -f lavfi -i testsrc=size=" << c.width << "x" << c.height
        << ":rate=25 -frames:v 50 -pix_fmt yuv420p -c:v libx264 -preset veryfast -profile:v " << c.profile
        << " -bf " << c.bframes << " -f h264 '" << path << "' 2>&1";
    std::string out;
    EXPECT_EQ(Run(cmd.str(), &out), 0) << out;
    return path;
}

class FfmpegRoundTrip : public ::testing::TestWithParam<StreamCase> {
protected:
    void SetUp() override {
#ifdef _WIN32
        GTEST_SKIP() << "the ffmpeg tools are checked in the native build";
#else
        if (!HaveFfmpegTools()) GTEST_SKIP() << "ffmpeg/ffprobe not installed";
#endif
        dir = kivtest::TempDir("record_stream_ffmpeg");
    }
    std::string dir;
};

// Feeds the access units through the analyser into the writer the way the
// pass-through path does: the file opens at the first frame that brings both
// parameter sets; 25 frames a second.
int WriteMp4(const std::vector<Bytes>& units, int form, const std::string& path, int32_t width, int32_t height,
             kiv::H264SpsInfo* spsInfo, int* bareFrames = nullptr, const std::vector<AdtsFrame>* audio = nullptr) {
    kiv::H264StreamAnalyzer analyzer;
    kiv::Mp4Writer writer;
    int written = 0;
    size_t audioNext = 0;
    for (size_t i = 0; i < units.size(); ++i) {
        const std::vector<Bytes> nals = NalUnits(units[i]);
        const bool bare = form == kBare && nals.size() == 1;
        const Bytes input = form == kAvcc ? LengthPrefixed(nals) : bare ? nals[0] : units[i];
        if (bare && bareFrames) ++*bareFrames;
        const kiv::H264FrameInfo info = analyzer.Analyze(input.data(), input.size());
        const int expectedSource =
            form == kAvcc ? kiv::kH264SourceAvcc : bare ? kiv::kH264SourceSingleNal : kiv::kH264SourceAnnexB;
        EXPECT_EQ(info.source, expectedSource) << "frame " << i;
        EXPECT_EQ(analyzer.Sample(), AnnexB(NalUnits(units[i]))) << "frame " << i;
        if (!writer.IsOpen()) {
            if (!analyzer.HasParameterSets()) continue;
            kiv::ParseH264Sps(analyzer.Sps().data(), analyzer.Sps().size(), spsInfo);
            EXPECT_EQ(writer.Open(WidePath(path).c_str(), width, height, analyzer.Sps(), analyzer.Pps(), *spsInfo),
                      kiv::Mp4OpenResult::kOk);
            if (audio && !audio->empty()) {
                uint8_t asc[2];
                static const int rates[] = {96000, 88200, 64000, 48000, 44100, 32000, 24000, 22050, 16000};
                kiv::AacAudioSpecificConfig(rates[(*audio)[0].sampleRateIndex], (*audio)[0].channels, asc);
                EXPECT_TRUE(writer.EnableAudio(rates[(*audio)[0].sampleRateIndex], (*audio)[0].channels, asc, 128000));
            }
        }
        const int64_t t = int64_t(i) * 400000;
        EXPECT_TRUE(writer.WriteVideoSample(analyzer.Sample().data(), analyzer.Sample().size(), t, 400000, info.key));
        ++written;
        // Audio interleaved as it would arrive: everything due before the
        // next video frame.
        while (audio && audioNext < audio->size() && int64_t(audioNext) * 1024 * 10000000 / 48000 < t + 400000) {
            const Bytes& au = (*audio)[audioNext].payload;
            EXPECT_TRUE(writer.WriteAudioSample(au.data(), au.size(), int64_t(audioNext) * 1024 * 10000000 / 48000));
            ++audioNext;
        }
    }
    EXPECT_TRUE(writer.Finalize());
    return written;
}

}  // namespace

TEST_P(FfmpegRoundTrip, DecodesToTheSameFrames) {
    const StreamCase c = GetParam();
    const std::string input = MakeVideo(c, dir);
    const std::vector<Bytes> units = SplitAccessUnits(ReadAll(input));
    ASSERT_EQ(units.size(), 50u);
    const std::string output = dir + "/" + c.name + ".mp4";
    kiv::H264SpsInfo sps;
    int bareFrames = 0;
    ASSERT_EQ(WriteMp4(units, c.form, output, c.width, c.height, &sps, &bareFrames), 50);
    EXPECT_GE(c.form == kBare ? bareFrames : 45, 45);

    // Our SPS reading agrees with ffprobe's.
    auto in = Probe("-show_entries stream=profile,level,width,height '" + input + "'");
    EXPECT_EQ(in["profile"], c.ffprobeProfile);
    EXPECT_EQ(std::vector<int>({sps.parsed, sps.profile, sps.sizeParsed}), std::vector<int>({1, c.expectedProfileIdc, 1}));
    EXPECT_EQ(std::vector<std::string>({std::to_string(sps.level), std::to_string(sps.width), std::to_string(sps.height)}),
              std::vector<std::string>({in["level"], in["width"], in["height"]}));

    auto out = Probe("-count_frames -select_streams v:0 -show_entries "
                     "stream=codec_name,width,height,nb_read_frames,nb_frames,r_frame_rate,avg_frame_rate,duration '" +
                     output + "'");
    EXPECT_EQ(std::vector<std::string>({out["codec_name"], out["width"], out["height"], out["nb_frames"],
                                        out["nb_read_frames"], out["r_frame_rate"], out["avg_frame_rate"], out["duration"]}),
              std::vector<std::string>({"h264", std::to_string(c.width), std::to_string(c.height), "50", "50", "25/1",
                                        "25/1", "2.000000"}));
    const std::vector<std::string> expected = DecodedFrameHashes(input, "0:v");
    ASSERT_EQ(expected.size(), 50u);
    EXPECT_EQ(DecodedFrameHashes(output, "0:v"), expected);
}

INSTANTIATE_TEST_SUITE_P(
    Libx264, FfmpegRoundTrip,
    // Profiles with and without B-frames in both framings also go through the
    // recorder port in recorder_ffmpeg_test; these add the bare single-NAL
    // reading, cropping and a large picture.
    ::testing::Values(StreamCase{"baseline_annexb", "baseline", 0, 320, 240, kAnnexB, 66, "Constrained Baseline"},
                      StreamCase{"main_single_nal", "main", 0, 320, 240, kBare, 77, "Main"},
                      StreamCase{"high_cropped_annexb", "high", 0, 320, 180, kAnnexB, 100, "High"},
                      StreamCase{"high_1080p_avcc", "high", 2, 1920, 1080, kAvcc, 100, "High"}),
    [](const ::testing::TestParamInfo<StreamCase>& info) { return std::string(info.param.name); });

class FfmpegRoundTripAudio : public FfmpegRoundTrip {};

TEST_F(FfmpegRoundTripAudio, AacTrackBesideTheVideoProbesAndDecodes) {
    const StreamCase c{"with_audio", "main", 0, 320, 240, kAnnexB, 77, "Main"};
    const std::vector<Bytes> units = SplitAccessUnits(ReadAll(MakeVideo(c, dir)));
    const std::string adts = dir + "/tone.aac";
    std::string log;
    ASSERT_EQ(streamtest::Run("ffmpeg -v error -y -f lavfi -i sine=frequency=440:sample_rate=48000:duration=2 -ac 2 -c:a aac "
                  "-b:a 128k -f adts '" + adts + "' 2>&1", &log), 0) << log;
    const std::vector<AdtsFrame> audio = ParseAdts(ReadAll(adts));
    ASSERT_GE(audio.size(), 90u);
    ASSERT_EQ(audio[0].sampleRateIndex, 3);
    ASSERT_EQ(audio[0].channels, 2);

    const std::string output = dir + "/with_audio.mp4";
    kiv::H264SpsInfo sps;
    ASSERT_EQ(WriteMp4(units, kAnnexB, output, 320, 240, &sps, nullptr, &audio), 50);

    auto a = Probe("-select_streams a:0 -show_entries stream=codec_type,codec_name,profile,sample_rate,channels '" +
                   output + "'");
    EXPECT_EQ(std::vector<std::string>({a["codec_type"], a["codec_name"], a["profile"], a["sample_rate"], a["channels"]}),
              std::vector<std::string>({"audio", "aac", "LC", "48000", "2"}));
    EXPECT_EQ(Probe("-count_frames -select_streams v:0 -show_entries stream=nb_read_frames '" + output + "'")["nb_read_frames"], "50");

    // The audio frames written decode exactly like the same frames read from ADTS.
    std::vector<std::string> expected = DecodedFrameHashes(adts, "0:a");
    std::vector<std::string> actual = DecodedFrameHashes(output, "0:a");
    ASSERT_GE(expected.size(), actual.size());
    ASSERT_GE(actual.size(), 90u);
    expected.resize(actual.size());
    EXPECT_EQ(actual, expected);
}
