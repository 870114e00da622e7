// A recording that runs out of room still leaves a file that plays: a file
// size limit makes the writes fail the way a full disk does, part-way through
// a sample, and the file must then hold exactly the frames that got through.
#include <gtest/gtest.h>

#include <sstream>

#ifndef _WIN32
#include <signal.h>
#include <sys/resource.h>
#endif

#include "h264_stream.h"
#include "mp4_writer.h"
#include "stream_test_util.h"
#include "test_support.h"

using namespace streamtest;

namespace {

#ifndef _WIN32
// Limits the size of files this process writes, for as long as it lives.
class FileSizeLimit {
public:
    explicit FileSizeLimit(uint64_t bytes) {
        getrlimit(RLIMIT_FSIZE, &saved_);
        oldHandler_ = signal(SIGXFSZ, SIG_IGN);  // the write fails instead
        rlimit limit = saved_;
        limit.rlim_cur = bytes;
        setrlimit(RLIMIT_FSIZE, &limit);
    }
    ~FileSizeLimit() {
        setrlimit(RLIMIT_FSIZE, &saved_);
        signal(SIGXFSZ, oldHandler_);
    }

private:
    rlimit saved_{};
    void (*oldHandler_)(int) = nullptr;
};

// Bytes a sample takes in the file: each NAL unit behind a 4-byte length.
uint64_t StoredSize(const Bytes& annexB) {
    uint64_t size = 0;
    for (const Bytes& nal : NalUnits(annexB)) size += 4 + nal.size();
    return size;
}
#endif

TEST(Mp4WriteFailure, FileCutShortByAFullDiskPlaysUpToTheFailure) {
#ifdef _WIN32
    GTEST_SKIP() << "file size limits are a POSIX facility";
#else
    if (!HaveFfmpegTools()) GTEST_SKIP() << "ffmpeg/ffprobe not installed";
    const std::string dir = kivtest::TempDir("mp4_write_failure");
    const std::string input = dir + "/in.h264", output = dir + "/cut.mp4";
    // No B-frames, so the frames that survive are a prefix in display order
    // too; a key frame every 10 frames makes frame 20 large.
    std::string log;
    ASSERT_EQ(streamtest::Run("ffmpeg -v error -y -f lavfi -i testsrc=size=640x480:rate=25 -frames:v 40 -pix_fmt yuv420p "
                  "-c:v libx264 -preset veryfast -bf 0 -g 10 -f h264 '" + input + "' 2>&1",
                  &log),
              0)
        << log;
    const std::vector<Bytes> units = SplitAccessUnits(ReadAll(input));
    ASSERT_EQ(units.size(), 40u);

    kiv::H264StreamAnalyzer analyzer;
    std::vector<Bytes> samples;
    std::vector<bool> keys;
    for (const Bytes& unit : units) {
        keys.push_back(analyzer.Analyze(unit.data(), unit.size()).key);
        samples.push_back(analyzer.Sample());
    }
    ASSERT_TRUE(analyzer.HasParameterSets());
    ASSERT_TRUE(keys[0]);
    ASSERT_TRUE(keys[20]);

    kiv::H264SpsInfo sps;
    kiv::ParseH264Sps(analyzer.Sps().data(), analyzer.Sps().size(), &sps);
    kiv::Mp4Writer writer;
    ASSERT_EQ(writer.Open(WidePath(output).c_str(), 640, 480, analyzer.Sps(), analyzer.Pps(), sps),
              kiv::Mp4OpenResult::kOk);
    // The disk fills up half-way through frame 20: room enough for the moov
    // of 20 frames (about 1 KB), but not for frame 20 itself.
    uint64_t end = writer.FileBytes();
    for (size_t i = 0; i < 20; ++i) end += StoredSize(samples[i]);
    const uint64_t room = StoredSize(samples[20]) / 2;
    ASSERT_GT(room, 2000u);
    {
        FileSizeLimit limit(end + room);
        // Everything waits in the write buffer, so the failure comes when the
        // file is finalised, as it would at the end of a short recording.
        for (size_t i = 0; i < samples.size(); ++i) {
            writer.WriteVideoSample(samples[i].data(), samples[i].size(), int64_t(i) * 400000, 400000, keys[i]);
        }
        EXPECT_FALSE(writer.Finalize()) << "frames were lost, and the writer says so";
    }

    std::map<std::string, std::string> probe =
        Probe("-count_frames -show_entries stream=nb_read_frames,codec_name '" + output + "'");
    EXPECT_EQ(probe["codec_name"], "h264");
    EXPECT_EQ(probe["nb_read_frames"], "20");
    std::vector<std::string> expected = DecodedFrameHashes(input, "0:v");
    ASSERT_EQ(expected.size(), 40u);
    expected.resize(20);
    EXPECT_EQ(DecodedFrameHashes(output, "0:v"), expected);
    // Nothing of the failed write is left behind the moov.
    Box moov;
    const Bytes file = ReadAll(output);
    ASSERT_TRUE(FindBox(file, "moov", &moov));
    EXPECT_EQ(moov.offset + moov.size, file.size());
#endif
}

}  // namespace
