// Crop against the source bytes; the cube reader through both users; the colour engine port; colour arithmetic
// against the standards' formulas and known tables; engine frames against a pixel-by-pixel reference.
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <filesystem>
#include <random>

#include "processing/kiv_color_math.h"
#include "processing/kiv_lut8_fast.h"
#include "processing_test_helpers.h"

using namespace kiv::color;

namespace {

int BytesPerPixel(int32_t format) {
    return format == KIV_PIXEL_FORMAT_YUY2 ? 2 : format == KIV_PIXEL_FORMAT_RGB24 ? 3 : format == KIV_PIXEL_FORMAT_RGB32 ? 4 : 1;
}

// Random bytes; padded strides, or zero strides and a single NV12 buffer.
struct RandomFrame {
    std::vector<uint8_t> plane0, plane1;
    KivVideoFrame frame{};
    RandomFrame(int32_t format, int w, int h, std::mt19937& rng, bool tight) {
        const int pad = tight ? 0 : 8, chromaStride = tight ? w : ((w + 1) & ~1) + 6;
        const int stride0 = (format == KIV_PIXEL_FORMAT_YUY2 ? ((w + 1) / 2) * 4 : w * BytesPerPixel(format)) + pad;
        const size_t chromaBytes = format == KIV_PIXEL_FORMAT_NV12 ? size_t(chromaStride) * ((h + 1) / 2) + 2 : 0;
        plane0.resize(size_t(stride0) * h + (tight ? chromaBytes : 0));
        frame = kivtest::FrameOver(format, w, h, nullptr, tight ? 0 : stride0);
        frame.timestamp = 777, frame.frameIndex = 9;
        if (!tight && chromaBytes) plane1.resize(chromaBytes), frame.strides[1] = chromaStride;
        for (auto* p : {&plane0, &plane1})
            for (uint8_t& b : *p) b = uint8_t(rng());
        frame.planes[0] = plane0.data();
        frame.planes[1] = plane1.empty() ? nullptr : plane1.data();
    }
};

template <void* (*Create)()>
class PortTest : public ::testing::Test {
protected:
    void TearDown() override { KIV_DestroyPort(handle); }
    const kivtest::CaughtFrame& Run(const KivVideoFrame& in) {  // the frame passed on
        static const kivtest::CaughtFrame none;
        EXPECT_EQ(port->OnVideoFrame(&in), KIV_OK);
        return catcher.frames.empty() ? none : catcher.frames.back();
    }
    kivtest::LibraryScope library;
    void* handle = Create();
    KivPortBase* port = static_cast<KivPortBase*>(handle);
    kivtest::FrameCatcher catcher{handle};
};

void* CreateCrop() { return KIV_CreateVideoCrop(); }
struct CropTest : PortTest<CreateCrop> {
    void Configure(KivVideoCropRect rect, int enable = 1) {
        ASSERT_EQ(KIV_SetVideoCropRect(handle, &rect), KIV_OK);
        ASSERT_EQ(KIV_EnableVideoCrop(handle, enable), KIV_OK);
    }
};

TEST_F(CropTest, RectanglesAreClampedExtendedAndAligned) {
    std::mt19937 rng(3);
    const struct {
        int32_t format;
        int width, height;
        KivVideoCropRect requested, expected;
    } cases[] = {
        // A zero rectangle is the whole frame, copied with tight rows; a negative origin moves to 0; an overhanging
        // width reaches the right edge; touching the edges is kept.
        {KIV_PIXEL_FORMAT_RGB32, 64, 48, {0, 0, 0, 0}, {0, 0, 64, 48}}, {KIV_PIXEL_FORMAT_RGB32, 1920, 1080, {-10, -3, 100, 50}, {0, 0, 100, 50}},
        {KIV_PIXEL_FORMAT_RGB24, 1920, 1080, {100, 0, 2000, 0}, {100, 0, 1820, 1080}},
        {KIV_PIXEL_FORMAT_RGB32, 64, 48, {60, 40, 4, 8}, {60, 40, 4, 8}}, {KIV_PIXEL_FORMAT_RGB24, 64, 48, {63, 47, 1, 1}, {63, 47, 1, 1}},
        // YUY2 pairs pixels: x and w round down to even, rows stay as asked.
        {KIV_PIXEL_FORMAT_YUY2, 64, 48, {3, 1, 5, 3}, {2, 1, 4, 3}}, {KIV_PIXEL_FORMAT_YUY2, 64, 48, {61, 0, 0, 0}, {60, 0, 2, 48}},
        // NV12 aligns all four; chroma starts at row y / 2.
        {KIV_PIXEL_FORMAT_NV12, 64, 48, {4, 5, 6, 7}, {4, 4, 6, 6}}, {KIV_PIXEL_FORMAT_NV12, 64, 48, {3, 3, 0, 0}, {2, 2, 60, 44}},
        {KIV_PIXEL_FORMAT_NV12, 64, 48, {0, 46, 64, 2}, {0, 46, 64, 2}},
        {KIV_PIXEL_FORMAT_YUY2, 64, 48, {5, 0, 100, 0}, {4, 0, 58, 48}},  // the width is worked out before x is aligned
    };
    auto rows = [](const uint8_t* p, int stride, int count, int bytes) {  // `count` rows of `bytes` from p on
        std::vector<uint8_t> v;
        for (int i = 0; i < count; ++i) v.insert(v.end(), p + ptrdiff_t(i) * stride, p + ptrdiff_t(i) * stride + bytes);
        return v;
    };
    for (const auto& c : cases) {
        const KivVideoCropRect r = c.expected;
        SCOPED_TRACE(&c - cases);
        Configure(c.requested);
        RandomFrame in(c.format, c.width, c.height, rng, false);
        const KivVideoFrame& f = in.frame;
        const int bpp = BytesPerPixel(c.format), nv12 = c.format == KIV_PIXEL_FORMAT_NV12;
        const kivtest::CaughtFrame& out = Run(f);
        EXPECT_EQ((std::vector<int64_t>{out.meta.width, out.meta.height, out.meta.strides[0], nv12 ? out.meta.strides[1] : 0, out.meta.planes[1] != nullptr,
                                        out.meta.timestamp, int64_t(out.meta.frameIndex)}),
                  (std::vector<int64_t>{r.w, r.h, r.w * bpp, nv12 ? r.w : 0, nv12, 777, 9}));
        EXPECT_EQ(out.plane0, rows(f.planes[0] + ptrdiff_t(r.y) * f.strides[0] + r.x * bpp, f.strides[0], r.h, r.w * bpp));
        EXPECT_EQ(out.plane1, nv12 ? rows(f.planes[1] + ptrdiff_t(r.y / 2) * f.strides[1] + r.x, f.strides[1], r.h / 2, r.w) : std::vector<uint8_t>());
    }
    RandomFrame in(KIV_PIXEL_FORMAT_RGB32, 64, 48, rng, false);  // buffers grown once are reused
    Configure({0, 0, 32, 32});
    const uint8_t* first = Run(in.frame).meta.planes[0];
    Configure({0, 0, 16, 8});
    EXPECT_EQ(Run(in.frame).meta.planes[0], first);
    RandomFrame one(KIV_PIXEL_FORMAT_NV12, 32, 16, rng, true);  // chroma not given follows a full-height luma plane
    one.frame.strides[0] = 32;
    Configure({6, 4, 8, 6});
    EXPECT_EQ(Run(one.frame).plane1, rows(one.plane0.data() + 32 * 16 + 2 * 32 + 6, 32, 3, 8));
}

// Frames the crop cannot or need not cut go on as they came, never dropped.
TEST_F(CropTest, FramesItCannotCropPassUnchanged) {
    uint8_t payload[64] = {1, 2, 3};
    kivtest::OwnedFrame yuy2(KIV_PIXEL_FORMAT_YUY2, 64, 48);
    KivVideoFrame noPixels = yuy2.frame;
    noPixels.planes[0] = nullptr;
    const struct {
        int enable;
        KivVideoCropRect rect;
        KivVideoFrame frame;
    } cases[] = {
        {0, {10, 10, 20, 20}, yuy2.frame}, {1, {64, 0, 0, 0}, yuy2.frame},  // origin at the right edge
        {1, {0, 48, 0, 0}, yuy2.frame},    {1, {63, 0, 1, 0}, yuy2.frame},  // at the bottom edge; one YUY2 pixel is no pair
        {1, {0, 0, 8, 8}, noPixels},       {1, {0, 0, 0, 0}, kivtest::FrameOver(KIV_PIXEL_FORMAT_RGB32, 0, 0, payload, 0)},
        {1, {0, 0, 16, 16}, kivtest::FrameOver(KIV_PIXEL_FORMAT_H264, 640, 480, payload, 64)},
        {1, {0, 0, 16, 16}, kivtest::FrameOver(KIV_PIXEL_FORMAT_MJPG, 640, 480, payload, 64)},
    };
    for (const auto& c : cases) {
        Configure(c.rect, c.enable);
        EXPECT_EQ(Run(c.frame).record, &c.frame) << &c - cases;
    }
    EXPECT_EQ(catcher.frames.size(), std::size(cases));
    EXPECT_EQ(port->OnVideoFrame(nullptr), KIV_ERROR_INVALID_ARG);
}

// Both C-interface families: wrong handles (none, another kind of port) and bad arguments are refused and change nothing.
TEST(ProcessingApi, BadHandlesAndArgumentsAreRefused) {
    kivtest::LibraryScope library;
    void *crop = KIV_CreateVideoCrop(), *engine = KIV_CreateVideoColorEngine(), *mux = KIV_CreateVideoMux();
    KivVideoColorEngineConfig config{0, 1, 4, 1, 1, 0.5f};
    const KivVideoCropRect rect{1, 2, 3, 4};
    const auto path = kivtest::Wide("nothing.cube");
    const KivWChar empty[] = {0};
    auto cropCalls = [&](void* h) { return std::vector<int>{KIV_SetVideoCropRect(h, &rect), KIV_EnableVideoCrop(h, 1)}; };
    auto engineCalls = [&](void* h) {
        return std::vector<int>{KIV_SetVideoColorEngineConfig(h, &config), KIV_GetVideoColorEngineConfig(h, &config),
                                KIV_LoadVideoColorEngineCubeFile(h, path.c_str()), KIV_ClearVideoColorEngineLut(h)};
    };
    for (void* wrong : {static_cast<void*>(nullptr), mux, engine}) EXPECT_EQ(cropCalls(wrong), std::vector<int>(2, KIV_ERROR_INVALID_ARG));
    for (void* wrong : {static_cast<void*>(nullptr), mux, crop}) EXPECT_EQ(engineCalls(wrong), std::vector<int>(4, KIV_ERROR_INVALID_ARG));
    const std::pair<KivVideoColorEngineConfig, KivResult> configs[] = {
        {{9, 1, 5, 0, 0, 7.0f}, KIV_ERROR_UNSUPPORTED},  {{9, 1, -1, 0, 0, 7.0f}, KIV_ERROR_UNSUPPORTED},  // the format is checked first
        {{9, 1, 4, 0, 0, 7.0f}, KIV_ERROR_INVALID_ARG},  {{4, 1, 4, 0, 0, 0.5f}, KIV_ERROR_INVALID_ARG},
        {{-1, 1, 4, 0, 0, 0.5f}, KIV_ERROR_INVALID_ARG}, {{3, 1, 4, 0, 0, 1.5f}, KIV_ERROR_INVALID_ARG},
        {{3, 1, 4, 0, 0, -0.01f}, KIV_ERROR_INVALID_ARG}};
    for (const auto& c : configs) EXPECT_EQ(KIV_SetVideoColorEngineConfig(engine, &c.first), c.second) << &c - configs;
    EXPECT_EQ(std::vector<int>({KIV_SetVideoColorEngineConfig(engine, nullptr), KIV_GetVideoColorEngineConfig(engine, nullptr),
                                KIV_LoadVideoColorEngineCubeFile(engine, nullptr), KIV_LoadVideoColorEngineCubeFile(engine, empty),
                                KIV_SetVideoCropRect(crop, nullptr)}),
              std::vector<int>(5, KIV_ERROR_INVALID_ARG));
    ASSERT_EQ(KIV_GetVideoColorEngineConfig(engine, &config), KIV_OK);
    EXPECT_TRUE(config.processor == 0 && config.enable == 0 && config.outFmt == 0 && config.strength == 1.0f);
    for (void* port : {crop, engine, mux}) KIV_DestroyPort(port);
}

std::string Lines(int count) { return count > 0 ? "0.5 0.5 0.5\n" + Lines(count - 1) : ""; }

// Parses with both users: {engine ok, render ok}.
std::pair<bool, bool> ParseBoth(const std::string& text, Kiv3DLutData* e = nullptr, KivRenderLutData* r = nullptr) {
    Kiv3DLutData e2;
    KivRenderLutData r2;
    return {kiv::ParseCubeForColorEngine(text.c_str(), e ? e : &e2), kiv::ParseCubeForRender(text.c_str(), r ? r : &r2)};
}

TEST(CubeParse, WhichFilesAreAcceptedAndHowValuesAreStored) {
    const std::pair<bool, bool> both(true, true), neither(false, false);
    std::string longTail(1100, ' ');  // 1023 characters survive; numbers beyond them are lost
    longTail.replace(1050, 11, "0.9 0.9 0.9");
    const std::string messy =  // comments, keywords, CR LF, tabs and trailing words; 2000 spaces cut a line
        "# a comment line\r\nTITLE \"warm 1 2 3\"\r\n\t LUT_3D_SIZE 2   # size\r\nLUT_1D_SIZE 1024\r\n"
        "\r\n   \t\r\n\t0.1 0.2 0.3 # first entry\r\n0.4\t0.5\t0.6 trailing words are ignored\r\n"
        "0.25 0.25 0.25" + std::string(2000, ' ') + "0.7 0.7 0.7\n" + Lines(5);
    const struct {
        const char* what;
        std::string text;
        std::pair<bool, bool> expected;
    } cases[] = {
        {"size 2", "LUT_3D_SIZE 2\n" + Lines(8), both},          {"size 1", "LUT_3D_SIZE 1\n" + Lines(8), neither},
        {"size 129", "LUT_3D_SIZE 129\n" + Lines(8), neither}, {"size -2", "LUT_3D_SIZE -2\n" + Lines(8), neither},
        {"a later size line replaces an earlier one", "LUT_3D_SIZE 3\nLUT_3D_SIZE 2\n" + Lines(8), both},
        {"a late size line needing more entries", Lines(8) + "LUT_3D_SIZE 3\n", neither},
        {"a bad size line after the data still fails", Lines(8) + "LUT_3D_SIZE 129\n", neither},
        {"too few entries for the size", "LUT_3D_SIZE 3\n" + Lines(26), neither},
        {"no size: 999 entries are no cube", Lines(999), neither}, {"no size: one entry would be N = 1", Lines(1), neither}, {"empty", "", neither},
        {"inverted domain: the engine takes it, the render does not", "DOMAIN_MIN 1 1 1\nDOMAIN_MAX 0 0 0\n" + Lines(8), {true, false}},
        {"empty domain axis", "DOMAIN_MIN 0 0 0\nDOMAIN_MAX 1 0 1\n" + Lines(8), neither},
        {"numbers past the line buffer are lost", "LUT_3D_SIZE 2\n" + longTail + "\n" + Lines(7), neither},
        {"a title with numbers is no entry", "TITLE 1 2 3\n" + Lines(8), both}, {"letters after the numbers", "0.5 0.5 0.5TITLE\n" + Lines(7), both},
        {"out-of-range numbers still make an entry", "LUT_3D_SIZE 2\n1e39 -1e39 1e-50\n" + Lines(7), both},
        {"a sign twice is no number", "LUT_3D_SIZE 2\n--1 0 0\n" + Lines(7), neither},
        {"entries beyond the size are ignored", "LUT_3D_SIZE 2\n" + Lines(9), both}, {"messy", messy, both},
    };
    for (const auto& c : cases) EXPECT_EQ(ParseBoth(c.text), c.expected) << c.what;
    Kiv3DLutData e;
    ASSERT_TRUE(kiv::ParseCubeForColorEngine(messy.c_str(), &e));
    EXPECT_EQ(std::vector<float>(e.values.begin(), e.values.begin() + 9), (std::vector<float>{0.1f, 0.2f, 0.3f, 0.4f, 0.5f, 0.6f, 0.25f, 0.25f, 0.25f}));
    for (auto [text, dim] : {std::make_pair(Lines(8) + "LUT_3D_SIZE 2\n", 2), {Lines(500) + "0.1 0.2\n" + Lines(500), 10}}) {
        ASSERT_TRUE(kiv::ParseCubeForColorEngine(text.c_str(), &e));  // a late size line counts; two numbers are no entry
        EXPECT_EQ(e.dim, dim);
    }
    // Values are clamped and stored in each user's format.
    const std::string text = "DOMAIN_MIN -0.5 0 0.25\nDOMAIN_MAX 2 1e0 0.75\nLUT_3D_SIZE 2\n1.7 -0.2 0.5\n0.25 1 0\n" + Lines(4) +
                             "1e39 -1e39 1e-50\nnan 1e-1 2.5E-1\n";
    KivRenderLutData r;
    ASSERT_EQ(ParseBoth(text, &e, &r), std::make_pair(true, true));
    EXPECT_EQ(std::vector<float>(e.domainMin, e.domainMin + 3), (std::vector<float>{-0.5f, 0, 0.25f}));
    EXPECT_EQ(std::vector<float>(r.domainMax, r.domainMax + 3), (std::vector<float>{2, 1, 0.75f}));
    // Clamped to 0..1; bytes and 16-bit texels rounded to nearest, texels with an opaque fourth channel;
    // infinities clamp, not-a-number is 0.
    EXPECT_EQ(std::vector<float>(e.values.begin(), e.values.begin() + 6), (std::vector<float>{1, 0, 0.5f, 0.25f, 1, 0}));
    EXPECT_EQ(std::vector<uint8_t>(e.bytes.begin(), e.bytes.begin() + 6), (std::vector<uint8_t>{255, 0, 128, 64, 255, 0}));
    EXPECT_EQ(std::vector<uint16_t>(r.texels.begin(), r.texels.begin() + 8), (std::vector<uint16_t>{65535, 0, 32768, 65535, 16384, 65535, 0, 65535}));
    EXPECT_EQ(std::vector<float>(e.values.begin() + 18, e.values.end()), (std::vector<float>{1, 0, 0, 0, 0.1f, 0.25f}));
    EXPECT_EQ(r.texels.size(), 8u * 4);
    Kiv3DLutData fe;  // failures and bad arguments leave the output alone
    KivRenderLutData fr;
    EXPECT_EQ(ParseBoth("LUT_3D_SIZE 3\n" + Lines(8), &fe, &fr), std::make_pair(false, false));
    EXPECT_TRUE(fe.dim == 0 && fe.values.empty() && fe.bytes.empty() && fr.texels.empty() && fe.domainMax[1] == 1.0f);
    EXPECT_FALSE(kiv::ParseCubeForColorEngine(nullptr, &fe) || kiv::ParseCubeForColorEngine("", nullptr));
    EXPECT_FALSE(kiv::ParseCubeForRender(nullptr, &fr) || kiv::ParseCubeForRender("", nullptr));
}

void* CreateEngine() { return KIV_CreateVideoColorEngine(); }
struct ColorEngineTest : PortTest<CreateEngine> {
    // Through a non-ASCII folder, as the wide-character interface must take.
    std::string dir = kivtest::TempDir("color_engine") + "/Farbt\xC3\xB6ne \xE3\x82\xAB\xE3\x83\xA9\xE3\x83\xBC";
    std::string WriteCube(const std::string& name, const std::string& text) {
        std::filesystem::create_directories(std::filesystem::u8path(dir));
        kivtest::WriteFile(dir + "/" + name, text);
        return dir + "/" + name;
    }
    int32_t Load(const std::string& path) { return KIV_LoadVideoColorEngineCubeFile(handle, kivtest::Wide(path).c_str()); }
    void Configure(int enable, int outFmt, float strength = 1.0f, int cs = 0, int range = 0, int processor = 0) {
        const KivVideoColorEngineConfig config{processor, enable, outFmt, cs, range, strength};
        ASSERT_EQ(KIV_SetVideoColorEngineConfig(handle, &config), KIV_OK);
    }
};

TEST_F(ColorEngineTest, TablesLoadBlendAndFramesPassWhenThereIsNothingToDo) {
    ASSERT_EQ(KIV_EnableLog(1), KIV_OK);
    kivtest::OwnedFrame in(KIV_PIXEL_FORMAT_RGB32, 6, 2, 0), small(KIV_PIXEL_FORMAT_RGB32, 2, 2, 0);
    Configure(1, 0);  // enabled without a table, same format out
    EXPECT_EQ(Run(in.frame).record, &in.frame);
    ASSERT_EQ(Load(WriteCube("c \xC3\xA4.cube", proctest::CubeText(2, [](float, float, float, float* o) { o[0] = 1, o[1] = 0.5f, o[2] = 0; }))), KIV_OK);
    EXPECT_EQ(Load(dir + "/missing.cube"), KIV_ERROR_FAILED);
    EXPECT_EQ(Load(WriteCube("bad.cube", "LUT_3D_SIZE 1\n")), KIV_ERROR_FAILED);
    for (int gpuProcessor : {1, 3}) {  // tables left to the render port; colour space and range are resolved per frame
        Configure(1, 3, 1.0f, 17, -5, gpuProcessor);
        EXPECT_EQ(Run(in.frame).record, &in.frame);
    }
    Configure(1, 0);  // grading itself is checked against the reference below
    const uint8_t* first = Run(in.frame).meta.planes[0];  // output buffers are reused
    EXPECT_EQ(Run(small.frame).meta.planes[0], first);
    Configure(0, 0);  // loading does not switch the table on; clearing switches it off
    EXPECT_EQ(Run(in.frame).record, &in.frame);
    Configure(1, 4);
    const KivVideoFrame h264 = kivtest::FrameOver(KIV_PIXEL_FORMAT_H264, 8, 4, in.bytes.data(), 16);
    EXPECT_EQ(Run(h264).record, &h264);
    const size_t before = catcher.frames.size();  // empty frames are refused, not passed on
    KivVideoFrame noWidth = in.frame, noHeight = in.frame;
    noWidth.width = 0, noHeight.height = -1;
    EXPECT_EQ(std::vector<int>({port->OnVideoFrame(&noWidth), port->OnVideoFrame(&noHeight), port->OnVideoFrame(nullptr)}),
              std::vector<int>(3, KIV_ERROR_INVALID_ARG));
    EXPECT_EQ(catcher.frames.size(), before);
    Configure(1, 0);
    ASSERT_EQ(KIV_ClearVideoColorEngineLut(handle), KIV_OK);
    EXPECT_EQ(Run(in.frame).record, &in.frame);
    for (const char* part : {"\xC3\xA4.cube dim=2", "open file failed path=", "parse error path="})  // the log alone tells which step failed
        EXPECT_NE(kivtest::LibraryLog().find(part), std::string::npos) << part;
    KIV_EnableLog(0);
}

// Ideal Y, Cb, Cr bytes of an RGB colour in [0, 1], from the luma weights alone.
void IdealYuv(const double rgb[3], int cs, int range, double out[3]) {
    const double kr = cs == 2 ? 0.2126 : cs == 3 ? 0.2627 : 0.299, kb = cs == 2 ? 0.0722 : cs == 3 ? 0.0593 : 0.114;
    const double y = kr * rgb[0] + (1 - kr - kb) * rgb[1] + kb * rgb[2];
    const double cb = (rgb[2] - y) / (2 * (1 - kb)), cr = (rgb[0] - y) / (2 * (1 - kr));
    const double ys = range == 1 ? 255 : 219, cs_ = range == 1 ? 255 : 224, y0 = range == 1 ? 0 : 16;
    out[0] = std::min(y * ys + y0, 255.0), out[1] = std::min(cb * cs_ + 128, 255.0), out[2] = std::min(cr * cs_ + 128, 255.0);
}

TEST(ColorMath, ConversionsMatchTheStandards) {
    const double colours[][3] = {{0, 0, 0}, {1, 1, 1}, {1, 0, 0}, {0, 1, 0},       {0, 0, 1},
                                 {1, 1, 0}, {0, 1, 1}, {1, 0, 1}, {0.5, 0.5, 0.5}, {0.25, 0.6, 0.9}};
    for (int cs : {1, 2, 3})
        for (int range : {1, 2})
            for (const auto& c : colours) {
                SCOPED_TRACE(testing::Message() << "cs " << cs << " range " << range << " rgb " << c[0] << "," << c[1] << "," << c[2]);
                double ideal[3], ideal8[3];
                IdealYuv(c, cs, range, ideal);
                IdealYuv(c, cs == 1 ? 1 : 2, range, ideal8);  // the 8-bit rules use BT.709 for all but 1
                const uint8_t rgb8[3] = {uint8_t(std::lround(c[0] * 255)), uint8_t(std::lround(c[1] * 255)), uint8_t(std::lround(c[2] * 255))};
                const float rgbf[3] = {float(c[0]), float(c[1]), float(c[2])};
                uint8_t yuv8[3], yuvf[3], back8[3];
                float backf[3];
                RgbToYuv8(rgb8, cs, range, yuv8), RgbToYuvFloat(rgbf, cs, range, yuvf), YuvToRgbFloat(yuvf[0], yuvf[1], yuvf[2], cs, range, backf);
                YuvToRgb8(int(std::lround(ideal8[0])), int(std::lround(ideal8[1])), int(std::lround(ideal8[2])), cs, range, back8);
                for (int i = 0; i < 3; ++i) {
                    EXPECT_NEAR(yuv8[i], ideal8[i], 1.01) << i;
                    EXPECT_NEAR(yuvf[i], std::floor(ideal[i] + 0.5), 1.01) << i;
                    EXPECT_NEAR(back8[i], rgb8[i], 3.01) << i;
                    EXPECT_NEAR(backf[i], c[i], 0.02) << i;
                }
            }
    const int spaces[][4] = {{0, 720, 576, 1}, {0, 720, 577, 2}, {0, 1280, 720, 2}, {0, 1279, 480, 1},
                             {7, 640, 480, 1}, {-1, 1920, 1080, 2}, {3, 640, 480, 3}, {1, 1920, 1080, 1}};  // cs, w, h: resolved
    for (const auto& s : spaces) EXPECT_EQ(ResolveColorSpace(s[0], s[1], s[2]), s[3]) << s[0] << " " << s[1] << "x" << s[2];
    for (auto r : {std::make_pair(1, 1), {2, 2}, {0, 2}, {9, 2}}) EXPECT_EQ(ResolveRange(r.first), r.second) << r.first;
    for (auto s : {std::make_pair(1.0f, 256), {0.0f, 0}, {0.6f, 154}, {0.001f, 0}}) EXPECT_EQ(StrengthWeight(s.first), s.second) << s.first;
}

Kiv3DLutData Table(int n, void (*fn)(float, float, float, float*)) {
    Kiv3DLutData lut;
    EXPECT_TRUE(kiv::ParseCubeForColorEngine(proctest::CubeText(n, fn).c_str(), &lut));
    return lut;
}
void Identity(float r, float g, float b, float* o) { o[0] = r, o[1] = g, o[2] = b; }
void Swap(float r, float g, float b, float* o) { o[0] = b, o[1] = r, o[2] = g; }
void Constant(float, float, float, float* o) { o[0] = 0.2f, o[1] = 0.6f, o[2] = 1.0f; }

TEST(ColorLut, TablesWithKnownEffectsAndRowLookupsBitExactWithThePixelRule) {
    const Kiv3DLutData identity = Table(33, Identity), swap = Table(17, Swap), constant = Table(5, Constant);
    std::mt19937 rng(7);
    const double target[3] = {51, 153, 255};
    for (int i = 0; i < 20000; ++i) {
        const uint8_t in[3] = {uint8_t(rng()), uint8_t(rng()), uint8_t(rng())};
        uint8_t out[5][3];  // identity, swap, the constant at full, 60 % and no strength
        const std::pair<const Kiv3DLutData*, int> runs[5] = {{&identity, 256}, {&swap, 256}, {&constant, 256}, {&constant, 154}, {&constant, 0}};
        for (int r = 0; r < 5; ++r) std::copy_n(in, 3, out[r]), ApplyLut8(*runs[r].first, runs[r].second, out[r]);
        for (int c = 0; c < 3; ++c) {
            ASSERT_NEAR(out[0][c], in[c], 1);
            ASSERT_NEAR(out[1][c], in[(c + 2) % 3], 1);
            ASSERT_EQ(out[2][c], target[c]);
            ASSERT_NEAR(out[3][c], in[c] + (target[c] - in[c]) * 0.6, 1.01);
            ASSERT_EQ(out[4][c], in[c]);
        }
    }
    uint8_t white[3] = {255, 255, 255};  // lattice corners are read directly
    ApplyLut8(swap, 256, white);
    EXPECT_EQ(white[0] & white[1] & white[2], 255);
    // Float lookups: a domain of 0..2 halves the input, an inverted one mirrors it; strength blends linearly.
    Kiv3DLutData fine = Table(9, Identity), half = fine, mirror = fine, small = Table(3, Constant);
    for (int c = 0; c < 3; ++c) half.domainMax[c] = 2.0f, mirror.domainMin[c] = 1.0f, mirror.domainMax[c] = 0.0f;
    std::uniform_real_distribution<float> unit(0.0f, 1.0f);
    for (int i = 0; i < 2000; ++i) {
        const float in[3] = {unit(rng), unit(rng), unit(rng)};
        float out[4][3];
        const std::pair<const Kiv3DLutData*, float> runs[4] = {{&fine, 1.0f}, {&half, 1.0f}, {&mirror, 1.0f}, {&small, 0.25f}};
        for (int r = 0; r < 4; ++r) std::copy(in, in + 3, out[r]), ApplyLutFloat(*runs[r].first, runs[r].second, out[r]);
        for (int c = 0; c < 3; ++c) {
            ASSERT_NEAR(out[0][c], in[c], 1e-5);
            ASSERT_NEAR(out[1][c], in[c] / 2, 1e-5);
            ASSERT_NEAR(out[2][c], 1 - in[c], 1e-5);
            ASSERT_NEAR(out[3][c], in[c] + (target[c] / 255 - in[c]) * 0.25f, 1e-5);
        }
    }
    // The 8-bit row lookups must give the per-pixel rule's results for every table size and strength, bit for bit;
    // random tables make every corner count. The float rows are checked through the NV12 frames below.
    for (int n : {2, 3, 17, 33, 65}) {
        Kiv3DLutData lut;
        lut.dim = n;
        lut.bytes.resize(size_t(n) * n * n * 3), lut.values.resize(lut.bytes.size());
        for (uint8_t& b : lut.bytes) b = uint8_t(rng());
        kiv::BuildRedGreenSteps(&lut);
        for (float strength : {1.0f, 0.6f, 0.5f, 0.01f, 0.0f}) {
            SCOPED_TRACE(testing::Message() << "N " << n << " strength " << strength);
            std::vector<uint8_t> row(4 * 4095);  // every grey level first, then random colours
            for (size_t i = 0; i < row.size(); ++i) row[i] = uint8_t(i < 1024 ? i / 4 : rng());
            std::vector<uint8_t> expected = row, scalar = row;
            for (size_t i = 0; i < expected.size(); i += 4) ApplyLut8(lut, StrengthWeight(strength), &expected[i]);
            Lut8Fast fast(&lut, strength);
            fast.ApplyRow(row.data(), 4095), fast.ApplyRowScalar(scalar.data(), 4095);
            for (size_t i = 0; i < row.size(); i += 1 + (i % 4 == 2))  // alpha bytes skipped
                ASSERT_EQ(std::make_pair(row[i], scalar[i]), std::make_pair(expected[i], expected[i])) << "pixel " << i / 4;
        }
    }
}

// RGB of pixel (x, y), 8-bit (RGB and YUY2 outputs) or float (the float reader).
template <class T>
void ReadPixel(const KivVideoFrame& f, int x, int y, int cs, int range, T rgb[3]) {
    constexpr bool kFloat = sizeof(T) == sizeof(float);
    const int stride = f.strides[0] >= 1 ? f.strides[0] : f.width * BytesPerPixel(f.format);
    const uint8_t* row = f.planes[0] + ptrdiff_t(stride) * y;
    int Y, u, v;
    if (const int bpp = BytesPerPixel(f.format); bpp >= 3) {
        for (int c = 0; c < 3; ++c) rgb[c] = kFloat ? T(row[x * bpp + 2 - c] / 255.0f) : T(row[x * bpp + 2 - c]);
        return;
    }
    if (f.format == KIV_PIXEL_FORMAT_YUY2) {
        const uint8_t* g = row + (x / 2) * 4;
        const bool unpaired = x % 2 == 0 && x + 1 == f.width;  // the last pixel of an odd row
        Y = x % 2 ? g[2] : g[0], u = g[1], v = unpaired ? (kFloat ? g[1] : 128) : g[3];
    } else {
        const int chromaStride = f.strides[1] >= 1 ? f.strides[1] : f.width;
        const uint8_t* base = f.planes[1] ? f.planes[1] : f.planes[0] + ptrdiff_t(stride) * f.height;
        const uint8_t* uv = base + ptrdiff_t(chromaStride) * (y / 2) + (x / 2) * 2;
        Y = row[x], u = uv[0], v = uv[1];
    }
    if constexpr (kFloat) YuvToRgbFloat(Y, u, v, cs, range, rgb);
    else YuvToRgb8(Y, u, v, cs, range, rgb);
}

// The engine's frame rules pixel by pixel, built only on the per-pixel arithmetic; cs and range already resolved.
// Tight rows (YUY2: even width * 2), then NV12 chroma rows of (width + 1) & ~1.
std::array<std::vector<uint8_t>, 2> ReferenceConvert(const KivVideoFrame& in, int32_t outFmt, int32_t cs, int32_t range, const Kiv3DLutData* lut,
                                                     float strength) {
    std::vector<uint8_t> plane0, plane1;
    const int w = in.width, h = in.height;
    auto graded8 = [&](int x, int y, uint8_t rgb[3]) {  // NV12 to YUY2 takes the float reader
        float f[3];
        if (in.format != KIV_PIXEL_FORMAT_NV12 || outFmt != KIV_PIXEL_FORMAT_YUY2) ReadPixel(in, x, y, cs, range, rgb);
        else ReadPixel(in, x, y, cs, range, f), std::transform(f, f + 3, rgb, FloatToByte);
        if (lut) ApplyLut8(*lut, StrengthWeight(strength), rgb);
    };
    if (outFmt == KIV_PIXEL_FORMAT_RGB24 || outFmt == KIV_PIXEL_FORMAT_RGB32) {
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x) {
                uint8_t rgb[3];
                graded8(x, y, rgb);
                plane0.insert(plane0.end(), {rgb[2], rgb[1], rgb[0]});
                if (outFmt == KIV_PIXEL_FORMAT_RGB32) plane0.push_back(255);
            }
    } else if (outFmt == KIV_PIXEL_FORMAT_YUY2) {
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; x += 2) {
                uint8_t a[3], b[3], ya[3], yb[3];
                graded8(x, y, a), graded8(std::min(x + 1, w - 1), y, b);  // an odd row's last pixel pairs with itself
                RgbToYuv8(a, cs, range, ya), RgbToYuv8(b, cs, range, yb);
                plane0.insert(plane0.end(), {ya[0], uint8_t((ya[1] + yb[1] + 1) >> 1), yb[0], uint8_t((ya[2] + yb[2] + 1) >> 1)});
            }
    } else {
        std::vector<std::array<uint8_t, 3>> yuv(size_t(w) * h);  // through the float reader
        for (int i = 0; i < w * h; ++i) {
            float f[3];
            ReadPixel(in, i % w, i / w, cs, range, f);
            if (lut) ApplyLutFloat(*lut, strength, f);
            RgbToYuvFloat(f, cs, range, yuv[i].data());
            plane0.push_back(yuv[i][0]);
        }
        for (int by = 0; by < h; by += 2)
            for (int bx = 0; bx < w; bx += 2) {
                int su = 0, sv = 0, n = 0;
                for (int y = by; y < by + 2 && y < h; ++y)
                    for (int x = bx; x < bx + 2 && x < w; ++x, ++n) su += yuv[y * w + x][1], sv += yuv[y * w + x][2];
                plane1.insert(plane1.end(), {uint8_t((su + n / 2) / n), uint8_t((sv + n / 2) / n)});
            }
    }
    return {plane0, plane1};
}

