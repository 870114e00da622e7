// Framing detection, parameter-set capture and SPS reading on hand-built
// streams; real encoder output is checked in the round-trip tests.
#include <gtest/gtest.h>

#include "h264_stream.h"
#include "stream_test_util.h"

using namespace streamtest;

namespace {

struct SpsFields {
    uint32_t profile = 77;
    uint32_t constraints = 0x40;
    uint32_t level = 31;
    uint32_t chroma = 1;
    bool separatePlanes = false;  // 4:4:4 coded as three monochrome pictures
    uint32_t lumaMinus8 = 0;
    uint32_t chromaMinus8 = 0;
    bool scalingLists = false;
    uint32_t pocType = 0;
    uint32_t widthMbsMinus1 = 19;
    uint32_t heightUnitsMinus1 = 14;
    bool frameMbsOnly = true;
    uint32_t crop[4] = {0, 0, 0, 0};  // left, right, top, bottom
};

bool HasChromaInfo(uint32_t profile) {
    for (uint32_t p : {44u, 83u, 86u, 100u, 110u, 118u, 122u, 128u, 134u, 138u, 139u, 244u}) {
        if (p == profile) return true;
    }
    return false;
}

Bytes SpsRbsp(const SpsFields& f) {
    BitWriter w;
    w.Bits(f.profile, 8);
    w.Bits(f.constraints, 8);
    w.Bits(f.level, 8);
    w.Ue(0);  // seq_parameter_set_id
    if (HasChromaInfo(f.profile)) {
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
                if (present) {
                    for (int j = 0; j < (i < 6 ? 16 : 64); ++j) w.Se(j % 5 - 2);
                }
            }
        }
    }
    w.Ue(0);  // log2_max_frame_num_minus4
    w.Ue(f.pocType);
    if (f.pocType == 0) {
        w.Ue(2);
    } else if (f.pocType == 1) {
        w.Bit(0);
        w.Se(-3);
        w.Se(4);
        w.Ue(2);
        w.Se(1);
        w.Se(-1);
    }
    w.Ue(1);  // max_num_ref_frames
    w.Bit(0);
    w.Ue(f.widthMbsMinus1);
    w.Ue(f.heightUnitsMinus1);
    w.Bit(f.frameMbsOnly);
    if (!f.frameMbsOnly) w.Bit(0);
    w.Bit(1);
    const bool cropping = f.crop[0] || f.crop[1] || f.crop[2] || f.crop[3];
    w.Bit(cropping);
    if (cropping) {
        for (uint32_t c : f.crop) w.Ue(c);
    }
    w.Bit(0);  // no VUI
    return w.Finish();
}

Bytes SpsNal(const SpsFields& f) { return Nal(0x67, SpsRbsp(f)); }

kiv::H264SpsInfo Parse(const Bytes& nal) {
    kiv::H264SpsInfo info;
    kiv::ParseH264Sps(nal.data(), nal.size(), &info);
    return info;
}

const Bytes kPps = {0x68, 0xEE, 0x3C, 0x80};
const Bytes kIdr = {0x65, 0x88, 0x84, 0x00, 0x33, 0x21};
const Bytes kSlice = {0x41, 0x9A, 0x02, 0x04};

}  // namespace

Bytes Concat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const Bytes& p : parts) out.insert(out.end(), p.begin(), p.end());
    return out;
}

