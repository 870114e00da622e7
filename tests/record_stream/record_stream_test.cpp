// The H.264 reader, MP4 writer, buffered file writer and AAC configuration: hand-built input, and libx264
// streams written to MP4 and read back by ffprobe and ffmpeg, also when a full disk cuts a file short.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>

#ifndef _WIN32
#include <signal.h>
#include <sys/resource.h>
#endif

#include "aac_config.h"
#include "aac_encoder.h"
#include "file_writer.h"
#include "h264_stream.h"
#include "mp4_writer.h"
#include "stream_test_util.h"

using namespace streamtest;

extern std::atomic<bool> g_countAllocs;  // alloc_counter.cpp
extern std::atomic<int> g_allocs;

namespace {

struct SpsFields {
    uint32_t profile = 77, constraints = 0x40, level = 31, chroma = 1;
    bool separatePlanes = false, scalingLists = false, frameMbsOnly = true;  // separate planes: 4:4:4 as three pictures
    uint32_t lumaMinus8 = 0, chromaMinus8 = 0, pocType = 0, widthMbsMinus1 = 19, heightUnitsMinus1 = 14;
    uint32_t crop[4] = {0, 0, 0, 0};  // left, right, top, bottom
};

Bytes Sps(void (*edit)(SpsFields&) = nullptr) {
    SpsFields f;
    if (edit) edit(f);
    const std::vector<uint32_t> chromaProfiles = {44, 83, 86, 100, 110, 118, 122, 128, 134, 138, 139, 244};
    BitWriter w;
    w.Bits(f.profile, 8), w.Bits(f.constraints, 8), w.Bits(f.level, 8), w.Ue(0);  // seq_parameter_set_id 0
    if (std::count(chromaProfiles.begin(), chromaProfiles.end(), f.profile)) {
        w.Ue(f.chroma);
        if (f.chroma == 3) w.Bit(f.separatePlanes);
        w.Ue(f.lumaMinus8), w.Ue(f.chromaMinus8), w.Bit(0), w.Bit(f.scalingLists);
        for (int i = 0; f.scalingLists && i < (f.chroma != 3 ? 8 : 12); ++i) {
            w.Bit(i % 3 == 0);
            for (int j = 0; i % 3 == 0 && j < (i < 6 ? 16 : 64); ++j) w.Se(j % 5 - 2);
        }
    }
    w.Ue(0), w.Ue(f.pocType);  // log2_max_frame_num_minus4, pic_order_cnt_type
    if (f.pocType == 0) w.Ue(2);
    if (f.pocType == 1) w.Bit(0), w.Se(-3), w.Se(4), w.Ue(2), w.Se(1), w.Se(-1);
    w.Ue(1), w.Bit(0), w.Ue(f.widthMbsMinus1), w.Ue(f.heightUnitsMinus1), w.Bit(f.frameMbsOnly);  // 1 reference frame
    if (!f.frameMbsOnly) w.Bit(0);
    const bool cropping = f.crop[0] || f.crop[1] || f.crop[2] || f.crop[3];
    w.Bit(1), w.Bit(cropping);
    for (uint32_t c : f.crop)
        if (cropping) w.Ue(c);
    w.Bit(0);  // no VUI
    return Nal(0x67, w.Finish());
}

Bytes Concat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const Bytes& p : parts) out.insert(out.end(), p.begin(), p.end());
    return out;
}

const Bytes kSps = Sps();  // Main, level 3.1, 320x240
const Bytes kPps = {0x68, 0xEE, 0x3C, 0x80};
const Bytes kIdr = {0x65, 0x88, 0x84, 0x00, 0x33, 0x21};
const Bytes kSlice = {0x41, 0x9A, 0x02, 0x04};