struct ColorFrameTest : ColorEngineTest {
    void SetUp() override {
        std::mt19937 rng(5);  // entries from -0.1 to 1.1
        std::string text = "LUT_3D_SIZE 9\nDOMAIN_MIN 0.1 -0.2 0\nDOMAIN_MAX 0.9 1.3 0.5\n";
        for (int i = 0; i < 3 * 9 * 9 * 9; ++i) text += std::to_string(int(rng() % 1201) / 1000.0 - 0.1) + (i % 3 == 2 ? "\n" : " ");
        ASSERT_TRUE(kiv::ParseCubeForColorEngine(text.c_str(), &lut));
        ASSERT_EQ(Load(WriteCube("random.cube", text)), KIV_OK);
    }
    // Converts `in` with the given settings and compares with the reference.
    void Check(const KivVideoFrame& in, int32_t outFmt, int cs, int range, int enable = 0, float strength = 1.0f) {
        SCOPED_TRACE(testing::Message() << "in " << in.format << " " << in.width << "x" << in.height << " strides " << in.strides[0] << " out "
                                        << outFmt << " cs " << cs << " range " << range << " table " << enable << " strength " << strength);
        Configure(enable, outFmt, strength, cs, range);
        const kivtest::CaughtFrame& out = Run(in);
        const auto ref =
            ReferenceConvert(in, outFmt, ResolveColorSpace(cs, in.width, in.height), ResolveRange(range), enable ? &lut : nullptr, strength);
        ASSERT_EQ((std::vector<int64_t>{out.meta.format, out.meta.width, out.meta.height, out.meta.timestamp, int64_t(out.meta.frameIndex)}),
                  (std::vector<int64_t>{outFmt, in.width, in.height, in.timestamp, int64_t(in.frameIndex)}));
        ASSERT_EQ(out.plane0, ref[0]);
        EXPECT_EQ(out.meta.planes[1] != nullptr, outFmt == KIV_PIXEL_FORMAT_NV12);
        EXPECT_EQ(out.plane1, ref[1]);
        catcher.frames.clear();
    }
    Kiv3DLutData lut;
};

