// A recording that runs out of room still leaves a file that plays. Two ways
// a disk fills: a write that fails part-way through a sample (a file size
// limit behaves so), after which the file must hold exactly the frames that
// got through; and a volume whose free space the writer watches, where it
// stops writing while the index still fits.
#include <gtest/gtest.h>

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
// Limits the size of files this process writes while it lives.
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

#ifndef _WIN32
// 40 frames of 640x480 without B-frames (so the frames that survive are a
// prefix in display order too), a key frame every 10.
struct Clip {
    std::string path;
    std::vector<Bytes> samples;
    std::vector<bool> keys;
    std::vector<uint8_t> sps, pps;
    kiv::H264SpsInfo spsInfo;
};

Clip MakeClip(const std::string& dir) {
    Clip clip;
    clip.path = dir + "/in.h264";
    std::string log;
    EXPECT_EQ(streamtest::Run("ffmpeg -v error -y -f lavfi -i testsrc=size=640x480:rate=25 -frames:v 40 "
                              "-pix_fmt yuv420p -c:v libx264 -preset veryfast -bf 0 -g 10 -f h264 '" +
                                  clip.path + "' 2>&1",
                              &log),
              0)
        << log;
    kiv::H264StreamAnalyzer analyzer;
    for (const Bytes& unit : SplitAccessUnits(ReadAll(clip.path))) {
        clip.keys.push_back(analyzer.Analyze(unit.data(), unit.size()).key);
        clip.samples.push_back(analyzer.Sample());
    }
    clip.sps = analyzer.Sps();
    clip.pps = analyzer.Pps();
    kiv::ParseH264Sps(clip.sps.data(), clip.sps.size(), &clip.spsInfo);
    return clip;
}

void WriteAll(kiv::Mp4Writer* writer, const Clip& clip) {
    for (size_t i = 0; i < clip.samples.size(); ++i) {
        const Bytes& s = clip.samples[i];
        writer->WriteVideoSample(s.data(), s.size(), int64_t(i) * 400000, 400000, clip.keys[i]);
    }
}

// The file opens, holds `frames` frames that decode to the first frames of
// the clip, and ends with its moov.
void ExpectPlayablePrefix(const std::string& file, const Clip& clip, int frames) {
    std::map<std::string, std::string> probe =
        Probe("-count_frames -show_entries stream=nb_read_frames,codec_name '" + file + "'");
    EXPECT_EQ(probe["codec_name"], "h264");
    EXPECT_EQ(probe["nb_read_frames"], std::to_string(frames));
    std::vector<std::string> expected = DecodedFrameHashes(clip.path, "0:v");
    ASSERT_EQ(expected.size(), clip.samples.size());
    expected.resize(size_t(frames));
    EXPECT_EQ(DecodedFrameHashes(file, "0:v"), expected);
    Box moov;
    const Bytes bytes = ReadAll(file);
    ASSERT_TRUE(FindBox(bytes, "moov", &moov));
    EXPECT_EQ(moov.offset + moov.size, bytes.size()) << "nothing of the failed write is left behind the moov";
}

// A volume of a given size, as the writer's free-space check sees it.
uint64_t g_capacity = 0;
uint64_t FreeOnTestVolume(uint64_t bytesOnDisk) { return bytesOnDisk < g_capacity ? g_capacity - bytesOnDisk : 0; }

struct TestVolume {
    explicit TestVolume(uint64_t capacity) {
        g_capacity = capacity;
        kiv::SetFreeSpaceProbe(FreeOnTestVolume);
    }
    ~TestVolume() { kiv::SetFreeSpaceProbe(nullptr); }
};
#endif