TEST(H264Framing, EachFramingIsRecognisedAndRewrittenAsAnnexB) {
    Bytes longSlice(300, 0x5A);  // its length reads 00 00 01 2C: still AVCC
    longSlice[0] = 0x41;
    // 00 00 01 41 also reads as a length of 321 with 321 bytes behind, but that unit's 9A has the forbidden bit.
    Bytes lookalike = {0, 0, 1, 0x41, 0x9A};
    lookalike.resize(4 + 0x141, 0x55);
    const Bytes tooLong = {0, 0, 0, 6, 0x65, 0x11, 0x22, 0x33, 0x44};  // one byte past the end
    const struct { const char* name; Bytes input; int source, nalCount, firstNalType; bool key; Bytes sample; } cases[] = {
        {"mixed start codes", Concat({AnnexB({kSps, kPps}), {0, 0, 1}, kIdr}), kiv::kH264SourceAnnexB, 3, 7, true, AnnexB({kSps, kPps, kIdr})},
        {"junk around", Concat({{0x12, 0x34}, AnnexB({kSlice, kSlice}), {0, 0, 0}}), kiv::kH264SourceAnnexB, 2, 1, false, AnnexB({kSlice, kSlice})},
        {"length prefixed", LengthPrefixed({kIdr}), kiv::kH264SourceAvcc, 1, 5, true, AnnexB({kIdr})},
        {"300-byte unit", LengthPrefixed({kSps, kPps, longSlice}), kiv::kH264SourceAvcc, 3, 7, false, AnnexB({kSps, kPps, longSlice})},
        {"start code reading as a length", lookalike, kiv::kH264SourceAnnexB, 1, 1, false, AnnexB({Bytes(lookalike.begin() + 3, lookalike.end())})},
        {"length past the end: one bare unit", tooLong, kiv::kH264SourceSingleNal, 1, 0, false, AnnexB({tooLong})},
        {"bare unit", kIdr, kiv::kH264SourceSingleNal, 1, 5, true, AnnexB({kIdr})},
        {"nothing", {}, kiv::kH264SourceUnknown, 0, -1, false, {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        kiv::H264StreamAnalyzer analyzer;
        const kiv::H264FrameInfo info = analyzer.Analyze(c.input.empty() ? nullptr : c.input.data(), c.input.size() + 10 * c.input.empty());
        EXPECT_EQ(std::vector<int>({info.source, info.nalCount, info.firstNalType, info.key}), std::vector<int>({c.source, c.nalCount, c.firstNalType, c.key}));
        EXPECT_EQ(analyzer.Sample(), c.sample);
        EXPECT_EQ(analyzer.HasParameterSets(), c.firstNalType == 7);
        EXPECT_EQ(Concat({analyzer.Sps(), analyzer.Pps()}), c.firstNalType == 7 ? Concat({kSps, kPps}) : Bytes());
    }
}

TEST(H264Framing, ParameterSetsAreKeptReplacedAndReset) {
    kiv::H264StreamAnalyzer analyzer;
    const Bytes first = AnnexB({kSps, kPps, kIdr});
    analyzer.Analyze(first.data(), first.size());
    analyzer.Analyze(nullptr, 10);
    EXPECT_TRUE(analyzer.HasParameterSets()) << "kept across frames";
    const Bytes newSps = Sps([](SpsFields& f) { f.profile = 100; }), newPps = {0x68, 0xCE, 0x01};
    const Bytes second = AnnexB({newSps, newPps, kSlice});
    EXPECT_FALSE(analyzer.Analyze(second.data(), second.size()).key) << "parameter sets alone make no key frame";
    EXPECT_EQ(Concat({analyzer.Sps(), analyzer.Pps()}), Concat({newSps, newPps}));
    analyzer.Reset();
    EXPECT_FALSE(analyzer.HasParameterSets());

    const Bytes mixed = Concat({AnnexB({kSps, kPps}), {0, 0, 1}, kIdr});
    std::vector<uint8_t> out = {9, 9, 9};
    EXPECT_EQ(kiv::AnnexBToLengthPrefixed(mixed.data(), mixed.size(), &out), 3u);
    EXPECT_EQ(out, LengthPrefixed({kSps, kPps, kIdr}));
    EXPECT_EQ(kiv::AnnexBToLengthPrefixed(kIdr.data(), kIdr.size(), &out), 0u) << "no start code";
    EXPECT_TRUE(out.empty());
}

// The round trips compare x264 output with ffprobe's reading; these cover what x264 does not write.
TEST(H264Sps, FieldsOfHandBuiltParameterSets) {
    using F = SpsFields&;
    // Expected: parsed, profile, constraints, level, chroma, depths, size parsed, width, height.
    const struct { const char* what; Bytes nal; std::vector<int> expected; } cases[] = {
        {"main profile stops after the level fields", kSps, {1, 77, 0x40, 31, 1, 8, 8, 1, 320, 240}},
        {"only profile, level and id present", {0x67, 77, 0x40, 31, 0x80}, {1, 77, 0x40, 31, 1, 8, 8, 0, 0, 0}},
        {"high 1080p, scaling lists, 1088 cropped by 4 units of 2 lines",
         Sps([](F f) { f.profile = 100, f.level = 40, f.scalingLists = true, f.widthMbsMinus1 = 119, f.heightUnitsMinus1 = 67, f.crop[3] = 4; }),
         {1, 100, 0x40, 40, 1, 8, 8, 1, 1920, 1080}},
        {"4:4:4 with depths, scaling lists, POC type 1, cropped in single pixels",
         Sps([](F f) { f.profile = 244, f.chroma = 3, f.lumaMinus8 = 2, f.chromaMinus8 = 4, f.scalingLists = true, f.pocType = 1, f.crop[0] = 3; }),
         {1, 244, 0x40, 31, 3, 10, 12, 1, 317, 240}},
        {"separate colour planes crop in single pixels both ways",
         Sps([](F f) { f.profile = 244, f.chroma = 3, f.separatePlanes = true, f.crop[0] = 3, f.crop[3] = 2; }), {1, 244, 0x40, 31, 3, 8, 8, 1, 317, 238}},
        {"interlaced: 18 map units of 32 lines, cropped by 2 units of 4 lines",
         Sps([](F f) { f.frameMbsOnly = false, f.heightUnitsMinus1 = 17, f.crop[3] = 2; }), {1, 77, 0x40, 31, 1, 8, 8, 1, 320, 568}},
        {"profile 144 is deliberately not one with chroma fields", Sps([](F f) { f.profile = 144; }), {1, 144, 0x40, 31, 1, 8, 8, 1, 320, 240}},
        // profile 100, constraints 0, level 0 (both zero bytes escaped); 1 (id 0), 010 (chroma 1), 011 (luma +2), 1
        {"emulation prevention bytes are removed", {0x67, 100, 0x00, 0x00, 0x03, 0xA7, 0x80}, {1, 100, 0, 0, 1, 10, 8, 0, 0, 0}},
        {"a size beyond any level keeps the header fields only", Sps([](F f) { f.widthMbsMinus1 = 100000; }), {1, 77, 0x40, 31, 1, 8, 8, 0, 0, 0}},
        {"cropped away entirely", Sps([](F f) { f.crop[0] = 100, f.crop[1] = 100; }), {1, 77, 0x40, 31, 1, 8, 8, 0, 0, 0}},
    };
    for (const auto& c : cases) {
        kiv::H264SpsInfo i;
        kiv::ParseH264Sps(c.nal.data(), c.nal.size(), &i);
        EXPECT_EQ(std::vector<int>({i.parsed, i.profile, i.constraintFlags, i.level, i.chromaFormat, i.lumaBitDepth, i.chromaBitDepth,
                                    i.sizeParsed, i.width, i.height}), c.expected) << c.what;
    }
}

TEST(H264Sps, MalformedInputIsRejected) {
    kiv::H264SpsInfo info;
    const Bytes cases[] = {
        {0x67, 100, 0},                                           // too short
        {0x67, 0, 0, 3},                                          // escapes leave too few bytes
        {0x67, 100, 0, 31, 0, 0, 3, 0, 0, 3, 0, 0, 3, 0, 0x01},  // 40 leading zero bits: no Exp-Golomb code
        Sps([](SpsFields& f) { f.profile = 100, f.lumaMinus8 = 40; }),
    };
    for (const Bytes& c : cases) EXPECT_FALSE(kiv::ParseH264Sps(c.data(), c.size(), &info)) << c.size();
    EXPECT_FALSE(kiv::ParseH264Sps(nullptr, 100, &info));
    EXPECT_EQ(std::make_pair(info.chromaFormat, info.lumaBitDepth), std::make_pair(1, 8)) << "a refused depth leaves the defaults";
    // Every prefix of a valid SPS is read without going past its end.
    const Bytes sps = Sps([](SpsFields& f) { f.profile = 100, f.scalingLists = true; });
    for (size_t n = 0; n <= sps.size(); ++n) {
        const Bytes prefix(sps.begin(), sps.begin() + long(n));  // exactly as long, so that a sanitizer sees overreads
        kiv::ParseH264Sps(prefix.data(), prefix.size(), &info);
    }
}

std::string TempFile(const std::string& name) { return kivtest::TempDir("record_stream_mp4") + "/" + name; }

const kiv::H264SpsInfo kMainInfo{};  // the writer reads it for High profiles only

struct Writer : kiv::Mp4Writer {
    explicit Writer(const std::string& path) { EXPECT_EQ(Open(WidePath(path).c_str(), 320, 240, kSps, kPps, kMainInfo), kiv::Mp4OpenResult::kOk); }
};

// A "pts,duration,size,pos,flags" line for each packet of `stream` (v or a) as ffprobe reads them.
std::string Packets(const std::string& file, const std::string& stream) {
    std::string out;
    Run("ffprobe -v error -select_streams " + stream + " -show_entries packet=pts,duration,size,pos,flags -of csv=p=0 '" + file + "'", &out);
    return out;
}

// Sizes, offsets behind a 64-bit mdat header, sync samples, time scales and the recorded durations (a gap
// included); then reopening and destroying the writer finalise the open file.
TEST(Mp4Layout, SampleTablesOfBothTracksAsFfprobeReadsThem) {
    if (!HaveFfmpegTools()) GTEST_SKIP() << "ffprobe not found (native build only)";
    const std::string path = TempFile("layout.mp4");
    const std::vector<Bytes> frames = {AnnexB({kSps, kPps, kIdr}), AnnexB({kSlice}), AnnexB({kSlice, kSlice})};
    const Bytes au = {0x21, 0x10, 0x04, 0x60, 0x8C, 0x1C};
    uint8_t asc[2];
    kiv::AacAudioSpecificConfig(44100, 2, asc);
    Writer writer(path);
    EXPECT_FALSE(writer.WriteAudioSample(au.data(), au.size(), 0)) << "no audio track yet";
    ASSERT_TRUE(writer.EnableAudio(44100, 2, asc, 128000));
    EXPECT_TRUE(writer.EnableAudio(44100, 2, asc, 128000));
    EXPECT_FALSE(writer.EnableAudio(48000, 2, asc, 128000)) << "one audio format per file";
    const int64_t times[] = {0, 333333, 666667, 1000000, 1333334, 1666667, 3000001, 3333334};  // frames lost before the 7th
    std::string video, audio;
    uint64_t pos = 52;  // behind ftyp and the 64-bit mdat header
    for (size_t i = 0; i < 8; ++i) {
        const Bytes& frame = frames[i < 6 ? i % 3 : 1];
        const uint64_t size = LengthPrefixed(NalUnits(frame)).size();
        ASSERT_TRUE(writer.WriteVideoSample(frame.data(), frame.size(), times[i], 333333, i % 3 == 0 && i < 6));
        video += std::to_string(times[i]) + "," + std::to_string(i < 7 ? times[i + 1] - times[i] : 333333) + "," + std::to_string(size) +
                 "," + std::to_string(pos) + (i % 3 == 0 && i < 6 ? ",K_\n" : ",__\n");
        pos += size;
    }
    for (int i = 0; i < 5; ++i, pos += au.size()) {
        ASSERT_TRUE(writer.WriteAudioSample(au.data(), au.size(), i * 232199, i == 4 ? 232199 : 0));
        audio += std::to_string(i * 1024) + ",1024,6," + std::to_string(pos) + ",K_\n";
    }
    EXPECT_TRUE(writer.Finalize());
    EXPECT_FALSE(writer.Finalize()) << "a second close has nothing to do";
    EXPECT_EQ(writer.FinalFileBytes(), ReadAll(path).size());
    EXPECT_EQ(Packets(path, "v"), video);
    EXPECT_EQ(Packets(path, "a"), audio);

    const std::string first = TempFile("segment1.mp4"), second = TempFile("segment2.mp4");
    {
        Writer segments(first);
        const Bytes idr = AnnexB({kIdr});
        ASSERT_TRUE(segments.WriteVideoSample(idr.data(), idr.size(), 0, 333333, true));
        ASSERT_EQ(segments.Open(WidePath(second).c_str(), 320, 240, kSps, kPps, kMainInfo), kiv::Mp4OpenResult::kOk);
        EXPECT_EQ(segments.VideoSampleCount(), 0u);
        ASSERT_TRUE(segments.WriteVideoSample(idr.data(), idr.size(), 5000000, 333333, true));
        ASSERT_TRUE(segments.WriteVideoSample(idr.data(), idr.size(), 5333333, 333333, true));
    }
    EXPECT_EQ(std::make_pair(kivtest::CountOf(Packets(first, "v"), "\n"), kivtest::CountOf(Packets(second, "v"), "\n")),
              std::make_pair(size_t(1), size_t(2)));
}

TEST(Mp4Layout, AvcCExtensionOnlyForHighProfiles) {
    const Bytes highSps = {0x67, 0x64, 0x00, 0x28, 0xAC, 0xD9}, shortSps = {0x67, 0x64, 0x00};
    kiv::H264SpsInfo info;
    info.parsed = true, info.lumaBitDepth = 10;
    std::vector<uint8_t> record;
    ASSERT_TRUE(kiv::BuildAvcC(highSps.data(), highSps.size(), kPps.data(), kPps.size(), info, &record));
    ASSERT_EQ(record.size(), 6 + 2 + highSps.size() + 3 + kPps.size() + 4);
    EXPECT_EQ(Bytes(record.end() - 4, record.end()), (Bytes{0xFD, 0xFA, 0xF8, 0x00}));
    info.parsed = false;  // an unreadable SPS is described as 4:2:0, 8 bits
    ASSERT_TRUE(kiv::BuildAvcC(highSps.data(), highSps.size(), kPps.data(), kPps.size(), info, &record));
    EXPECT_EQ(Bytes(record.end() - 4, record.end()), (Bytes{0xFD, 0xF8, 0xF8, 0x00}));
    ASSERT_TRUE(kiv::BuildAvcC(kSps.data(), kSps.size(), kPps.data(), kPps.size(), info, &record));
    EXPECT_EQ(record.size(), 6 + 2 + kSps.size() + 3 + kPps.size());
    EXPECT_FALSE(kiv::BuildAvcC(shortSps.data(), shortSps.size(), kPps.data(), kPps.size(), info, &record));
    EXPECT_FALSE(kiv::BuildAvcC(kSps.data(), kSps.size(), kPps.data(), 0, info, &record));
}

TEST(Mp4Layout, OpenRefusesBadParametersAndEmptyFilesStayValid) {
    const std::string path = TempFile("refused.mp4");
    const auto wide = WidePath(path), missing = WidePath(TempFile("no/such/dir/x.mp4"));
    kiv::Mp4Writer writer;
    const Bytes none, shortSps = {0x67, 0x4D, 0x40};
    const KivWChar empty[1] = {0};
    const struct { const KivWChar* path; int32_t width, height; const Bytes &sps, &pps; kiv::Mp4OpenResult result; } cases[] = {
        {wide.c_str(), 0, 240, kSps, kPps, kiv::Mp4OpenResult::kBadSize},    {wide.c_str(), 320, 0, kSps, kPps, kiv::Mp4OpenResult::kBadSize},
        {wide.c_str(), 320, 240, none, kPps, kiv::Mp4OpenResult::kMissingParameters},
        {wide.c_str(), 320, 240, kSps, none, kiv::Mp4OpenResult::kMissingParameters},
        {wide.c_str(), 320, 240, shortSps, kPps, kiv::Mp4OpenResult::kBadAvcC},
        {empty, 320, 240, kSps, kPps, kiv::Mp4OpenResult::kBadPath},         {nullptr, 320, 240, kSps, kPps, kiv::Mp4OpenResult::kBadPath},
        {missing.c_str(), 320, 240, kSps, kPps, kiv::Mp4OpenResult::kFileFailed},
    };
    for (const auto& c : cases) EXPECT_EQ(writer.Open(c.path, c.width, c.height, c.sps, c.pps, kMainInfo), c.result);
    EXPECT_TRUE(ReadAll(path).empty());
    EXPECT_FALSE(writer.IsOpen());
    EXPECT_FALSE(writer.WriteVideoSample(kIdr.data(), kIdr.size(), 0, 1, true));
    EXPECT_FALSE(writer.Finalize());
    // A sample without any NAL unit is refused; closing then leaves an empty 64-bit mdat.
    ASSERT_EQ(writer.Open(wide.c_str(), 320, 240, kSps, kPps, kMainInfo), kiv::Mp4OpenResult::kOk);
    EXPECT_FALSE(writer.WriteVideoSample(kIdr.data(), kIdr.size(), 0, 1, true));
    EXPECT_TRUE(writer.Finalize());
    const Bytes file = ReadAll(path);
    ASSERT_EQ(file.size(), 52u);
    EXPECT_EQ(std::make_pair(U32(file, 36), U64(file, 44)), std::make_pair(1u, uint64_t(0)));
}

// A file with a UTF-16 name (a surrogate pair included): patches stay inside it, and it closes once.
TEST(FileWriterTest, Utf16PathsPatchesAndClose) {
    const std::vector<KivWChar> name = {'a', 0x00E9, 0x4E2D, 0xD83D, 0xDE00, 0xD800, 'z', 0};
    EXPECT_EQ(std::string(kiv::Utf16PathToUtf8(name.data()).data()), "a\xC3\xA9\xE4\xB8\xAD\xF0\x9F\x98\x80\xEF\xBF\xBDz");
    const std::string dir = kivtest::TempDir("record_stream_utf");
    std::basic_string<KivWChar> wide = WidePath(dir + "/");
    wide += {0x00E9, 0x4E2D, '.', 'b', 'i', 'n'};
    kiv::FileWriter writer(16);
    const uint8_t patch[3] = {0xAA, 0xBB, 0xCC};
    ASSERT_TRUE(writer.Open(wide.c_str()) && writer.WriteU64BE(0x0102030405060708ull) && writer.WriteU16BE(0x090A));
    EXPECT_FALSE(writer.Patch(8, patch, 3));
    ASSERT_TRUE(writer.Patch(7, patch, 3));
    EXPECT_EQ(writer.Position(), 10u);
    EXPECT_TRUE(writer.Close());
    EXPECT_FALSE(writer.Close());
    const Bytes expected = {1, 2, 3, 4, 5, 6, 7, 0xAA, 0xBB, 0xCC};
#ifdef _WIN32
    FILE* f = _wfopen(reinterpret_cast<const wchar_t*>(wide.c_str()), L"rb");
    ASSERT_NE(f, nullptr) << "the file has the wide-character name";
    Bytes read;
    for (int c; (c = fgetc(f)) != EOF;) read.push_back(uint8_t(c));
    fclose(f);
    EXPECT_EQ(read, expected);
#else
    EXPECT_EQ(ReadAll(dir + "/\xC3\xA9\xE4\xB8\xAD.bin"), expected);
#endif
}

// The real system's free space: a reserve larger than any disk stops a write, a tiny one does not.
TEST(FileWriterTest, RealFreeSpaceDecidesWhetherAWriteGoesAhead) {
    const std::vector<uint8_t> block(1000, 0x5A);
    kiv::FileWriter writer;
    ASSERT_TRUE(writer.Open(WidePath(TempFile("reserve.bin")).c_str()));
    writer.SetReserve(1);
    ASSERT_TRUE(writer.Write(block.data(), block.size()));
    EXPECT_TRUE(writer.Flush());
    writer.SetReserve(uint64_t(1) << 62);
    ASSERT_TRUE(writer.Write(block.data(), block.size()));  // buffered
    EXPECT_FALSE(writer.Flush());
    EXPECT_TRUE(writer.Failed());
    EXPECT_EQ(writer.BytesOnDisk(), block.size()) << "nothing of the refused block was written";
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
    g_allocs = 0;
    g_countAllocs = true;
    bool ok = true;
    for (int i = 0; i < 200; ++i) ok = step(i % 50 == 0 ? keyFrame : frame) && ok;
    g_countAllocs = false;
    EXPECT_EQ(g_allocs.load(), 0);
    EXPECT_TRUE(ok && writer.Finalize());
}

// Object type, rate index, channels and padding read back the way a decoder does.
std::vector<int> DecodeAsc(int32_t rate, int32_t channels) {
    uint8_t b[2];
    kiv::AacAudioSpecificConfig(rate, channels, b);
    const int v = (b[0] << 8) | b[1];
    return {v >> 11, (v >> 7) & 0xF, (v >> 3) & 0xF, v & 7};
}

TEST(AacConfig, RatesChannelsAndBufferSizes) {
    const int rates[] = {96000, 88200, 64000, 48000, 44100, 32000, 24000, 22050, 16000, 12000, 11025, 8000, 7350};
    for (int i = 0; i < 13; ++i)
        for (int channels = 1; channels <= 8; ++channels) EXPECT_EQ(DecodeAsc(rates[i], channels), (std::vector<int>{2, i, channels, 0})) << rates[i];
    // Unlisted rates use the 48000 entry; channels are not masked: the fifth
    // channel bit of 17 lands in the frequency index.
    EXPECT_EQ(std::make_pair(kiv::AacSampleRateIndex(50000), kiv::AacSampleRateIndex(0)), std::make_pair(3, 3));
    EXPECT_EQ(DecodeAsc(44100, 17), (std::vector<int>{2, 4 | 1, 1, 0}));
    const std::vector<size_t> buffers = {kiv::AacEncoder::OutputBufferSize(0), kiv::AacEncoder::OutputBufferSize(4096),
                                         kiv::AacEncoder::OutputBufferSize(65536)};
    EXPECT_EQ(buffers, std::vector<size_t>({16384, 16384, 65536})) << "never smaller than 16K";
}

// Bad formats are refused before any search; without a platform AAC encoder (native, Wine) the search fails
// cleanly and leaves an encoder that refuses work. A platform encoder must take the same work.
TEST(AacEncoderTest, EncodesOrReportsThatNoEncoderExists) {
    kivtest::LibraryScope library;
    kiv::AacEncoder encoder;
    EXPECT_FALSE(encoder.Initialize(0, 2) || encoder.Initialize(48000, 0));
    EXPECT_EQ(encoder.InitReport().stage, kiv::AacInitStage::kBadFormat);
    const bool ready = encoder.Initialize(48000, 2);
    EXPECT_EQ(encoder.InitReport().stage, ready ? kiv::AacInitStage::kReady : kiv::AacInitStage::kEnumFailed);
    EXPECT_EQ(Bytes(encoder.AudioSpecificConfig(), encoder.AudioSpecificConfig() + 2), (Bytes{0x11, 0x90}));
    const std::vector<uint8_t> pcm(4800 * 4, 0x11);  // 100 ms
    EXPECT_EQ(std::make_pair(encoder.Encode(pcm.data(), pcm.size(), 0, nullptr) == 0, encoder.Drain(nullptr) == 0), std::make_pair(ready, ready));
    encoder.Release();
    encoder.Release();
    EXPECT_FALSE(encoder.Ready());
}

// libx264 streams at 25 frames a second, fed through the analyser into the writer as the pass-through path
// does; ffmpeg decodes of the files must match the decodes of the streams.
class FfmpegRoundTrip : public ::testing::Test {
protected:
    struct Clip { std::string path; std::vector<Bytes> units; std::vector<std::string> hashes; };
    void SetUp() override {
        if (!HaveFfmpegTools()) GTEST_SKIP() << "ffmpeg/ffprobe not found (native build only)";
    }
    Clip MakeClip(const std::string& name, int width, int height, int frames, const std::string& options) {
        Clip c{dir + "/" + name + ".h264", {}, {}};
        std::string log;
        EXPECT_EQ(streamtest::Run("ffmpeg -v error -y -f lavfi -i testsrc=size=" + std::to_string(width) + "x" + std::to_string(height) +
                                      ":rate=25 -frames:v " + std::to_string(frames) + " -pix_fmt yuv420p -c:v libx264 -preset veryfast " +
                                      options + " -f h264 '" + c.path + "' 2>&1", &log), 0) << log;
        c.units = SplitAccessUnits(ReadAll(c.path));
        c.hashes = DecodedFrameHashes(c.path);
        EXPECT_EQ(std::make_pair(c.units.size(), c.hashes.size()), std::make_pair(size_t(frames), size_t(frames)));
        return c;
    }
    // Frames of one NAL unit go in `bare` without framing, the others in Annex B form. The file opens at the
    // first frame with both parameter sets; the audio due before the next video frame follows each one.
    void Write(kiv::Mp4Writer* writer, const Clip& clip, const std::string& path, int width, int height, bool bare = false,
               const std::vector<AdtsFrame>* audio = nullptr) {
        kiv::H264StreamAnalyzer analyzer;
        size_t audioNext = 0;
        for (size_t i = 0; i < clip.units.size(); ++i) {
            const std::vector<Bytes> nals = NalUnits(clip.units[i]);
            const bool single = bare && nals.size() == 1;
            const Bytes input = single ? nals[0] : clip.units[i];
            bareFrames += single;
            const kiv::H264FrameInfo info = analyzer.Analyze(input.data(), input.size());
            EXPECT_EQ(info.source, single ? kiv::kH264SourceSingleNal : kiv::kH264SourceAnnexB);
            EXPECT_EQ(analyzer.Sample(), AnnexB(nals)) << "frame " << i;
            if (!writer->IsOpen()) {
                ASSERT_TRUE(analyzer.HasParameterSets());
                kiv::ParseH264Sps(analyzer.Sps().data(), analyzer.Sps().size(), &sps);
                ASSERT_EQ(writer->Open(WidePath(path).c_str(), width, height, analyzer.Sps(), analyzer.Pps(), sps), kiv::Mp4OpenResult::kOk);
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
    kiv::H264SpsInfo sps;
};

// The recorder tests cover Baseline and B-frames in both framings; this adds bare single-NAL frames, cropping,
// our SPS reading against ffprobe's, and an AAC track that must decode exactly like the same ADTS frames.
TEST_F(FfmpegRoundTrip, VideoAndAudioDecodeToTheSameFrames) {
    const Clip clip = MakeClip("high_cropped", 320, 180, 50, "-profile:v high -bf 2");
    const std::string adts = dir + "/tone.aac", output = dir + "/out.mp4";
    std::string log;
    ASSERT_EQ(streamtest::Run("ffmpeg -v error -y -f lavfi -i sine=frequency=440:sample_rate=48000:duration=2 -ac 2 -c:a aac "
                              "-b:a 128k -f adts '" + adts + "' 2>&1", &log), 0) << log;
    const std::vector<AdtsFrame> audio = ParseAdts(ReadAll(adts));
    kiv::Mp4Writer writer;
    Write(&writer, clip, output, 320, 180, true, &audio);
    EXPECT_TRUE(writer.Finalize());
    EXPECT_GE(bareFrames, 45);
    auto in = Probe("-show_entries stream=profile,level,width,height '" + clip.path + "'");
    EXPECT_EQ(std::vector<std::string>({in["profile"], in["level"], in["width"], in["height"]}),
              std::vector<std::string>({"High", std::to_string(sps.level), std::to_string(sps.width), std::to_string(sps.height)}));
    EXPECT_EQ(std::vector<int>({sps.parsed, sps.profile, sps.sizeParsed}), std::vector<int>({1, 100, 1}));
    auto v = Probe("-count_frames -select_streams v:0 -show_entries stream=codec_name,width,height,nb_read_frames,nb_frames,"
                   "r_frame_rate,avg_frame_rate,duration '" + output + "'");
    EXPECT_EQ(std::vector<std::string>({v["codec_name"], v["width"], v["height"], v["nb_frames"], v["nb_read_frames"],
                                        v["r_frame_rate"], v["avg_frame_rate"], v["duration"]}),
              std::vector<std::string>({"h264", "320", "180", "50", "50", "25/1", "25/1", "2.000000"}));
    auto a = Probe("-select_streams a:0 -show_entries stream=codec_type,codec_name,profile,sample_rate,channels '" + output + "'");
    EXPECT_EQ(std::vector<std::string>({a["codec_type"], a["codec_name"], a["profile"], a["sample_rate"], a["channels"]}),
              std::vector<std::string>({"audio", "aac", "LC", "48000", "2"}));
    EXPECT_EQ(DecodedFrameHashes(output), clip.hashes);
    std::vector<std::string> expected = DecodedFrameHashes(adts, "0:a");
    const std::vector<std::string> actual = DecodedFrameHashes(output, "0:a");
    ASSERT_GE(expected.size(), actual.size());
    ASSERT_GE(actual.size(), 90u);
    expected.resize(actual.size());
    EXPECT_EQ(actual, expected);
}

#ifndef _WIN32
uint64_t g_capacity = 0;

// 40 frames of 640x480 without B-frames (survivors are a prefix in display order too), a key frame every 10.
// Each file must play up to the failure and end with its moov: nothing of the failed write is left behind.
TEST_F(FfmpegRoundTrip, FilesCutShortByAFullDiskPlayUpToTheFailure) {
    const Clip clip = MakeClip("cut", 640, 480, 40, "-bf 0 -g 10");
    auto expectPlayablePrefix = [&](const std::string& file, int frames) {
        auto probe = Probe("-count_frames -show_entries stream=nb_read_frames,codec_name '" + file + "'");
        EXPECT_EQ(std::make_pair(probe["codec_name"], probe["nb_read_frames"]), std::make_pair(std::string("h264"), std::to_string(frames)));
        EXPECT_EQ(DecodedFrameHashes(file), std::vector<std::string>(clip.hashes.begin(), clip.hashes.begin() + frames));
        Box moov;
        const Bytes bytes = ReadAll(file);
        ASSERT_TRUE(FindBox(bytes, "moov", &moov));
        EXPECT_EQ(moov.offset + moov.size, bytes.size());
    };
    // Everything waits in the write buffer, so the failure comes at finalising, as for a short recording: a
    // file size limit strikes half-way through key frame 20, leaving room for the moov of 20 frames but not
    // for frame 20. The free-space check sees a roomy disk and lets it happen.
    kiv::Mp4Writer cut;
    Write(&cut, clip, dir + "/cut.mp4", 640, 480);
    uint64_t end = cut.FileBytes(), total = 0;
    for (size_t i = 0; i < 40; ++i) total += LengthPrefixed(NalUnits(clip.units[i])).size();
    for (size_t i = 20; i < 40; ++i) end -= LengthPrefixed(NalUnits(clip.units[i])).size();
    const uint64_t room = LengthPrefixed(NalUnits(clip.units[20])).size() / 2;
    ASSERT_GT(room, 2000u);
    rlimit saved{};
    getrlimit(RLIMIT_FSIZE, &saved);
    rlimit limit = saved;
    limit.rlim_cur = end + room;
    void (*oldHandler)(int) = signal(SIGXFSZ, SIG_IGN);  // the write fails instead
    setrlimit(RLIMIT_FSIZE, &limit);
    const bool finalized = cut.Finalize();
    setrlimit(RLIMIT_FSIZE, &saved);
    signal(SIGXFSZ, oldHandler);
    EXPECT_FALSE(finalized) << "frames were lost, and the writer says so";
    expectPlayablePrefix(dir + "/cut.mp4", 20);

    // A volume that takes the writer's reserve plus about half the clip, in
    // small blocks: writing stops while the index still fits.
    g_capacity = 256 * 1024 + 24 * 40 + total / 2;
    kiv::SetFreeSpaceProbe([](uint64_t onDisk) { return onDisk < g_capacity ? g_capacity - onDisk : 0; });
    kiv::Mp4Writer full(16 * 1024);
    Write(&full, clip, dir + "/full.mp4", 640, 480);
    EXPECT_FALSE(full.Finalize());
    kiv::SetFreeSpaceProbe(nullptr);
    const int kept = int(full.VideoSampleCount());
    EXPECT_TRUE(kept > 5 && kept < 35) << kept;
    EXPECT_LE(full.FinalFileBytes(), g_capacity) << "the file never outgrew the volume";
    expectPlayablePrefix(dir + "/full.mp4", kept);
}
#endif

}  // namespace
