// The cube reader, through both of its users (the colour engine's table and
// the render port's texels), and whole files through non-ASCII paths.
#include <gtest/gtest.h>

#include "kiv_cube_lut.h"
#include "processing_test_helpers.h"

namespace {

using kiv::ParseCubeForColorEngine;
using kiv::ParseCubeForRender;

std::string Lines(int count, const char* line = "0.5 0.5 0.5\n") {
    std::string text;
    while (count-- > 0) text += line;
    return text;
}

// Parses with both users: {engine ok, render ok}.
std::pair<bool, bool> ParseBoth(const std::string& text, Kiv3DLutData* e = nullptr, KivRenderLutData* r = nullptr) {
    Kiv3DLutData e2;
    KivRenderLutData r2;
    return {ParseCubeForColorEngine(text.c_str(), e ? e : &e2), ParseCubeForRender(text.c_str(), r ? r : &r2)};
}

TEST(CubeParse, WhichFilesAreAccepted) {
    const std::pair<bool, bool> both(true, true), neither(false, false);
    std::string longTail(1100, ' ');  // 1023 characters survive; numbers beyond them are lost
    longTail.replace(1050, 11, "0.9 0.9 0.9");
    const struct {
        const char* what;
        std::string text;
        std::pair<bool, bool> expected;
    } cases[] = {
        {"size 2", "LUT_3D_SIZE 2\n" + Lines(8), both},
        {"size 1", "LUT_3D_SIZE 1\n" + Lines(8), neither},
        {"size 129", "LUT_3D_SIZE 129\n" + Lines(8), neither},
        {"size -2", "LUT_3D_SIZE -2\n" + Lines(8), neither},
        {"a later size line replaces an earlier one", "LUT_3D_SIZE 3\nLUT_3D_SIZE 2\n" + Lines(8), both},
        {"a late size line needing more entries", Lines(8) + "LUT_3D_SIZE 3\n", neither},
        {"a bad size line after the data still fails", Lines(8) + "LUT_3D_SIZE 129\n", neither},
        {"too few entries for the size", "LUT_3D_SIZE 3\n" + Lines(26), neither},
        {"no size: 999 entries are no cube", Lines(999), neither},
        {"no size: one entry would be N = 1", Lines(1), neither},
        {"empty", "", neither},
        {"inverted domain: the engine takes it, the render does not",
         "DOMAIN_MIN 1 1 1\nDOMAIN_MAX 0 0 0\n" + Lines(8), {true, false}},
        {"empty domain axis", "DOMAIN_MIN 0 0 0\nDOMAIN_MAX 1 0 1\n" + Lines(8), neither},
        {"numbers past the line buffer are lost", "LUT_3D_SIZE 2\n" + longTail + "\n" + Lines(7), neither},
        {"a title with numbers is no entry", "TITLE 1 2 3\n" + Lines(8), both},
        {"letters after the numbers", "0.5 0.5 0.5TITLE\n" + Lines(7), both},
        {"out-of-range numbers still make an entry", "LUT_3D_SIZE 2\n1e39 -1e39 1e-50\n" + Lines(7), both},
        {"a sign twice is no number", "LUT_3D_SIZE 2\n--1 0 0\n" + Lines(7), neither},
    };
    for (const auto& c : cases) EXPECT_EQ(ParseBoth(c.text), c.expected) << c.what;
    Kiv3DLutData e;
    ASSERT_TRUE(ParseCubeForColorEngine((Lines(8) + "LUT_3D_SIZE 2\n").c_str(), &e));  // a late size line counts
    EXPECT_EQ(e.dim, 2);
}

TEST(CubeParse, EdgeLengthEntryOrderAndIgnoredLines) {
    Kiv3DLutData e;
    ASSERT_TRUE(ParseCubeForColorEngine(Lines(35937).c_str(), &e));
    EXPECT_EQ(e.dim, 33);
    // A line with only two numbers is not an entry; entries beyond the size are ignored.
    ASSERT_TRUE(ParseCubeForColorEngine((Lines(500) + "0.1 0.2\n" + Lines(500)).c_str(), &e));
    EXPECT_EQ(e.dim, 10);
    ASSERT_TRUE(ParseCubeForColorEngine(("LUT_3D_SIZE 17\n" + Lines(4913) + Lines(10, "0.9 0.9 0.9\n")).c_str(), &e));
    EXPECT_EQ(e.values.size(), 4913u * 3);
    EXPECT_FLOAT_EQ(e.values.back(), 0.5f);
    // Entry r + N * (g + N * b) is (r, g, b) / (N - 1): red runs fastest.
    ASSERT_TRUE(ParseCubeForColorEngine(proctest::CubeText(3, [](float r, float g, float b, float* o) {
                                            o[0] = r, o[1] = g, o[2] = b;
                                        }).c_str(), &e));
    EXPECT_EQ(std::vector<float>(e.values.begin() + 21, e.values.begin() + 24), (std::vector<float>{0.5f, 1, 0}));
    const std::string messy =
        "# a comment line\r\nTITLE \"warm 1 2 3\"\r\n\t LUT_3D_SIZE 2   # size\r\nLUT_1D_SIZE 1024\r\n"
        "\r\n   \t\r\n\t0.1 0.2 0.3 # first entry\r\n0.4\t0.5\t0.6 trailing words are ignored\r\n"
        "0.25 0.25 0.25" + std::string(2000, ' ') + "0.7 0.7 0.7\n" + Lines(5);
    ASSERT_TRUE(ParseCubeForColorEngine(messy.c_str(), &e));
    EXPECT_EQ(std::vector<float>(e.values.begin(), e.values.begin() + 9),
              (std::vector<float>{0.1f, 0.2f, 0.3f, 0.4f, 0.5f, 0.6f, 0.25f, 0.25f, 0.25f}));
}

TEST(CubeParse, ValuesAreClampedAndStoredInEachUsersFormat) {
    const std::string text = "DOMAIN_MIN -0.5 0 0.25\nDOMAIN_MAX 2 1e0 0.75\nLUT_3D_SIZE 2\n1.7 -0.2 0.5\n0.25 1 0\n" +
                             Lines(4) + "1e39 -1e39 1e-50\nnan 1e-1 2.5E-1\n";
    Kiv3DLutData e;
    KivRenderLutData r;
    ASSERT_EQ(ParseBoth(text, &e, &r), std::make_pair(true, true));
    EXPECT_EQ(std::vector<float>(e.domainMin, e.domainMin + 3), (std::vector<float>{-0.5f, 0, 0.25f}));
    EXPECT_EQ(std::vector<float>(r.domainMax, r.domainMax + 3), (std::vector<float>{2, 1, 0.75f}));
    // Clamped to 0..1; bytes and 16-bit texels rounded to nearest, texels
    // with an opaque fourth channel; infinities clamp, not-a-number is 0.
    EXPECT_EQ(std::vector<float>(e.values.begin(), e.values.begin() + 6), (std::vector<float>{1, 0, 0.5f, 0.25f, 1, 0}));
    EXPECT_EQ(std::vector<uint8_t>(e.bytes.begin(), e.bytes.begin() + 6), (std::vector<uint8_t>{255, 0, 128, 64, 255, 0}));
    EXPECT_EQ(std::vector<uint16_t>(r.texels.begin(), r.texels.begin() + 8),
              (std::vector<uint16_t>{65535, 0, 32768, 65535, 16384, 65535, 0, 65535}));
    EXPECT_EQ(std::vector<float>(e.values.begin() + 18, e.values.end()), (std::vector<float>{1, 0, 0, 0, 0.1f, 0.25f}));
    EXPECT_EQ(r.texels.size(), 8u * 4);

    // Failures and bad arguments leave the output alone.
    Kiv3DLutData fe;
    KivRenderLutData fr;
    EXPECT_EQ(ParseBoth("LUT_3D_SIZE 3\n" + Lines(8), &fe, &fr), std::make_pair(false, false));
    EXPECT_EQ(fe.dim, 0);
    EXPECT_TRUE(fe.values.empty() && fe.bytes.empty() && fr.texels.empty());
    EXPECT_FLOAT_EQ(fe.domainMax[1], 1.0f);
    EXPECT_FALSE(ParseCubeForColorEngine(nullptr, &fe));
    EXPECT_FALSE(ParseCubeForColorEngine("", nullptr));
    EXPECT_FALSE(ParseCubeForRender(nullptr, &fr));
    EXPECT_FALSE(ParseCubeForRender("", nullptr));
}

TEST(CubeFile, ReadsWholeFilesThroughNonAsciiPaths) {
    const std::string dir = kivtest::TempDir("cube_files") + "/Farbtöne カラー";
    std::filesystem::create_directories(std::filesystem::u8path(dir));
    const std::string body = "LUT_3D_SIZE 2\r\n" + Lines(8);
    kivtest::WriteFile(dir + "/grade ä.cube", body);
    kivtest::WriteFile(dir + "/empty.cube", "");
    std::vector<char> text;
    ASSERT_TRUE(kiv::ReadWholeFile(kivtest::Wide(dir + "/grade ä.cube").c_str(), &text));
    EXPECT_EQ(std::string(text.data(), text.size()), body + '\0');
    ASSERT_TRUE(kiv::ReadWholeFile(kivtest::Wide(dir + "/empty.cube").c_str(), &text));
    EXPECT_EQ(text, std::vector<char>{'\0'});
    EXPECT_FALSE(kiv::ReadWholeFile(kivtest::Wide(dir + "/missing.cube").c_str(), &text));
    EXPECT_FALSE(kiv::ReadWholeFile(nullptr, &text));
    const KivWChar empty[] = {0};
    EXPECT_FALSE(kiv::ReadWholeFile(empty, &text));
}

}  // namespace
