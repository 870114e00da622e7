#include <gtest/gtest.h>

#include <cmath>

#include "kiv_cube_lut.h"
#include "processing_test_helpers.h"

namespace {

using kiv::ParseCubeForColorEngine;
using kiv::ParseCubeForRender;

std::string DataLines(int count, float value = 0.5f) {
    std::string text;
    char line[64];
    for (int i = 0; i < count; ++i) {
        std::snprintf(line, sizeof line, "%g %g %g\n", value, value, value);
        text += line;
    }
    return text;
}

// Parses with both users; returns {engine ok, render ok}.
std::pair<bool, bool> ParseBoth(const std::string& text, Kiv3DLutData* engine = nullptr,
                                KivRenderLutData* render = nullptr) {
    Kiv3DLutData e;
    KivRenderLutData r;
    const bool a = ParseCubeForColorEngine(text.c_str(), engine ? engine : &e);
    const bool b = ParseCubeForRender(text.c_str(), render ? render : &r);
    return {a, b};
}

TEST(CubeParse, SizeLineOutOfRangeFailsEvenWithData) {
    EXPECT_EQ(ParseBoth("LUT_3D_SIZE 1\n" + DataLines(8)), std::make_pair(false, false));
    EXPECT_EQ(ParseBoth("LUT_3D_SIZE 129\n" + DataLines(8)), std::make_pair(false, false));
    EXPECT_EQ(ParseBoth("LUT_3D_SIZE -2\n" + DataLines(8)), std::make_pair(false, false));
    EXPECT_EQ(ParseBoth("LUT_3D_SIZE 2\n" + DataLines(8)), std::make_pair(true, true));
    // A later valid size line replaces an earlier one.
    EXPECT_EQ(ParseBoth("LUT_3D_SIZE 3\nLUT_3D_SIZE 2\n" + DataLines(8)), std::make_pair(true, true));
}

TEST(CubeParse, EdgeLengthIsInferredFromTheEntryCount) {
    Kiv3DLutData lut;
    ASSERT_TRUE(ParseCubeForColorEngine(DataLines(35937).c_str(), &lut));
    EXPECT_EQ(lut.dim, 33);
    EXPECT_EQ(lut.values.size(), 35937u * 3);
    // A line with only two numbers is not an entry.
    ASSERT_TRUE(ParseCubeForColorEngine((DataLines(500) + "0.1 0.2\n" + DataLines(500)).c_str(), &lut));
    EXPECT_EQ(lut.dim, 10);
    EXPECT_EQ(ParseBoth(DataLines(999)), std::make_pair(false, false));
    EXPECT_EQ(ParseBoth(DataLines(1)), std::make_pair(false, false));  // N would be 1
}

TEST(CubeParse, EntriesBeyondTheSizeAreIgnoredAndTooFewFail) {
    Kiv3DLutData lut;
    ASSERT_TRUE(ParseCubeForColorEngine(("LUT_3D_SIZE 17\n" + DataLines(4913) + DataLines(10, 0.9f)).c_str(), &lut));
    EXPECT_EQ(lut.dim, 17);
    EXPECT_EQ(lut.values.size(), 4913u * 3);
    EXPECT_FLOAT_EQ(lut.values.back(), 0.5f);
    EXPECT_EQ(ParseBoth("LUT_3D_SIZE 17\n" + DataLines(4912)), std::make_pair(false, false));
}

TEST(CubeParse, DomainChecksDifferBetweenTheTwoUsers) {
    const std::string data = DataLines(8);
    EXPECT_EQ(ParseBoth("DOMAIN_MIN 0 0 0\nDOMAIN_MAX 1 0 1\n" + data), std::make_pair(false, false));
    EXPECT_EQ(ParseBoth("DOMAIN_MIN 1 1 1\nDOMAIN_MAX 0 0 0\n" + data), std::make_pair(true, false));
    Kiv3DLutData e;
    KivRenderLutData r;
    ASSERT_EQ(ParseBoth("DOMAIN_MIN -0.5 0 0.25\nDOMAIN_MAX 2 1e0 0.75\n" + data, &e, &r), std::make_pair(true, true));
    EXPECT_FLOAT_EQ(e.domainMin[0], -0.5f);
    EXPECT_FLOAT_EQ(e.domainMin[2], 0.25f);
    EXPECT_FLOAT_EQ(e.domainMax[0], 2.0f);
    EXPECT_FLOAT_EQ(r.domainMax[2], 0.75f);
}

TEST(CubeParse, ValuesAreClampedAndStoredInEachUsersFormat) {
    const std::string text = "LUT_3D_SIZE 2\n1.7 -0.2 0.5\n0.25 1 0\n" + DataLines(5) + "nan 1e-1 2.5E-1\n";
    Kiv3DLutData e;
    KivRenderLutData r;
    ASSERT_EQ(ParseBoth(text, &e, &r), std::make_pair(true, true));
    // Clamped to 0..1; bytes and 16-bit texels rounded to nearest, texels
    // with an opaque fourth channel.
    EXPECT_EQ(std::vector<float>(e.values.begin(), e.values.begin() + 6), (std::vector<float>{1, 0, 0.5f, 0.25f, 1, 0}));
    EXPECT_EQ(std::vector<uint8_t>(e.bytes.begin(), e.bytes.begin() + 6), (std::vector<uint8_t>{255, 0, 128, 64, 255, 0}));
    EXPECT_EQ(std::vector<uint16_t>(r.texels.begin(), r.texels.begin() + 8),
              (std::vector<uint16_t>{65535, 0, 32768, 65535, 16384, 65535, 0, 65535}));
    // The last entry: not-a-number becomes 0, exponent forms are read.
    EXPECT_FLOAT_EQ(e.values[21], 0.0f);
    EXPECT_FLOAT_EQ(e.values[22], 0.1f);
    EXPECT_FLOAT_EQ(e.values[23], 0.25f);
    EXPECT_EQ(r.texels.size(), 8u * 4);
}

TEST(CubeParse, LinesAreCleanedOfCommentsBlanksAndCarriageReturns) {
    std::string text =
        "# a comment line\r\n"
        "TITLE \"warm 1 2 3\"\r\n"
        "\t LUT_3D_SIZE 2   # size\r\n"
        "LUT_1D_SIZE 1024\r\n"
        "\r\n   \t\r\n"
        "\t0.1 0.2 0.3 # first entry\r\n"
        "0.4\t0.5\t0.6 trailing words are ignored\r\n";
    text += DataLines(6);
    Kiv3DLutData e;
    KivRenderLutData r;
    ASSERT_EQ(ParseBoth(text, &e, &r), std::make_pair(true, true));
    EXPECT_FLOAT_EQ(e.values[0], 0.1f);
    EXPECT_FLOAT_EQ(e.values[2], 0.3f);
    EXPECT_FLOAT_EQ(e.values[3], 0.4f);
    EXPECT_FLOAT_EQ(e.values[5], 0.6f);
}

TEST(CubeParse, TitleWithNumbersIsSkippedByTheRenderUserOnly) {
    // Neither parser sees numbers in a title line; the render reader skips it
    // explicitly, the engine's number pattern simply fails on it.
    const std::string text = "TITLE 1 2 3\n" + DataLines(8);
    Kiv3DLutData e;
    KivRenderLutData r;
    ASSERT_EQ(ParseBoth(text, &e, &r), std::make_pair(true, true));
    EXPECT_EQ(e.dim, 2);
    EXPECT_EQ(r.dim, 2);
    // A line starting with a number and the letters after it is an entry.
    EXPECT_EQ(ParseBoth("0.5 0.5 0.5TITLE\n" + DataLines(7)), std::make_pair(true, true));
}

TEST(CubeParse, OverlongLinesLoseTheirTailNotTheNextLine) {
    // 1023 characters survive; the three numbers sit beyond them and are lost.
    std::string longLine(1100, ' ');
    longLine.replace(1050, 14, "0.9 0.9 0.9   ");
    EXPECT_EQ(ParseBoth("LUT_3D_SIZE 2\n" + longLine + "\n" + DataLines(7)), std::make_pair(false, false));
    // Numbers at the front of an over-long line still count, and the line
    // after it is read normally.
    std::string frontLine = "0.25 0.25 0.25" + std::string(2000, ' ') + "0.7 0.7 0.7";
    Kiv3DLutData e;
    ASSERT_TRUE(ParseCubeForColorEngine(("LUT_3D_SIZE 2\n" + frontLine + "\n" + DataLines(7)).c_str(), &e));
    EXPECT_FLOAT_EQ(e.values[0], 0.25f);
    EXPECT_FLOAT_EQ(e.values[3], 0.5f);
}

TEST(CubeParse, FailuresLeaveTheOutputAsTheCallerSetItUp) {
    Kiv3DLutData e;
    KivRenderLutData r;
    EXPECT_EQ(ParseBoth("", &e, &r), std::make_pair(false, false));
    EXPECT_EQ(ParseBoth("LUT_3D_SIZE 3\n" + DataLines(8), &e, &r), std::make_pair(false, false));
    EXPECT_EQ(e.dim, 0);
    EXPECT_TRUE(e.values.empty());
    EXPECT_TRUE(e.bytes.empty());
    EXPECT_FLOAT_EQ(e.domainMax[1], 1.0f);
    EXPECT_TRUE(r.texels.empty());
    EXPECT_FALSE(ParseCubeForColorEngine(nullptr, &e));
    EXPECT_FALSE(ParseCubeForColorEngine("", nullptr));
    EXPECT_FALSE(ParseCubeForRender(nullptr, &r));
    EXPECT_FALSE(ParseCubeForRender("", nullptr));
}

TEST(CubeParse, EntriesAreInFileOrderRedFastest) {
    // Entry r + N * (g + N * b) is written as (r, g, b) / (N - 1).
    const std::string text = proctest::CubeText(3, [](float r, float g, float b, float* o) {
        o[0] = r;
        o[1] = g;
        o[2] = b;
    });
    Kiv3DLutData e;
    ASSERT_TRUE(ParseCubeForColorEngine(text.c_str(), &e));
    const size_t entry = 1 + 3 * (2 + 3 * 0);  // r=1, g=2, b=0
    EXPECT_FLOAT_EQ(e.values[entry * 3 + 0], 0.5f);
    EXPECT_FLOAT_EQ(e.values[entry * 3 + 1], 1.0f);
    EXPECT_FLOAT_EQ(e.values[entry * 3 + 2], 0.0f);
}

TEST(CubeFile, ReadsWholeFilesThroughNonAsciiPaths) {
    const std::string dir = kivtest::TempDir("cube_files") + "/Farbtöne カラー";
    std::filesystem::create_directories(std::filesystem::u8path(dir));
    const std::string path = dir + "/grade ä.cube";
    const std::string body = "LUT_3D_SIZE 2\r\n" + DataLines(8);
    proctest::WriteTextFile(path, body);
    std::vector<char> text;
    ASSERT_TRUE(kiv::ReadWholeFile(kivtest::Wide(path).c_str(), &text));
    ASSERT_EQ(text.size(), body.size() + 1);
    EXPECT_EQ(std::string(text.data()), body);
    EXPECT_EQ(text.back(), '\0');

    proctest::WriteTextFile(dir + "/empty.cube", "");
    ASSERT_TRUE(kiv::ReadWholeFile(kivtest::Wide(dir + "/empty.cube").c_str(), &text));
    ASSERT_EQ(text.size(), 1u);
    Kiv3DLutData e;
    EXPECT_FALSE(ParseCubeForColorEngine(text.data(), &e));

    EXPECT_FALSE(kiv::ReadWholeFile(kivtest::Wide(dir + "/missing.cube").c_str(), &text));
    EXPECT_FALSE(kiv::ReadWholeFile(nullptr, &text));
    const KivWChar empty[] = {0};
    EXPECT_FALSE(kiv::ReadWholeFile(empty, &text));
}

}  // namespace
