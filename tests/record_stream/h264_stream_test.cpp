// Framing detection, parameter-set capture and SPS reading on hand-built
// streams; real encoder output is checked in the round-trip tests.
#include <gtest/gtest.h>

#include <algorithm>

#include "h264_stream.h"
#include "stream_test_util.h"

using namespace streamtest;

namespace {

struct SpsFields {
    uint32_t profile = 77, constraints = 0x40, level = 31, chroma = 1;
    bool separatePlanes = false;  // 4:4:4 coded as three monochrome pictures
    uint32_t lumaMinus8 = 0, chromaMinus8 = 0;
    bool scalingLists = false;
    uint32_t pocType = 0, widthMbsMinus1 = 19, heightUnitsMinus1 = 14;
    bool frameMbsOnly = true;
    uint32_t crop[4] = {0, 0, 0, 0};  // left, right, top, bottom
};

Bytes SpsNal(const SpsFields& f) {
    const std::vector<uint32_t> chromaProfiles = {44, 83, 86, 100, 110, 118, 122, 128, 134, 138, 139, 244};
    BitWriter w;
    w.Bits(f.profile, 8);
    w.Bits(f.constraints, 8);
    w.Bits(f.level, 8);
    w.Ue(0);  // seq_parameter_set_id
    if (std::count(chromaProfiles.begin(), chromaProfiles.end(), f.profile)) {
        w.Ue(f.chroma);
        if (f.chroma == 3) w.Bit(f.separatePlanes);
        w.Ue(f.lumaMinus8);
        w.Ue(f.chromaMinus8);
        w.Bit(0);
        w.Bit(f.scalingLists);
        if (f.scalingLists) {
            for (int i = 0; i < (f.chroma != 3 ? 8 : 12); ++i) {
                const bool present = i % 3 == 0;
                w.Bit(present);
                for (int j = 0; present && j < (i < 6 ? 16 : 64); ++j) w.Se(j % 5 - 2);
            }
        }
    }
    w.Ue(0);  // log2_max_frame_num_minus4
    w.Ue(f.pocType);
    if (f.pocType == 0) w.Ue(2);
    if (f.pocType == 1) w.Bit(0), w.Se(-3), w.Se(4), w.Ue(2), w.Se(1), w.Se(-1);
    w.Ue(1);  // max_num_ref_frames
    w.Bit(0);
    w.Ue(f.widthMbsMinus1);
    w.Ue(f.heightUnitsMinus1);
    w.Bit(f.frameMbsOnly);
    if (!f.frameMbsOnly) w.Bit(0);
    w.Bit(1);
    const bool cropping = f.crop[0] || f.crop[1] || f.crop[2] || f.crop[3];
    w.Bit(cropping);
    for (uint32_t c : f.crop)
        if (cropping) w.Ue(c);
    w.Bit(0);  // no VUI
    return Nal(0x67, w.Finish());
}

// Everything the reader reports, in one comparable list.
std::vector<int> Summary(const Bytes& nal) {
    kiv::H264SpsInfo i;
    kiv::ParseH264Sps(nal.data(), nal.size(), &i);
    return {i.parsed, i.profile, i.constraintFlags, i.level, i.chromaFormat, i.lumaBitDepth, i.chromaBitDepth,
            i.sizeParsed, i.width, i.height};
}

Bytes Sps(void (*edit)(SpsFields&)) {
    SpsFields f;
    edit(f);
    return SpsNal(f);
}

Bytes Concat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const Bytes& p : parts) out.insert(out.end(), p.begin(), p.end());
    return out;
}

const Bytes kSps = SpsNal(SpsFields());
const Bytes kPps = {0x68, 0xEE, 0x3C, 0x80};
const Bytes kIdr = {0x65, 0x88, 0x84, 0x00, 0x33, 0x21};
const Bytes kSlice = {0x41, 0x9A, 0x02, 0x04};

