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
struct FileSizeLimit {
    rlimit saved{};
    void (*oldHandler)(int) = signal(SIGXFSZ, SIG_IGN);  // the write fails instead
    explicit FileSizeLimit(uint64_t bytes) {
        getrlimit(RLIMIT_FSIZE, &saved);
        rlimit limit = saved;
        limit.rlim_cur = bytes;
        setrlimit(RLIMIT_FSIZE, &limit);
    }
    ~FileSizeLimit() {
        setrlimit(RLIMIT_FSIZE, &saved);
        signal(SIGXFSZ, oldHandler);
    }
};

// A volume of a given size, as the writer's free-space check sees it.
uint64_t g_capacity = 0;
struct TestVolume {
    explicit TestVolume(uint64_t capacity) {
        g_capacity = capacity;
        kiv::SetFreeSpaceProbe([](uint64_t onDisk) { return onDisk < g_capacity ? g_capacity - onDisk : 0; });
    }
    ~TestVolume() { kiv::SetFreeSpaceProbe(nullptr); }
};

// 40 frames of 640x480 without B-frames (so the frames that survive are a
// prefix in display order too), a key frame every 10.
class Mp4WriteFailure : public ::testing::Test {
protected:
    void SetUp() override {
        if (!HaveFfmpegTools()) GTEST_SKIP() << "ffmpeg/ffprobe not installed";
        const std::string input = dir + "/in.h264";
        std::string log;
        ASSERT_EQ(streamtest::Run("ffmpeg -v error -y -f lavfi -i testsrc=size=640x480:rate=25 -frames:v 40 -pix_fmt yuv420p "
                      "-c:v libx264 -preset veryfast -bf 0 -g 10 -f h264 '" + input + "' 2>&1", &log), 0) << log;
        for (const Bytes& unit : SplitAccessUnits(ReadAll(input))) {
            keys.push_back(analyzer.Analyze(unit.data(), unit.size()).key);
            samples.push_back(analyzer.Sample());
        }
        kiv::ParseH264Sps(analyzer.Sps().data(), analyzer.Sps().size(), &spsInfo);
        hashes = DecodedFrameHashes(input, "0:v");
        ASSERT_EQ(samples.size(), 40u);
        ASSERT_EQ(hashes.size(), 40u);
    }
    // Bytes a sample takes in the file: each NAL unit behind a 4-byte length.
    static uint64_t StoredSize(const Bytes& annexB) {
        uint64_t size = 0;
        for (const Bytes& nal : NalUnits(annexB)) size += 4 + nal.size();
        return size;
    }
    void Open(kiv::Mp4Writer* writer, const std::string& file) {
        ASSERT_EQ(writer->Open(WidePath(file).c_str(), 640, 480, analyzer.Sps(), analyzer.Pps(), spsInfo),
                  kiv::Mp4OpenResult::kOk);
    }
    void WriteAll(kiv::Mp4Writer* writer) {
        for (size_t i = 0; i < samples.size(); ++i)
            writer->WriteVideoSample(samples[i].data(), samples[i].size(), int64_t(i) * 400000, 400000, keys[i]);
    }
    // The file holds `frames` frames that decode to the first frames of the
    // clip, and ends with its moov.
    void ExpectPlayablePrefix(const std::string& file, int frames) {
        auto probe = Probe("-count_frames -show_entries stream=nb_read_frames,codec_name '" + file + "'");
        EXPECT_EQ(probe["codec_name"], "h264");
        EXPECT_EQ(probe["nb_read_frames"], std::to_string(frames));
        EXPECT_EQ(DecodedFrameHashes(file, "0:v"), std::vector<std::string>(hashes.begin(), hashes.begin() + frames));
        Box moov;
        const Bytes bytes = ReadAll(file);
        ASSERT_TRUE(FindBox(bytes, "moov", &moov));
        EXPECT_EQ(moov.offset + moov.size, bytes.size()) << "nothing of the failed write is left behind the moov";
    }

    const std::string dir = kivtest::TempDir("mp4_write_failure");
    kiv::H264StreamAnalyzer analyzer;
    std::vector<Bytes> samples;
    std::vector<bool> keys;
    std::vector<std::string> hashes;
    kiv::H264SpsInfo spsInfo;
};

TEST_F(Mp4WriteFailure, FileCutShortByAFullDiskPlaysUpToTheFailure) {
    ASSERT_TRUE(keys[20]);
    const std::string output = dir + "/cut.mp4";
    kiv::Mp4Writer writer;
    Open(&writer, output);
    // The file size limit strikes half-way through frame 20: room enough for
    // the moov of 20 frames (about 1 KB), but not for frame 20 itself. The
    // writer's own free-space check sees a roomy disk and lets it happen.
    uint64_t end = writer.FileBytes();
    for (size_t i = 0; i < 20; ++i) end += StoredSize(samples[i]);
    const uint64_t room = StoredSize(samples[20]) / 2;
    ASSERT_GT(room, 2000u);
    {
        FileSizeLimit limit(end + room);
        // Everything waits in the write buffer, so the failure comes when the
        // file is finalised, as it would at the end of a short recording.
        WriteAll(&writer);
        EXPECT_FALSE(writer.Finalize()) << "frames were lost, and the writer says so";
    }
    ExpectPlayablePrefix(output, 20);
}

TEST_F(Mp4WriteFailure, WritingStopsWhileTheIndexStillFits) {
    uint64_t total = 0;
    for (const Bytes& s : samples) total += StoredSize(s);
    // A volume that takes the writer's reserve plus about half the clip.
    const uint64_t capacity = 256 * 1024 + 24 * 40 + total / 2;
    const std::string output = dir + "/full.mp4";
    TestVolume volume(capacity);
    kiv::Mp4Writer writer(16 * 1024);  // small blocks, so the volume fills part-way
    Open(&writer, output);
    WriteAll(&writer);
    EXPECT_FALSE(writer.Finalize());
    const int kept = int(writer.VideoSampleCount());
    EXPECT_GT(kept, 5);
    EXPECT_LT(kept, 35);
    EXPECT_LE(writer.FinalFileBytes(), capacity) << "the file never outgrew the volume";
    ExpectPlayablePrefix(output, kept);
}
#endif

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
