// MP4 file layout read back with an independent box walker: what ffmpeg does
// not insist on (64-bit offsets, the sample tables, time scales), failures,
// the buffered file writer and the allocation-free warm path. Sample bytes
// and the avcC record are proven by decoding real streams in the round trips.
#include <gtest/gtest.h>

#include "aac_config.h"
#include "alloc_counter.h"
#include "file_writer.h"
#include "mp4_writer.h"
#include "stream_test_util.h"
#include "test_support.h"

using namespace streamtest;

namespace {

// A Main-profile 320x240 SPS (profile 77, level 31) and a PPS.
const Bytes kSps = {0x67, 0x4D, 0x40, 0x1F, 0xE8, 0x80, 0xA0, 0xF6, 0x84};
const Bytes kHighSps = {0x67, 0x64, 0x00, 0x28, 0xAC, 0xD9};
const Bytes kPps = {0x68, 0xEE, 0x3C, 0x80};
const Bytes kIdr = AnnexB({{0x65, 0x88, 0x84, 0x00, 0x33}});
const Bytes kSlice = {0x41, 0x9A, 0x02};
using Stts = std::vector<std::pair<uint32_t, uint32_t>>;

std::string TempFile(const std::string& name) { return kivtest::TempDir("record_stream_mp4") + "/" + name; }

kiv::H264SpsInfo MainInfo() {
    kiv::H264SpsInfo info;
    info.profile = 77, info.level = 31, info.parsed = true;
    return info;
}

struct Writer : kiv::Mp4Writer {
    explicit Writer(const std::string& path) { EXPECT_EQ(Open(WidePath(path).c_str(), 320, 240, kSps, kPps, MainInfo()), kiv::Mp4OpenResult::kOk); }
    bool Video(const Bytes& sample, int64_t time, int64_t duration, bool key) {
        return WriteVideoSample(sample.data(), sample.size(), time, duration, key);
    }
};

struct TrackTables {
    Stts stts;
    std::vector<uint32_t> stss, sizes;
    std::vector<uint64_t> offsets;
    bool hasStss = false, hasStco = false;
};

TrackTables ReadTables(const Bytes& file, int track) {
    TrackTables t;
    Box trak, stbl;
    EXPECT_TRUE(FindBox(file, "moov/trak", &trak, track));
    const Bytes sub(file.begin() + long(trak.offset), file.begin() + long(trak.offset + trak.size));
    EXPECT_TRUE(FindBox(sub, "trak/mdia/minf/stbl", &stbl));
    for (const Box& b : Boxes(sub, stbl.payload, stbl.offset + stbl.size)) {
        const uint64_t p = b.payload + 4;  // after version and flags
        for (uint32_t i = 0; b.type == "stts" && i < U32(sub, p); ++i)
            t.stts.emplace_back(U32(sub, p + 4 + 8 * i), U32(sub, p + 8 + 8 * i));
        for (uint32_t i = 0; b.type == "stss" && i < U32(sub, p); ++i) t.stss.push_back(U32(sub, p + 4 + 4 * i));
        for (uint32_t i = 0; b.type == "stsz" && i < U32(sub, p + 4); ++i) t.sizes.push_back(U32(sub, p + 8 + 4 * i));
        for (uint32_t i = 0; b.type == "co64" && i < U32(sub, p); ++i) t.offsets.push_back(U64(sub, p + 4 + 8 * i));
        t.hasStss |= b.type == "stss";
        t.hasStco |= b.type == "stco";
        if (b.type == "stsz") {
            EXPECT_EQ(U32(sub, p), 0u);
        } else if (b.type == "stsc") {
            EXPECT_EQ(Bytes(sub.begin() + long(p), sub.begin() + long(p) + 16),
                      (Bytes{0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0, 1}));
        }
    }
    return t;
}

TEST(Mp4Layout, FtypThen64BitMdatThenMoovWithCo64AndRecordedDurations) {
    const std::string path = TempFile("layout.mp4");
    const std::vector<Bytes> frames = {AnnexB({kSps, kPps, kIdr}), AnnexB({kSlice}), AnnexB({kSlice, kSlice})};
    Writer writer(path);
    int64_t t = 0;
    for (int i = 0; i < 6; ++i, t += i % 2 ? 333333 : 333334)
        ASSERT_TRUE(writer.Video(frames[size_t(i % 3)], t, 333333, i % 3 == 0));
    t += 1000000;  // a gap (frames lost upstream) then two regular frames
    ASSERT_TRUE(writer.Video(frames[1], t, 333333, false));
    ASSERT_TRUE(writer.Video(frames[1], t + 333333, 333333, false));
    EXPECT_TRUE(writer.Finalize());
    EXPECT_FALSE(writer.Finalize()) << "a second close has nothing to do";
    const Bytes file = ReadAll(path);
    EXPECT_EQ(writer.FinalFileBytes(), file.size());
    const std::vector<Box> top = Boxes(file, 0, file.size());
    ASSERT_EQ(top.size(), 3u);
    EXPECT_EQ(top[0].type + top[1].type + top[2].type, "ftypmdatmoov");
    EXPECT_EQ(top[2].offset + top[2].size, file.size()) << "moov ends the file";
    EXPECT_EQ(U32(file, 36), 1u) << "mdat uses the 64-bit size form";
    EXPECT_EQ(U64(file, 44), top[2].offset - 36);

    const TrackTables tables = ReadTables(file, 0);
    EXPECT_FALSE(tables.hasStco);
    ASSERT_EQ(tables.offsets.size(), 8u);
    EXPECT_EQ(tables.offsets[0], 52u) << "the first sample follows the mdat header";
    for (size_t i = 0; i < 3; ++i) EXPECT_EQ(tables.sizes[i], LengthPrefixed(NalUnits(frames[i])).size());
    EXPECT_EQ(tables.stss, (std::vector<uint32_t>{1, 4}));
    EXPECT_EQ(tables.stts, (Stts{{1, 333333}, {1, 333334}, {1, 333333}, {1, 333334}, {1, 333333}, {1, 333334 + 1000000}, {2, 333333}}));
}

TEST(Mp4Layout, AudioTrackCarriesItsTimeScaleAndSamples) {
    const std::string path = TempFile("audio.mp4");
    Writer writer(path);
    uint8_t asc[2];
    kiv::AacAudioSpecificConfig(44100, 2, asc);
    const Bytes au = {0x21, 0x10, 0x04, 0x60, 0x8C, 0x1C};
    EXPECT_FALSE(writer.WriteAudioSample(au.data(), au.size(), 0)) << "no audio track yet";
    ASSERT_TRUE(writer.EnableAudio(44100, 2, asc, 128000));
    EXPECT_TRUE(writer.EnableAudio(44100, 2, asc, 128000));
    EXPECT_FALSE(writer.EnableAudio(48000, 2, asc, 128000)) << "one audio format per file";
    ASSERT_TRUE(writer.Video(kIdr, 0, 400000, true));
    for (int i = 0; i < 5; ++i) ASSERT_TRUE(writer.WriteAudioSample(au.data(), au.size(), i * 232199, i == 4 ? 232199 : 0));
    ASSERT_TRUE(writer.Finalize());

    // ffprobe reads the codec, channels and decoded audio in the round trips.
    const Bytes file = ReadAll(path);
    Box audioTrak, mdhd;
    ASSERT_TRUE(FindBox(file, "moov/trak", &audioTrak, 1));
    const Bytes trak(file.begin() + long(audioTrak.offset), file.begin() + long(audioTrak.offset + audioTrak.size));
    ASSERT_TRUE(FindBox(trak, "trak/mdia/mdhd", &mdhd));
    EXPECT_EQ(U32(trak, mdhd.payload + 20), 44100u);
    EXPECT_EQ(U64(trak, mdhd.payload + 24), 5u * 1024);
    const TrackTables t = ReadTables(file, 1);
    EXPECT_FALSE(t.hasStss);
    EXPECT_EQ(t.stts, (Stts{{5, 1024}}));
    ASSERT_EQ(t.offsets.size(), 5u);
    EXPECT_EQ(Bytes(file.begin() + long(t.offsets[4]), file.begin() + long(t.offsets[4] + au.size())), au);
}

TEST(Mp4Layout, AvcCExtensionOnlyForHighProfiles) {
    kiv::H264SpsInfo info;
    info.parsed = true;
    info.lumaBitDepth = 10;
    std::vector<uint8_t> record;
    ASSERT_TRUE(kiv::BuildAvcC(kHighSps.data(), kHighSps.size(), kPps.data(), kPps.size(), info, &record));
    ASSERT_EQ(record.size(), 6 + 2 + kHighSps.size() + 3 + kPps.size() + 4);
    EXPECT_EQ(Bytes(record.end() - 4, record.end()), (Bytes{0xFD, 0xFA, 0xF8, 0x00}));
    info.parsed = false;  // an unreadable SPS is described as 4:2:0, 8 bits
    ASSERT_TRUE(kiv::BuildAvcC(kHighSps.data(), kHighSps.size(), kPps.data(), kPps.size(), info, &record));
    EXPECT_EQ(Bytes(record.end() - 4, record.end()), (Bytes{0xFD, 0xF8, 0xF8, 0x00}));
    ASSERT_TRUE(kiv::BuildAvcC(kSps.data(), kSps.size(), kPps.data(), kPps.size(), info, &record));
    EXPECT_EQ(record.size(), 6 + 2 + kSps.size() + 3 + kPps.size());
    const Bytes shortSps = {0x67, 0x64, 0x00};
    EXPECT_FALSE(kiv::BuildAvcC(shortSps.data(), shortSps.size(), kPps.data(), kPps.size(), info, &record));
    EXPECT_FALSE(kiv::BuildAvcC(kSps.data(), kSps.size(), kPps.data(), 0, info, &record));
}

TEST(Mp4Layout, OpenRefusesBadParametersAndEmptyFilesStayValid) {
    const std::string path = TempFile("refused.mp4");
    const auto wide = WidePath(path);
    kiv::Mp4Writer writer;
    const Bytes none, shortSps = {0x67, 0x4D, 0x40};
    const KivWChar empty[1] = {0};
    const std::string missingDir = TempFile("no/such/dir/x.mp4");
    const struct {
        const KivWChar* path;
        int32_t width, height;
        const Bytes &sps, &pps;
        kiv::Mp4OpenResult result;
    } cases[] = {
        {wide.c_str(), 0, 240, kSps, kPps, kiv::Mp4OpenResult::kBadSize},
        {wide.c_str(), 320, 0, kSps, kPps, kiv::Mp4OpenResult::kBadSize},
        {wide.c_str(), 320, 240, none, kPps, kiv::Mp4OpenResult::kMissingParameters},
        {wide.c_str(), 320, 240, kSps, none, kiv::Mp4OpenResult::kMissingParameters},
        {wide.c_str(), 320, 240, shortSps, kPps, kiv::Mp4OpenResult::kBadAvcC},
        {empty, 320, 240, kSps, kPps, kiv::Mp4OpenResult::kBadPath},
        {nullptr, 320, 240, kSps, kPps, kiv::Mp4OpenResult::kBadPath},
    };
    for (const auto& c : cases) EXPECT_EQ(writer.Open(c.path, c.width, c.height, c.sps, c.pps, MainInfo()), c.result);
    EXPECT_TRUE(ReadAll(path).empty());
    EXPECT_EQ(writer.Open(WidePath(missingDir).c_str(), 320, 240, kSps, kPps, MainInfo()), kiv::Mp4OpenResult::kFileFailed);
    EXPECT_FALSE(writer.IsOpen());
    EXPECT_FALSE(writer.WriteVideoSample(kIdr.data(), kIdr.size(), 0, 1, true));
    EXPECT_FALSE(writer.Finalize());

    // A sample without any NAL unit is refused; closing then leaves an empty 64-bit mdat.
    ASSERT_EQ(writer.Open(wide.c_str(), 320, 240, kSps, kPps, MainInfo()), kiv::Mp4OpenResult::kOk);
    const Bytes notAnnexB = {0x65, 1, 2};
    EXPECT_FALSE(writer.WriteVideoSample(notAnnexB.data(), notAnnexB.size(), 0, 1, true));
    EXPECT_TRUE(writer.Finalize());
    const Bytes file = ReadAll(path);
    ASSERT_EQ(file.size(), 52u);
    EXPECT_EQ(U32(file, 36), 1u);
    EXPECT_EQ(U64(file, 44), 0u);
}

TEST(Mp4Layout, ReopeningAndDestroyingFinaliseTheOpenFile) {
    const std::string first = TempFile("segment1.mp4"), second = TempFile("segment2.mp4");
    {
        Writer writer(first);
        ASSERT_TRUE(writer.Video(kIdr, 0, 333333, true));
        ASSERT_EQ(writer.Open(WidePath(second).c_str(), 320, 240, kSps, kPps, MainInfo()), kiv::Mp4OpenResult::kOk);
        EXPECT_EQ(writer.VideoSampleCount(), 0u);
        ASSERT_TRUE(writer.Video(kIdr, 5000000, 333333, true));
        ASSERT_TRUE(writer.Video(kIdr, 5333333, 333333, true));
    }  // the destructor closes the second file
    for (const std::string& path : {first, second}) {
        const Bytes file = ReadAll(path);
        const std::vector<Box> top = Boxes(file, 0, file.size());
        ASSERT_EQ(top.size(), 3u) << path;
        EXPECT_EQ(top[2].type, "moov");
        EXPECT_EQ(ReadTables(file, 0).sizes.size(), path == first ? 1u : 2u);
    }
}

#ifndef _WIN32
TEST(Mp4Layout, FullDiskFailsCleanly) {
    // /dev/full accepts the open and refuses every write with ENOSPC.
    Writer writer("/dev/full");
    Bytes big(1 << 20, 0x5A);
    big[0] = 0x41;
    const Bytes frame = AnnexB({big});
    bool failed = false;
    for (int i = 0; i < 8 && !failed; ++i) failed = !writer.Video(frame, i, 1, true);
    EXPECT_TRUE(failed) << "the buffer flush must report the failure";
    EXPECT_FALSE(writer.Video(frame, 100, 1, true)) << "failures are sticky";
    EXPECT_FALSE(writer.Finalize());
    EXPECT_FALSE(writer.IsOpen());
    EXPECT_FALSE(writer.Finalize());
}
#endif

TEST(FileWriterTest, SmallBufferPatchAndLargeBlocks) {
    const std::string path = TempFile("buffered.bin");
    Bytes expected;
    {
        kiv::FileWriter writer(16);
        ASSERT_TRUE(writer.Open(WidePath(path).c_str()));
        for (uint32_t i = 0, v = 0; i < 40; ++i, v += 0x01020304u) {
            ASSERT_TRUE(writer.WriteU32BE(v));
            expected.insert(expected.end(), {uint8_t(v >> 24), uint8_t(v >> 16), uint8_t(v >> 8), uint8_t(v)});
        }
        Bytes block(100);
        for (size_t i = 0; i < block.size(); ++i) block[i] = uint8_t(i * 7);
        ASSERT_TRUE(writer.Write(block.data(), block.size()));
        ASSERT_TRUE(writer.WriteU16BE(0xBEEF));
        expected.insert(expected.end(), block.begin(), block.end());
        expected.insert(expected.end(), {0xBE, 0xEF});
        const uint8_t patch[3] = {0xAA, 0xBB, 0xCC};
        ASSERT_TRUE(writer.Patch(2, patch, 3));
        std::copy(patch, patch + 3, expected.begin() + 2);
        EXPECT_FALSE(writer.Patch(expected.size() - 1, patch, 3)) << "patches stay inside the file";
        ASSERT_TRUE(writer.WriteU64BE(0x0102030405060708ull));
        expected.insert(expected.end(), {1, 2, 3, 4, 5, 6, 7, 8});
        EXPECT_EQ(writer.Position(), expected.size());
        EXPECT_TRUE(writer.Close());
        EXPECT_FALSE(writer.Close());
    }
    EXPECT_EQ(ReadAll(path), expected);
}

TEST(FileWriterTest, Utf16PathsIncludingSurrogatePairs) {
    const std::vector<KivWChar> name = {'a', 0x00E9, 0x4E2D, 0xD83D, 0xDE00, 0xD800, 'z', 0};
    EXPECT_EQ(std::string(kiv::Utf16PathToUtf8(name.data()).data()), "a\xC3\xA9\xE4\xB8\xAD\xF0\x9F\x98\x80\xEF\xBF\xBDz");
    const std::string dir = kivtest::TempDir("record_stream_utf");
    std::basic_string<KivWChar> wide = WidePath(dir + "/");
    wide += {0x00E9, 0x4E2D, '.', 'b', 'i', 'n'};
    kiv::FileWriter writer;
    ASSERT_TRUE(writer.Open(wide.c_str()));
    ASSERT_TRUE(writer.WriteU8(42));
    ASSERT_TRUE(writer.Close());
#ifdef _WIN32
    FILE* f = _wfopen(reinterpret_cast<const wchar_t*>(wide.c_str()), L"rb");
    ASSERT_NE(f, nullptr) << "the file has the wide-character name";
    EXPECT_EQ(fgetc(f), 42);
    EXPECT_EQ(fgetc(f), EOF);
    fclose(f);
#else
    EXPECT_EQ(ReadAll(dir + "/\xC3\xA9\xE4\xB8\xAD.bin"), Bytes{42});
#endif
}

TEST(PassThroughPath, WarmFramesAllocateNothing) {
    Bytes big(60000, 0x5A);
    big[0] = 0x41;
    const Bytes keyFrame = AnnexB({kSps, kPps, kIdr, big}), frame = AnnexB({big, kSlice});
    kiv::H264StreamAnalyzer analyzer;
    analyzer.Analyze(keyFrame.data(), keyFrame.size());
    Writer writer(TempFile("warm.mp4"));
    int64_t t = 0;
    auto step = [&](const Bytes& input) {
        const bool key = analyzer.Analyze(input.data(), input.size()).key;
        return writer.WriteVideoSample(analyzer.Sample().data(), analyzer.Sample().size(), t += 333333, 333333, key);
    };
    for (int i = 0; i < 5; ++i) ASSERT_TRUE(step(i == 0 ? keyFrame : frame));
    allocs::Start();
    bool ok = true;
    for (int i = 0; i < 200; ++i) ok = step(i % 50 == 0 ? keyFrame : frame) && ok;
    EXPECT_EQ(allocs::Stop(), 0);
    EXPECT_TRUE(ok);
    EXPECT_TRUE(writer.Finalize());
}

}  // namespace