TEST(Mp4WriteFailure, FileCutShortByAFullDiskPlaysUpToTheFailure) {
#ifdef _WIN32
    GTEST_SKIP() << "file size limits are a POSIX facility";
#else
    if (!HaveFfmpegTools()) GTEST_SKIP() << "ffmpeg/ffprobe not installed";
    const std::string dir = kivtest::TempDir("mp4_write_failure");
    const Clip clip = MakeClip(dir);
    ASSERT_EQ(clip.samples.size(), 40u);
    ASSERT_TRUE(clip.keys[20]);
    const std::string output = dir + "/cut.mp4";
    kiv::Mp4Writer writer;
    ASSERT_EQ(writer.Open(WidePath(output).c_str(), 640, 480, clip.sps, clip.pps, clip.spsInfo),
              kiv::Mp4OpenResult::kOk);
    // The file size limit strikes half-way through frame 20: room enough for
    // the moov of 20 frames (about 1 KB), but not for frame 20 itself. The
    // writer's own free-space check sees a roomy disk and lets it happen.
    uint64_t end = writer.FileBytes();
    for (size_t i = 0; i < 20; ++i) end += StoredSize(clip.samples[i]);
    const uint64_t room = StoredSize(clip.samples[20]) / 2;
    ASSERT_GT(room, 2000u);
    {
        FileSizeLimit limit(end + room);
        // Everything waits in the write buffer, so the failure comes when the
        // file is finalised, as it would at the end of a short recording.
        WriteAll(&writer, clip);
        EXPECT_FALSE(writer.Finalize()) << "frames were lost, and the writer says so";
    }
    ExpectPlayablePrefix(output, clip, 20);
#endif
}

TEST(Mp4WriteFailure, WritingStopsWhileTheIndexStillFits) {
#ifdef _WIN32
    GTEST_SKIP() << "the ffmpeg tools are checked in the native build";
#else
    if (!HaveFfmpegTools()) GTEST_SKIP() << "ffmpeg/ffprobe not installed";
    const std::string dir = kivtest::TempDir("mp4_volume_full");
    const Clip clip = MakeClip(dir);
    ASSERT_EQ(clip.samples.size(), 40u);
    uint64_t total = 0;
    for (const Bytes& s : clip.samples) total += StoredSize(s);
    // A volume that takes the writer's reserve plus about half the clip.
    const uint64_t capacity = 256 * 1024 + 24 * 40 + total / 2;
    const std::string output = dir + "/full.mp4";
    {
        TestVolume volume(capacity);
        kiv::Mp4Writer writer(16 * 1024);  // small blocks, so the volume fills part-way
        ASSERT_EQ(writer.Open(WidePath(output).c_str(), 640, 480, clip.sps, clip.pps, clip.spsInfo),
                  kiv::Mp4OpenResult::kOk);
        WriteAll(&writer, clip);
        EXPECT_FALSE(writer.Finalize());
        const int kept = int(writer.VideoSampleCount());
        EXPECT_GT(kept, 5);
        EXPECT_LT(kept, 35);
        EXPECT_LE(writer.FinalFileBytes(), capacity) << "the file never outgrew the volume";
        ExpectPlayablePrefix(output, clip, kept);
    }
#endif
}

// The writer asks the real system how much room is left: a reserve larger
// than any disk stops a write, a tiny one does not.
TEST(FileWriterReserve, RealFreeSpaceDecidesWhetherAWriteGoesAhead) {
    const std::string path = kivtest::TempDir("file_writer_reserve") + "/reserve.bin";
    const std::vector<uint8_t> block(1000, 0x5A);
    kiv::FileWriter writer;
    ASSERT_TRUE(writer.Open(WidePath(path).c_str()));
    writer.SetReserve(1);
    ASSERT_TRUE(writer.Write(block.data(), block.size()));
    EXPECT_TRUE(writer.Flush());
    writer.SetReserve(uint64_t(1) << 62);
    ASSERT_TRUE(writer.Write(block.data(), block.size()));  // buffered
    EXPECT_FALSE(writer.Flush());
    EXPECT_TRUE(writer.Failed());
    EXPECT_EQ(writer.BytesOnDisk(), block.size()) << "nothing of the refused block was written";
    writer.Close();
}

}  // namespace