const int32_t kFormats[] = {KIV_PIXEL_FORMAT_YUY2, KIV_PIXEL_FORMAT_NV12, KIV_PIXEL_FORMAT_RGB24, KIV_PIXEL_FORMAT_RGB32};

TEST_F(ColorFrameTest, EveryFormatPairMatchesTheReference) {
    std::mt19937 rng(1);
    const int sizes[][2] = {{1, 1}, {2, 2}, {7, 5}, {16, 9}, {33, 4}, {322, 3}};  // wide rows: vector paths and tails
    const float settings[][4] = {{1, 1.0f, 1, 2}, {1, 0.6f, 2, 1}, {0, 1.0f, 3, 2}, {1, 0.35f, 3, 1}, {1, 0.0f, 0, 0}};  // table, strength, cs, range
    for (const auto& s : settings)
        for (int32_t inFmt : kFormats)
            for (int32_t outFmt : kFormats)
                for (const auto& size : sizes)
                    for (bool tight : {false, true}) {
                        if ((!s[0] && inFmt == outFmt) || (tight && inFmt == KIV_PIXEL_FORMAT_NV12 && (size[0] & 1))) continue;
                        RandomFrame in(inFmt, size[0], size[1], rng, tight);
                        Check(in.frame, outFmt, int(s[2]), int(s[3]), int(s[0]), s[1]);
                        if (HasFatalFailure()) return;
                    }
}