TEST(H264Framing, EachFramingIsRecognisedAndRewrittenAsAnnexB) {
    const Bytes sps = SpsNal(SpsFields());
    const Bytes idr = {0x65, 0x11, 0x22, 0x33, 0x44};
    Bytes longSlice(300, 0x5A);  // its length reads 00 00 01 2C: still AVCC
    longSlice[0] = 0x41;
    Bytes lookalike = {0, 0, 1, 0x41, 0x9A};
    // 00 00 01 41 also reads as a length of 321, and 321 bytes follow; but
    // that "unit" would start with 9A, whose forbidden bit is set.
    lookalike.resize(4 + 0x141, 0x55);
    const Bytes lookalikeSample = AnnexB({Bytes(lookalike.begin() + 3, lookalike.end())});
    const Bytes tooLong = {0, 0, 0, 6, 0x65, 0x11, 0x22, 0x33, 0x44};  // one byte past the end
    const struct {
        const char* name;
        Bytes input;
        int source, nalCount, firstNalType;
        bool key;
        Bytes sample;  // every unit behind 00 00 00 01
    } cases[] = {
        {"mixed start codes", Concat({AnnexB({sps, kPps}), {0, 0, 1}, kIdr}), kiv::kH264SourceAnnexB, 3, 7, true,
         AnnexB({sps, kPps, kIdr})},
        {"leading junk, trailing zeros", Concat({{0x12, 0x34}, AnnexB({kSlice, kSlice}), {0, 0, 0}}),
         kiv::kH264SourceAnnexB, 2, 1, false, AnnexB({kSlice, kSlice})},
        {"length prefixed", LengthPrefixed({idr}), kiv::kH264SourceAvcc, 1, 5, true, AnnexB({idr})},
        {"length prefixed, 300-byte unit", LengthPrefixed({sps, kPps, longSlice}), kiv::kH264SourceAvcc, 3, 7, false,
         AnnexB({sps, kPps, longSlice})},
        {"3-byte start code that reads as a length", lookalike, kiv::kH264SourceAnnexB, 1, 1, false, lookalikeSample},
        {"length past the end: one bare unit", tooLong, kiv::kH264SourceSingleNal, 1, 0, false, AnnexB({tooLong})},
        {"bare unit", kIdr, kiv::kH264SourceSingleNal, 1, 5, true, AnnexB({kIdr})},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        kiv::H264StreamAnalyzer analyzer;
        const kiv::H264FrameInfo info = analyzer.Analyze(c.input.data(), c.input.size());
        EXPECT_EQ(info.source, c.source);
        EXPECT_EQ(info.nalCount, c.nalCount);
        EXPECT_EQ(info.firstNalType, c.firstNalType);
        EXPECT_EQ(info.key, c.key);
        EXPECT_EQ(analyzer.Sample(), c.sample);
        EXPECT_EQ(analyzer.HasParameterSets(), c.firstNalType == 7);
        if (c.firstNalType == 7) {
            EXPECT_EQ(analyzer.Sps(), sps);
            EXPECT_EQ(analyzer.Pps(), kPps);
        }
    }
}

TEST(H264Framing, EmptyInputAndParameterSetReplacement) {
    kiv::H264StreamAnalyzer analyzer;
    const Bytes first = AnnexB({SpsNal(SpsFields()), kPps, kIdr});
    analyzer.Analyze(first.data(), first.size());
    kiv::H264FrameInfo info = analyzer.Analyze(nullptr, 10);
    EXPECT_EQ(info.source, kiv::kH264SourceUnknown);
    EXPECT_EQ(info.firstNalType, -1);
    EXPECT_TRUE(analyzer.Sample().empty());
    EXPECT_TRUE(analyzer.HasParameterSets());  // kept across frames

    SpsFields high;
    high.profile = 100;
    const Bytes newSps = SpsNal(high);
    const Bytes newPps = {0x68, 0xCE, 0x01};
    const Bytes second = AnnexB({newSps, newPps, kSlice});
    info = analyzer.Analyze(second.data(), second.size());
    EXPECT_FALSE(info.key);  // parameter sets alone do not make a key frame
    EXPECT_EQ(analyzer.Sps(), newSps);
    EXPECT_EQ(analyzer.Pps(), newPps);

    analyzer.Reset();
    EXPECT_FALSE(analyzer.HasParameterSets());
}

TEST(H264Framing, LengthPrefixedConversion) {
    const Bytes sps = SpsNal(SpsFields());
    Bytes annexB = AnnexB({sps, kPps});
    annexB.insert(annexB.end(), {0, 0, 1});
    annexB.insert(annexB.end(), kIdr.begin(), kIdr.end());
    std::vector<uint8_t> out = {9, 9, 9};
    EXPECT_EQ(kiv::AnnexBToLengthPrefixed(annexB.data(), annexB.size(), &out), 3u);
    EXPECT_EQ(out, LengthPrefixed({sps, kPps, kIdr}));

    const Bytes noStartCode = {0x65, 1, 2, 3};
    EXPECT_EQ(kiv::AnnexBToLengthPrefixed(noStartCode.data(), noStartCode.size(), &out), 0u);
    EXPECT_TRUE(out.empty());
}

// Everything the reader reports, in one comparable list: parsed, profile,
// constraint flags, level, chroma format, luma and chroma depth, size parsed,
// width, height.
std::vector<int> Summary(const kiv::H264SpsInfo& i) {
    return {i.parsed, i.profile, i.constraintFlags, i.level, i.chromaFormat, i.lumaBitDepth, i.chromaBitDepth,
            i.sizeParsed, i.width, i.height};
}