TEST(H264Framing, EachFramingIsRecognisedAndRewrittenAsAnnexB) {
    const Bytes idr = {0x65, 0x11, 0x22, 0x33, 0x44};
    Bytes longSlice(300, 0x5A);  // its length reads 00 00 01 2C: still AVCC
    longSlice[0] = 0x41;
    // 00 00 01 41 also reads as a length of 321, and 321 bytes follow; but
    // that "unit" would start with 9A, whose forbidden bit is set.
    Bytes lookalike = {0, 0, 1, 0x41, 0x9A};
    lookalike.resize(4 + 0x141, 0x55);
    const Bytes tooLong = {0, 0, 0, 6, 0x65, 0x11, 0x22, 0x33, 0x44};  // one byte past the end
    const struct {
        const char* name;
        Bytes input;
        int source, nalCount, firstNalType;
        bool key;
        Bytes sample;  // every unit behind 00 00 00 01
    } cases[] = {
        {"mixed start codes", Concat({AnnexB({kSps, kPps}), {0, 0, 1}, kIdr}), kiv::kH264SourceAnnexB, 3, 7, true,
         AnnexB({kSps, kPps, kIdr})},
        {"leading junk, trailing zeros", Concat({{0x12, 0x34}, AnnexB({kSlice, kSlice}), {0, 0, 0}}),
         kiv::kH264SourceAnnexB, 2, 1, false, AnnexB({kSlice, kSlice})},
        {"length prefixed", LengthPrefixed({idr}), kiv::kH264SourceAvcc, 1, 5, true, AnnexB({idr})},
        {"length prefixed, 300-byte unit", LengthPrefixed({kSps, kPps, longSlice}), kiv::kH264SourceAvcc, 3, 7, false,
         AnnexB({kSps, kPps, longSlice})},
        {"3-byte start code that reads as a length", lookalike, kiv::kH264SourceAnnexB, 1, 1, false,
         AnnexB({Bytes(lookalike.begin() + 3, lookalike.end())})},
        {"length past the end: one bare unit", tooLong, kiv::kH264SourceSingleNal, 1, 0, false, AnnexB({tooLong})},
        {"bare unit", kIdr, kiv::kH264SourceSingleNal, 1, 5, true, AnnexB({kIdr})},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        kiv::H264StreamAnalyzer analyzer;
        const kiv::H264FrameInfo info = analyzer.Analyze(c.input.data(), c.input.size());
        EXPECT_EQ(std::vector<int>({info.source, info.nalCount, info.firstNalType, info.key}),
                  std::vector<int>({c.source, c.nalCount, c.firstNalType, c.key}));
        EXPECT_EQ(analyzer.Sample(), c.sample);
        EXPECT_EQ(analyzer.HasParameterSets(), c.firstNalType == 7);
        if (c.firstNalType == 7) {
            EXPECT_EQ(analyzer.Sps(), kSps);
            EXPECT_EQ(analyzer.Pps(), kPps);
        }
    }
}

TEST(H264Framing, EmptyInputParameterSetReplacementAndLengthPrefixing) {
    kiv::H264StreamAnalyzer analyzer;
    const Bytes first = AnnexB({kSps, kPps, kIdr});
    analyzer.Analyze(first.data(), first.size());
    kiv::H264FrameInfo info = analyzer.Analyze(nullptr, 10);
    EXPECT_EQ(info.source, kiv::kH264SourceUnknown);
    EXPECT_EQ(info.firstNalType, -1);
    EXPECT_TRUE(analyzer.Sample().empty());
    EXPECT_TRUE(analyzer.HasParameterSets());  // kept across frames

    const Bytes newSps = Sps([](SpsFields& f) { f.profile = 100; });
    const Bytes newPps = {0x68, 0xCE, 0x01};
    const Bytes second = AnnexB({newSps, newPps, kSlice});
    EXPECT_FALSE(analyzer.Analyze(second.data(), second.size()).key) << "parameter sets alone make no key frame";
    EXPECT_EQ(analyzer.Sps(), newSps);
    EXPECT_EQ(analyzer.Pps(), newPps);
    analyzer.Reset();
    EXPECT_FALSE(analyzer.HasParameterSets());

    const Bytes mixed = Concat({AnnexB({kSps, kPps}), {0, 0, 1}, kIdr});
    std::vector<uint8_t> out = {9, 9, 9};
    EXPECT_EQ(kiv::AnnexBToLengthPrefixed(mixed.data(), mixed.size(), &out), 3u);
    EXPECT_EQ(out, LengthPrefixed({kSps, kPps, kIdr}));
    EXPECT_EQ(kiv::AnnexBToLengthPrefixed(kIdr.data(), kIdr.size(), &out), 0u) << "no start code";
    EXPECT_TRUE(out.empty());
}