TEST_F(ColorFrameTest, SaturatedColoursAndTheWholeYuvCubeMatchTheReference) {
    // The corners of the RGB cube and the YUV extremes drive every clamp.
    for (int32_t inFmt : {KIV_PIXEL_FORMAT_RGB32, KIV_PIXEL_FORMAT_YUY2, KIV_PIXEL_FORMAT_NV12}) {
        std::mt19937 rng(4);
        RandomFrame in(inFmt, 40, 2, rng, false);
        for (size_t i = 0; i < in.plane0.size(); ++i) in.plane0[i] = (i * 7 / 3) % 5 < 2 ? 0 : 255;
        for (size_t i = 0; i < in.plane1.size(); ++i) in.plane1[i] = (i % 3) == 0 ? 0 : 255;
        // Full-range BT.601 Cb of pure blue is 256 and must be cut to 255 before it is averaged with its partner's 253.
        if (inFmt == KIV_PIXEL_FORMAT_RGB32) std::copy_n("\xff\0\0\0\xff\0\x0c\0", 8, in.plane0.begin());
        for (int32_t outFmt : {KIV_PIXEL_FORMAT_YUY2, KIV_PIXEL_FORMAT_RGB32, KIV_PIXEL_FORMAT_NV12})
            for (int cs : {1, 2})
                for (int range : {1, 2})
                    if (inFmt != outFmt) Check(in.frame, outFmt, cs, range);
    }
    // NV12 through the float reader: every luma value against a grid of chroma pairs, one pair per two rows.
    const int w = 256, pairs = 52 * 52 + 1, h = pairs * 2;
    std::vector<uint8_t> luma(size_t(w) * h), uv(size_t(w) * h / 2);
    for (size_t i = 0; i < luma.size(); ++i) luma[i] = uint8_t(i % w);
    for (size_t i = 0; i < uv.size(); ++i) {
        const size_t row = i / w;
        uv[i] = uint8_t(row == pairs - 1 ? 255 : i % 2 ? row % 52 * 5 : row / 52 * 5);
    }
    const KivVideoFrame in = kivtest::FrameOver(KIV_PIXEL_FORMAT_NV12, w, h, luma.data(), w, uv.data(), w);
    for (int cs : {1, 2, 3})
        for (int range : {1, 2}) Check(in, KIV_PIXEL_FORMAT_YUY2, cs, range);
}

}  // namespace