// Profile, level and size of encoder output are also compared with ffprobe's
// reading in the round-trip tests; these cover what x264 does not write.
TEST(H264Sps, FieldsOfHandBuiltParameterSets) {
    auto with = [](void (*edit)(SpsFields&)) {
        SpsFields f;
        edit(f);
        return SpsNal(f);
    };
    const struct {
        const char* what;
        Bytes nal;
        std::vector<int> expected;
    } cases[] = {
        {"main profile stops after the level fields", SpsNal(SpsFields()), {1, 77, 0x40, 31, 1, 8, 8, 1, 320, 240}},
        {"only profile, level and id present", {0x67, 77, 0x40, 31, 0x80}, {1, 77, 0x40, 31, 1, 8, 8, 0, 0, 0}},
        {"high 1080p with scaling lists, 1088 cropped by 4 units of 2 lines",
         with([](SpsFields& f) {
             f.profile = 100; f.level = 40; f.scalingLists = true; f.widthMbsMinus1 = 119; f.heightUnitsMinus1 = 67;
             f.crop[3] = 4;
         }),
         {1, 100, 0x40, 40, 1, 8, 8, 1, 1920, 1080}},
        {"4:4:4 with depths, scaling lists, POC type 1, cropped in single pixels",
         with([](SpsFields& f) {
             f.profile = 244; f.chroma = 3; f.lumaMinus8 = 2; f.chromaMinus8 = 4; f.scalingLists = true; f.pocType = 1;
             f.crop[0] = 3;
         }),
         {1, 244, 0x40, 31, 3, 10, 12, 1, 317, 240}},
        {"separate colour planes crop in single pixels both ways",
         with([](SpsFields& f) { f.profile = 244; f.chroma = 3; f.separatePlanes = true; f.crop[0] = 3; f.crop[3] = 2; }),
         {1, 244, 0x40, 31, 3, 8, 8, 1, 317, 238}},
        {"interlaced: 18 map units of 32 lines, cropped by 2 units of 4 lines",
         with([](SpsFields& f) { f.frameMbsOnly = false; f.heightUnitsMinus1 = 17; f.crop[3] = 2; }),
         {1, 77, 0x40, 31, 1, 8, 8, 1, 320, 568}},
        {"profile 144 is deliberately not one with chroma fields", with([](SpsFields& f) { f.profile = 144; }),
         {1, 144, 0x40, 31, 1, 8, 8, 1, 320, 240}},
    };
    for (const auto& c : cases) EXPECT_EQ(Summary(Parse(c.nal)), c.expected) << c.what;
}

TEST(H264Sps, EmulationPreventionBytesAreRemoved) {
    // profile 100, constraints 0, level 0: the encoder escapes the two zero
    // bytes; the reader must see 1 (id 0), 010 (chroma 1), 011 (luma +2), 1.
    const Bytes sps = {0x67, 100, 0x00, 0x00, 0x03, 0xA7, 0x80};
    const kiv::H264SpsInfo info = Parse(sps);
    EXPECT_TRUE(info.parsed);
    EXPECT_EQ(info.level, 0);
    EXPECT_EQ(info.chromaFormat, 1);
    EXPECT_EQ(info.lumaBitDepth, 10);
    EXPECT_EQ(info.chromaBitDepth, 8);
}

TEST(H264Sps, MalformedInputIsRejected) {
    kiv::H264SpsInfo info;
    const Bytes tiny = {0x67, 100, 0};
    EXPECT_FALSE(kiv::ParseH264Sps(tiny.data(), tiny.size(), &info));
    EXPECT_FALSE(kiv::ParseH264Sps(nullptr, 100, &info));
    // Escapes leave too few bytes.
    const Bytes escaped = {0x67, 0, 0, 3};
    EXPECT_FALSE(kiv::ParseH264Sps(escaped.data(), escaped.size(), &info));

    // High profile cut off inside the bit depths.
    Bytes full = SpsNal([] { SpsFields f; f.profile = 100; f.lumaMinus8 = 40; return f; }());
    EXPECT_FALSE(kiv::ParseH264Sps(full.data(), full.size(), &info)) << "bit depth 48 is absurd";
    EXPECT_EQ(info.chromaFormat, 1);
    EXPECT_EQ(info.lumaBitDepth, 8);

    // 40 leading zero bits cannot start an Exp-Golomb code of a real stream.
    const Bytes zeros = {0x67, 100, 0, 31, 0, 0, 3, 0, 0, 3, 0, 0, 3, 0, 0x01};
    EXPECT_FALSE(kiv::ParseH264Sps(zeros.data(), zeros.size(), &info));

    // A picture size beyond any level keeps the header fields, not the size.
    SpsFields huge;
    huge.widthMbsMinus1 = 100000;
    info = Parse(SpsNal(huge));
    EXPECT_TRUE(info.parsed);
    EXPECT_FALSE(info.sizeParsed);
    EXPECT_EQ(info.width, 0);

    SpsFields overCropped;
    overCropped.crop[0] = 100;
    overCropped.crop[1] = 100;
    info = Parse(SpsNal(overCropped));
    EXPECT_FALSE(info.sizeParsed);

    // Every prefix of a valid SPS is read without going past its end.
    SpsFields hd;
    hd.profile = 100;
    hd.scalingLists = true;
    const Bytes sps = SpsNal(hd);
    for (size_t n = 0; n <= sps.size(); ++n) {
        Bytes prefix(sps.begin(), sps.begin() + long(n));
        prefix.shrink_to_fit();
        kiv::ParseH264Sps(prefix.data(), prefix.size(), &info);
    }
}