// Profile, level and size of encoder output are also compared with ffprobe's
// reading in the round-trip tests; these cover what x264 does not write.
// {parsed, profile, constraints, level, chroma, luma and chroma depth, size parsed, width, height}
TEST(H264Sps, FieldsOfHandBuiltParameterSets) {
    const struct {
        const char* what;
        Bytes nal;
        std::vector<int> expected;
    } cases[] = {
        {"main profile stops after the level fields", kSps, {1, 77, 0x40, 31, 1, 8, 8, 1, 320, 240}},
        {"only profile, level and id present", {0x67, 77, 0x40, 31, 0x80}, {1, 77, 0x40, 31, 1, 8, 8, 0, 0, 0}},
        {"high 1080p with scaling lists, 1088 cropped by 4 units of 2 lines", Sps([](SpsFields& f) {
             f.profile = 100, f.level = 40, f.scalingLists = true, f.widthMbsMinus1 = 119, f.heightUnitsMinus1 = 67;
             f.crop[3] = 4;
         }),
         {1, 100, 0x40, 40, 1, 8, 8, 1, 1920, 1080}},
        {"4:4:4 with depths, scaling lists, POC type 1, cropped in single pixels", Sps([](SpsFields& f) {
             f.profile = 244, f.chroma = 3, f.lumaMinus8 = 2, f.chromaMinus8 = 4, f.scalingLists = true, f.pocType = 1;
             f.crop[0] = 3;
         }),
         {1, 244, 0x40, 31, 3, 10, 12, 1, 317, 240}},
        {"separate colour planes crop in single pixels both ways",
         Sps([](SpsFields& f) { f.profile = 244, f.chroma = 3, f.separatePlanes = true, f.crop[0] = 3, f.crop[3] = 2; }),
         {1, 244, 0x40, 31, 3, 8, 8, 1, 317, 238}},
        {"interlaced: 18 map units of 32 lines, cropped by 2 units of 4 lines",
         Sps([](SpsFields& f) { f.frameMbsOnly = false, f.heightUnitsMinus1 = 17, f.crop[3] = 2; }),
         {1, 77, 0x40, 31, 1, 8, 8, 1, 320, 568}},
        {"profile 144 is deliberately not one with chroma fields", Sps([](SpsFields& f) { f.profile = 144; }),
         {1, 144, 0x40, 31, 1, 8, 8, 1, 320, 240}},
        // profile 100, constraints 0, level 0: the two zero bytes are escaped;
        // then 1 (id 0), 010 (chroma 1), 011 (luma +2), 1.
        {"emulation prevention bytes are removed", {0x67, 100, 0x00, 0x00, 0x03, 0xA7, 0x80},
         {1, 100, 0, 0, 1, 10, 8, 0, 0, 0}},
        {"a size beyond any level keeps the header fields only", Sps([](SpsFields& f) { f.widthMbsMinus1 = 100000; }),
         {1, 77, 0x40, 31, 1, 8, 8, 0, 0, 0}},
        {"cropped away entirely", Sps([](SpsFields& f) { f.crop[0] = 100, f.crop[1] = 100; }),
         {1, 77, 0x40, 31, 1, 8, 8, 0, 0, 0}},
    };
    for (const auto& c : cases) EXPECT_EQ(Summary(c.nal), c.expected) << c.what;
}

TEST(H264Sps, MalformedInputIsRejected) {
    kiv::H264SpsInfo info;
    const Bytes absurdDepth = Sps([](SpsFields& f) { f.profile = 100, f.lumaMinus8 = 40; });
    const Bytes cases[] = {
        {0x67, 100, 0},  // too short
        {0x67, 0, 0, 3},  // escapes leave too few bytes
        {0x67, 100, 0, 31, 0, 0, 3, 0, 0, 3, 0, 0, 3, 0, 0x01},  // 40 leading zero bits: no Exp-Golomb code
        absurdDepth,
    };
    for (const Bytes& c : cases) EXPECT_FALSE(kiv::ParseH264Sps(c.data(), c.size(), &info)) << c.size();
    EXPECT_FALSE(kiv::ParseH264Sps(nullptr, 100, &info));
    EXPECT_EQ(info.chromaFormat, 1) << "a refused bit depth leaves the defaults";
    EXPECT_EQ(info.lumaBitDepth, 8);

    // Every prefix of a valid SPS is read without going past its end.
    const Bytes sps = Sps([](SpsFields& f) { f.profile = 100, f.scalingLists = true; });
    for (size_t n = 0; n <= sps.size(); ++n) {
        Bytes prefix(sps.begin(), sps.begin() + long(n));
        prefix.shrink_to_fit();
        kiv::ParseH264Sps(prefix.data(), prefix.size(), &info);
    }
}

}  // namespace
