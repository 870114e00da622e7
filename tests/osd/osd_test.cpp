// The overlay: canvas and blend against pixels worked out by hand (BT.601 studio-range integer formulas) and a
// floating-point reference; outlines pixel by pixel; text and picture geometry through a scripted rasteriser; the
// port through the exported functions: item commands, both kinds of outputs and KIV_Disconnect.
#include <gtest/gtest.h>

#include <cmath>
#include <thread>

#include "osd_test_util.h"
#include "ports/kiv_video_mux.h"
#include "processing/kiv_video_osd.h"
#include "processing/osd_draw.h"

using kiv::OsdCanvas;
using kiv::OsdItem;
using kivtest::FrameCatcher;
using kivtest::OwnedFrame;
using kivtest::Wide;
using List = std::vector<std::pair<int32_t, int32_t>>;
using WString = std::basic_string<KivWChar>;

namespace {

// Draws nothing itself: records what it was asked and hands back a solid BGRA colour for the requested region.
struct FakeRasterizer : kiv::OsdRasterizer {
    explicit FakeRasterizer(uint32_t colour = 0xFFFF0000u) : bgra(colour) {}
    bool DrawText(const kiv::OsdTextJob& job, int32_t, int32_t, const kiv::OsdRect& region, kiv::OsdBgraView* out) override {
        texts++, lastText = job, lastRegion = region;
        return Fill(region, out);
    }
    std::unique_ptr<kiv::OsdPicture> LoadPicture(const kiv::OsdString&) override { return missingFile ? nullptr : std::make_unique<Picture>(); }
    bool DrawPicture(const kiv::OsdPicture&, int32_t, int32_t, const kiv::OsdRect& dest, const kiv::OsdRect& region,
                     kiv::OsdBgraView* out) override {
        pictures++, lastDest = dest, lastRegion = region;
        return Fill(region, out);
    }
    struct Picture : kiv::OsdPicture {  // 16 x 8
        int32_t Width() const override { return 16; }
        int32_t Height() const override { return 8; }
    };
    bool Fill(const kiv::OsdRect& region, kiv::OsdBgraView* out) {
        pixels.assign(size_t(region.width) * size_t(region.height), bgra);  // 0xAARRGGBB: bytes B, G, R, A
        out->pixels = reinterpret_cast<const uint8_t*>(pixels.data());
        out->stride = region.width * 4;
        return true;
    }
    uint32_t bgra;
    bool missingFile = false;  // LoadPicture fails as for a missing file
    int texts = 0, pictures = 0;
    kiv::OsdTextJob lastText{};
    kiv::OsdRect lastRegion{}, lastDest{};
    std::vector<uint32_t> pixels;
};

TEST(OsdBlend, HandWorkedPixelsInEveryCanvasFormat) {
    using Blend = std::array<float, 7>;  // x, y, blue, green, red, alpha, opacity
    const struct {
        const char* what;
        int32_t format, w, h, fill;
        std::vector<Blend> blends;
        std::vector<std::array<int, 3>> expected;  // plane, offset, value
    } cases[] = {
        {"opaque white on NV12 is studio white; neighbours untouched", KIV_PIXEL_FORMAT_NV12, 8, 6, 77, {{3, 3, 255, 255, 255, 255, 1.0f}},
         {{0, 3 * 8 + 3, 235}, {0, 3 * 8 + 2, 77}, {1, 8 + 2, 128}, {1, 8 + 3, 128}, {1, 8 + 4, 77}}},
        // Red is Y 82, Cb 90, Cr 240; half way from (100, 128, 128) rounds to 91, 109, 184; the second pixel of
        // the block blends the chroma again.
        {"half red on NV12, twice into one chroma pair", KIV_PIXEL_FORMAT_NV12, 4, 4, 100,
         {{0, 0, 0, 0, 255, 255, 0.5f}, {1, 1, 0, 0, 255, 255, 0.5f}}, {{0, 0, 91}, {0, 5, 91}, {1, 0, 100}, {1, 1, 212}}},
        {"RGB32 rounding, item alpha and ignored pixels", KIV_PIXEL_FORMAT_RGB32, 4, 2, 0,
         {{0, 0, 250, 3, 1, 255, 0.25f},  // 10 x .75 + 250 x .25 + .5 = 70.5
          {1, 0, 201, 3, 1, 255, 0.5f},   // 100 x .5 + 100.5 + .5
          {2, 0, 255, 255, 255, 0, 1.0f}, {2, 0, 255, 255, 255, 255, 0.0f},  // zero weight and outside pixels change nothing
          {-1, 0, 255, 255, 255, 255, 1.0f}, {4, 0, 255, 255, 255, 255, 1.0f}, {0, 2, 255, 255, 255, 255, 1.0f}},
         {{0, 0, 70}, {0, 1, 1}, {0, 2, 0}, {0, 3, 255}, {0, 4, 151}, {0, 5, 2}, {0, 6, 1}, {0, 8, 0}, {0, 11, 0}, {0, 16, 0}}},
        {"YUY2 odd and even pixels", KIV_PIXEL_FORMAT_YUY2, 4, 1, 128, {{3, 0, 0, 0, 255, 255, 1.0f}, {0, 0, 255, 255, 255, 255, 1.0f}},
         {{0, 4, 128}, {0, 5, 90}, {0, 6, 82}, {0, 7, 240}, {0, 0, 235}, {0, 2, 128}}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        OwnedFrame in(c.format, c.w, c.h, c.fill);
        if (c.format == KIV_PIXEL_FORMAT_NV12 && c.fill == 100) std::fill(in.bytes.begin() + 16, in.bytes.end(), 128);
        if (c.format == KIV_PIXEL_FORMAT_RGB32) in.bytes[0] = 10, in.bytes[4] = 100;
        OsdCanvas canvas;
        ASSERT_EQ(canvas.Build(in.frame), KIV_OK);
        const KivVideoFrame out = canvas.Frame(in.frame);
        for (const Blend& b : c.blends) canvas.BlendPixel(int(b[0]), int(b[1]), uint8_t(b[2]), uint8_t(b[3]), uint8_t(b[4]), uint8_t(b[5]), b[6]);
        for (const auto& e : c.expected) EXPECT_EQ(out.planes[e[0]][e[1]], e[2]) << e[0] << ":" << e[1];
    }
}

TEST(OsdCanvasBuild, OddSizesShortStridesMissingChromaAndRefusedFrames) {
    OsdCanvas canvas;
    auto build = [&canvas](const KivVideoFrame& in) {
        EXPECT_EQ(canvas.Build(in), KIV_OK);
        return canvas.Frame(in);
    };
    // YUY2 of odd width and a tight stride (the last Cr is not in the row): rows padded with a grey pixel.
    const std::vector<uint8_t> tight(641 * 2 * 3, 50);
    KivVideoFrame out = build(kivtest::FrameOver(KIV_PIXEL_FORMAT_YUY2, 641, 3, tight.data(), 641 * 2));
    ASSERT_EQ(out.strides[0], 1284);
    for (int row = 0; row < 3; ++row)
        EXPECT_EQ(std::vector<int>(out.planes[0] + row * 1284 + 1281, out.planes[0] + row * 1284 + 1284), (std::vector<int>{50, 128, 128}));
    // NV12 without chroma pointer or strides: chroma follows the luma rows.
    std::vector<uint8_t> buffer(6 * 3 + 6 * 2);
    for (size_t i = 0; i < buffer.size(); ++i) buffer[i] = uint8_t(i);
    out = build(kivtest::FrameOver(KIV_PIXEL_FORMAT_NV12, 6, 3, buffer.data(), 0));
    EXPECT_EQ(std::vector<int>({out.strides[0], out.strides[1], out.planes[0][17], out.planes[1][0], out.planes[1][11]}), std::vector<int>({6, 6, 17, 18, 29}));
    std::vector<uint8_t> luma(8, 200), chroma(4, 60);  // width 5, strides of 4: the missing bytes are black luma, grey chroma
    out = build(kivtest::FrameOver(KIV_PIXEL_FORMAT_NV12, 5, 2, luma.data(), 4, chroma.data(), 4));
    EXPECT_EQ(std::vector<int>({out.strides[1], out.planes[0][3], out.planes[0][4], out.planes[0][9], out.planes[1][3], out.planes[1][4],
                                out.planes[1][5]}),
              std::vector<int>({6, 200, 16, 16, 60, 128, 128}));
    OwnedFrame rgb24(KIV_PIXEL_FORMAT_RGB24, 3, 2, 0);  // becomes opaque RGB32
    for (size_t i = 0; i < rgb24.bytes.size(); ++i) rgb24.bytes[i] = uint8_t(i + 1);
    out = build(rgb24.frame);
    ASSERT_EQ(out.format, KIV_PIXEL_FORMAT_RGB32);
    for (int p = 0; p < 6; ++p)
        EXPECT_EQ(std::vector<int>(out.planes[0] + p * 4, out.planes[0] + p * 4 + 4), (std::vector<int>{p * 3 + 1, p * 3 + 2, p * 3 + 3, 255}));
    const uint8_t byte = 0;
    OwnedFrame noChroma(KIV_PIXEL_FORMAT_NV12, 4, 4);
    noChroma.frame.planes[1] = nullptr;
    EXPECT_EQ(std::vector<KivResult>({canvas.Build(kivtest::FrameOver(KIV_PIXEL_FORMAT_MJPG, 4, 4, &byte, 1)),
                                      canvas.Build(kivtest::FrameOver(KIV_PIXEL_FORMAT_H264, 4, 4, &byte, 1)),
                                      canvas.Build(kivtest::FrameOver(KIV_PIXEL_FORMAT_RGB24, 0, 2, &byte, 0)),
                                      canvas.Build(kivtest::FrameOver(KIV_PIXEL_FORMAT_RGB24, 3, 2, nullptr, 0)),
                                      canvas.BuildRgb32(noChroma.frame)}),
              std::vector<KivResult>({KIV_ERROR_UNSUPPORTED, KIV_ERROR_UNSUPPORTED, KIV_ERROR_INVALID_ARG, KIV_ERROR_INVALID_ARG,
                                      KIV_ERROR_UNSUPPORTED}));
}

TEST(OsdCanvasBuild, YuvToRgb32MatchesFloatingPointReference) {
    const uint8_t samples[][3] = {{82, 90, 240},  {145, 54, 34},   {16, 128, 128}, {235, 128, 128},
                                  {41, 240, 110}, {120, 100, 180}, {200, 160, 90}, {60, 128, 128}};
    for (int n : {8, 7}) {
        // Pixel i's Y, Cb, Cr: pairs share the even pixel's chroma; a tight YUY2 row of odd width has no last Cr (grey).
        auto yuv = [&](int i, int c) { return c == 0 ? samples[i][0] : c == 2 && i == n - 1 && n % 2 ? uint8_t(128) : samples[i & ~1][c]; };
        std::vector<uint8_t> yuy2(2), luma, chroma;  // two identical rows
        for (int row = 0; row < 2; ++row)
            for (int i = 0; i < n; ++i) {
                yuy2.insert(yuy2.end() - 2, {yuv(i, 0), yuv(i, i % 2 ? 2 : 1)});
                luma.push_back(yuv(i, 0));
                if (row == 0 && i % 2 == 0) chroma.insert(chroma.end(), {yuv(i, 1), yuv(i, 2)});
            }
        for (const KivVideoFrame& in : {kivtest::FrameOver(KIV_PIXEL_FORMAT_YUY2, n, 2, yuy2.data(), n * 2),
                                        kivtest::FrameOver(KIV_PIXEL_FORMAT_NV12, n, 2, luma.data(), n, chroma.data(), int32_t(chroma.size()))}) {
            SCOPED_TRACE(testing::Message() << "format " << in.format << " width " << n);
            OsdCanvas canvas;
            ASSERT_EQ(canvas.BuildRgb32(in), KIV_OK);
            const KivVideoFrame out = canvas.Frame(in);
            ASSERT_EQ(out.format, KIV_PIXEL_FORMAT_RGB32);
            for (int row = 0; row < 2; ++row)
                for (int i = 0; i < n; ++i) {
                    const double y = 1.164383 * (yuv(i, 0) - 16.0), cb = yuv(i, 1) - 128.0, cr = yuv(i, 2) - 128.0;
                    const double rgb[3] = {y + 1.596027 * cr, y - 0.391762 * cb - 0.812968 * cr, y + 2.017232 * cb};
                    const uint8_t* px = out.planes[0] + row * out.strides[0] + i * 4;
                    for (int c = 0; c < 3; ++c) EXPECT_NEAR(px[2 - c], std::fmin(255.0, std::fmax(0.0, rgb[c])), 1.5) << "pixel " << i << ", " << c;
                    EXPECT_EQ(px[3], 255);
                }
        }
    }
}

struct Rgb32Canvas {
    OwnedFrame in;
    OsdCanvas canvas;
    KivVideoFrame out{};
    Rgb32Canvas(int w, int h) : in(KIV_PIXEL_FORMAT_RGB32, w, h, 0) {
        EXPECT_EQ(canvas.Build(in.frame), KIV_OK);
        out = canvas.Frame(in.frame);
    }
    int Red(int x, int y) const { return out.planes[0][y * out.strides[0] + x * 4 + 2]; }
    int CountRed() const {
        int n = 0;
        for (int i = 0; i < out.width * out.height; ++i) n += Red(i % out.width, i / out.width) != 0;
        return n;
    }
};

OsdItem Rect(int x, int y, int w, int h, int size, uint32_t color = 0xFFFF0000u, float opacity = 1.0f) {
    KivVideoOsdItem record = osdtest::Item(x, y, w, h);
    record.size = size, record.color = color, record.opacity = opacity;
    return kiv::OsdItemFromRecord(record, kiv::kOsdRect);
}

TEST(OsdRect, OutlinesAreClippedAndOverlappingRingPassesBlendAgain) {
    OsdItem hidden = Rect(2, 2, 8, 8, 2);
    hidden.visible = false;
    const struct {
        const char* what;
        int w, h;
        OsdItem item;
        int x0, y0, x1, y1;  // the outline drawn; none when x0 > x1
    } cases[] = {
        {"negative width: columns -10..10 clip to 0..10", 32, 32, Rect(10, 10, -20, 5, 1), 0, 10, 10, 15},
        {"negative height, overhanging every edge", 16, 12, Rect(-5, 20, 100, -100, 1), 0, 0, 15, 11},
        {"plain RGB colour is opaque", 8, 8, Rect(0, 0, 7, 7, 1, 0x00FF0000u), 0, 0, 7, 7},
        {"no width", 16, 16, Rect(4, 4, 0, 8, 2), 0, 0, -1, -1},           {"no height", 16, 16, Rect(4, 4, 8, 0, 2), 0, 0, -1, -1},
        {"wholly left", 16, 16, Rect(-50, 2, 10, 8, 2), 0, 0, -1, -1},     {"wholly below", 16, 16, Rect(2, 40, 10, 8, 2), 0, 0, -1, -1},
        {"hidden", 16, 16, hidden, 0, 0, -1, -1},
    };
    for (const auto& k : cases) {
        SCOPED_TRACE(k.what);
        Rgb32Canvas c(k.w, k.h);
        kiv::OsdDrawRect(c.canvas, k.item);
        for (int y = 0; y < k.h; ++y)
            for (int x = 0; x < k.w; ++x) {
                const bool inside = x >= k.x0 && x <= k.x1 && y >= k.y0 && y <= k.y1;
                ASSERT_EQ(c.Red(x, y), inside && (x == k.x0 || x == k.x1 || y == k.y0 || y == k.y1) ? 255 : 0) << x << "," << y;
            }
    }
    // Each ring's rows and columns blend separately, so pixels where they meet blend more than once; rings stop at 32.
    const OsdItem half = Rect(2, 2, 6, 6, 1, 0xFFFF0000u, 0.5f), three = Rect(0, 0, 2, 2, 3, 0xFFFF0000u, 0.5f), wide = Rect(0, 0, 99, 99, 40);
    const struct {
        const OsdItem* item;
        int x, y, red;
    } rings[] = {
        {&half, 5, 2, 128}, {&half, 2, 5, 128},  // 255 x 0.5 + 0.5
        {&half, 2, 2, 192}, {&half, 8, 8, 192}, {&half, 8, 2, 192},  // corners twice: 128 x 0.5 + 127.5 + 0.5
        // A 3x3 box with 3 rings: the centre is ring 1's row and column; (1, 0) is also ring 2's bottom row; (0, 0) four times.
        {&three, 1, 1, 192}, {&three, 1, 0, 224}, {&three, 0, 0, 240},
        {&wide, 50, 31, 255}, {&wide, 50, 32, 0}, {&wide, 68, 50, 255}, {&wide, 67, 50, 0},  // ring 31 of the right side
    };
    for (const auto& c : rings) {
        Rgb32Canvas canvas(100, 100);
        kiv::OsdDrawRect(canvas.canvas, *c.item);
        EXPECT_EQ(canvas.Red(c.x, c.y), c.red) << c.x << "," << c.y << " of a rect at " << c.item->x;
    }
}

KivVideoOsdItem WithId(int32_t id, int x = 0, int y = 0, int w = 10, int h = 10, int size = 0) {
    KivVideoOsdItem item = osdtest::Item(x, y, w, h);
    item.id = id, item.size = size;
    osdtest::SetText(item.text, "t");
    osdtest::SetText(item.imagePath, "p.bmp");
    return item;
}
OsdItem WithText(int x, int y, int w, int h, int size, int32_t kind = kiv::kOsdText) {
    return kiv::OsdItemFromRecord(WithId(0, x, y, w, h, size), kind);
}

TEST(OsdDraw, TextAndPicturesReachTheRasteriserAndWhatCannotBeDrawnIsSkipped) {
    FakeRasterizer raster, green(0xFF00FF00u);
    const kiv::OsdTextJob& job = raster.lastText;
    const kiv::OsdRect& region = raster.lastRegion;
    Rgb32Canvas c(640, 480), small(64, 64), pic(64, 64);
    OsdItem empty = WithText(0, 0, 10, 10, 10);
    empty.text.clear();
    kiv::OsdDrawText(c.canvas, &raster, empty);
    kiv::OsdDrawText(c.canvas, &raster, WithText(700, 0, 0, 10, 10));   // automatic width below 1
    kiv::OsdDrawText(c.canvas, &raster, WithText(-30, 0, 20, 10, 10));  // box left of the canvas
    kiv::OsdDrawText(c.canvas, nullptr, WithText(0, 0, 10, 10, 10));    // no rasteriser
    EXPECT_EQ(std::make_pair(raster.texts, c.CountRed()), std::make_pair(0, 0));
    kiv::OsdDrawText(c.canvas, &raster, WithText(100, 10, 0, 0, 0));  // automatic box from position and size
    // The default colours are for the rasteriser; the fake paints opaque red.
    EXPECT_EQ(std::vector<int64_t>({raster.texts, job.box.width, job.box.height, job.fontPixels, job.textArgb, job.boxArgb, job.fillBox,
                                    c.Red(100, 10), c.Red(639, 81), c.Red(99, 10), c.Red(100, 82), c.CountRed()}),
              std::vector<int64_t>({1, 540, 72, 36, 0xFFFFFFFF, 0x80000000, 1, 255, 255, 0, 0, 540 * 72}));
    OsdItem item = WithText(0, 0, 10, 10, 10);
    item.transparent = true, item.color = 0x00123456, item.backColor = 0x40ABCDEF;  // plain RGB: opaque
    kiv::OsdDrawText(c.canvas, &raster, item);
    EXPECT_EQ(std::vector<int64_t>({job.textArgb, job.boxArgb, job.fillBox}), std::vector<int64_t>({0xFF123456, 0x40ABCDEF, 0}));
    kiv::OsdDrawText(small.canvas, &raster, WithText(0, -10, 20, 0, 1000));  // a huge size clamps the font, not the box, which is clipped
    EXPECT_EQ(std::vector<int>({job.fontPixels, job.box.height, region.y, region.height, region.width}), std::vector<int>({512, 2000, 0, 64, 20}));
    // Pictures come at their own size unless given one; a colour key hides pixels; a missing file draws nothing.
    kiv::OsdDrawPicture(pic.canvas, &raster, WithText(60, 4, 0, 0, 0, kiv::kOsdPicture));  // clipped at the right edge
    EXPECT_EQ(std::vector<int>({raster.pictures, raster.lastDest.width, raster.lastDest.height, raster.lastRegion.width, pic.CountRed()}),
              std::vector<int>({1, 16, 8, 4, 4 * 8}));
    raster.missingFile = true;
    kiv::OsdDrawPicture(pic.canvas, &raster, WithText(0, 20, 10, 10, 0, kiv::kOsdPicture));
    item = WithText(0, 0, 10, 10, 0, kiv::kOsdPicture);  // the key hides matching pixels whatever their alpha
    item.transparent = true, item.backColor = 0xFF00FF00u;
    kiv::OsdDrawPicture(pic.canvas, &green, item);
    item.backColor = 0x0000FF00u;  // the key compares red, green and blue only
    kiv::OsdDrawPicture(pic.canvas, &green, item);
    EXPECT_EQ(std::vector<int>({raster.pictures, green.pictures, pic.CountRed(), pic.out.planes[0][1]}), std::vector<int>({1, 2, 4 * 8, 0}));
    item.transparent = false;
    kiv::OsdDrawPicture(pic.canvas, &green, item);
    EXPECT_EQ(pic.out.planes[0][1], 255);
}

KivVideoOsd* Port(void* osd) { return static_cast<KivVideoOsd*>(static_cast<KivPortBase*>(osd)); }
using AddFn = KivResult(KIV_CALL*)(void*, const KivVideoOsdItem*);

class OsdPortTest : public ::testing::Test {
protected:
    kivtest::LibraryScope library;
    void* osd = KIV_CreateVideoOsd();
    void TearDown() override { EXPECT_EQ(KIV_DestroyPort(osd), KIV_OK); }
    List IdsAndKinds() {  // in list order
        List out;
        for (const kiv::OsdItem& item : Port(osd)->Items()) out.emplace_back(item.id, item.kind);
        return out;
    }
    void Add(std::initializer_list<std::pair<AddFn, int32_t>> items) {
        for (const auto& [add, id] : items) {
            const KivVideoOsdItem item = WithId(id);
            ASSERT_EQ(add(osd, &item), KIV_OK);
        }
    }
};

TEST_F(OsdPortTest, BadInputIsRejectedAndChangesNothing) {
    KivVideoOsdItem item = WithId(5);
    ASSERT_EQ(KIV_AddVideoOsdText(osd, &item), KIV_OK);
    void* mux = KIV_CreateVideoMux();
    const auto text = Wide("new");
    for (void* wrong : {static_cast<void*>(nullptr), mux}) {
        const std::vector<KivResult> results = {
            KIV_SetVideoOsdText(wrong, &item), KIV_SetVideoOsdImage(wrong, &item), KIV_AddVideoOsdText(wrong, &item),
            KIV_AddVideoOsdImage(wrong, &item), KIV_AddVideoOsdRect(wrong, &item), KIV_UpdateVideoOsdText(wrong, 5, text.c_str()),
            KIV_RemoveVideoOsdItem(wrong, 5), KIV_ClearVideoOsd(wrong), KIV_ConnectVideoOsdOutput(wrong, 1, osd)};
        EXPECT_EQ(results, std::vector<KivResult>(results.size(), KIV_ERROR_INVALID_ARG));
    }
    const std::vector<KivResult> results = {
        KIV_SetVideoOsdText(osd, nullptr), KIV_SetVideoOsdImage(osd, nullptr), KIV_AddVideoOsdText(osd, nullptr),
        KIV_AddVideoOsdImage(osd, nullptr), KIV_AddVideoOsdRect(osd, nullptr), KIV_UpdateVideoOsdText(osd, 5, nullptr),
        KIV_UpdateVideoOsdText(osd, 0, text.c_str()), KIV_ConnectVideoOsdOutput(osd, 1, nullptr), KIV_ConnectVideoOsdOutput(osd, 0, nullptr),
        KIV_ConnectVideoOsdOutput(osd, 2, mux), KIV_ConnectVideoOsdOutput(osd, -1, mux), KIV_RemoveVideoOsdItem(osd, 0),
        KIV_RemoveVideoOsdItem(osd, 77)};
    EXPECT_EQ(results, std::vector<KivResult>(results.size(), KIV_ERROR_INVALID_ARG));
    EXPECT_EQ(KIV_Connect(osd, mux), KIV_ERROR_UNSUPPORTED);  // the overlay feeds other ports only through its output function
    EXPECT_EQ(static_cast<KivPortBase*>(osd)->DownstreamCount(), 0u);
    const std::vector<kiv::OsdItem> items = Port(osd)->Items();
    EXPECT_TRUE(items.size() == 1 && items[0].text == Wide("t"));
    KIV_DestroyPort(mux);
}

TEST_F(OsdPortTest, IdsAddSetUpdateRemoveAndClear) {
    const AddFn text = KIV_AddVideoOsdText, rect = KIV_AddVideoOsdRect, image = KIV_AddVideoOsdImage;
    // Id 0 or below: the port allocates one, counting from 1; the application may pick one the counter gave out.
    Add({{text, 0}, {rect, 0}, {image, 2}, {text, -7}});
    EXPECT_EQ(IdsAndKinds(), (List{{1, 1}, {2, 3}, {2, 2}, {3, 1}}));
    EXPECT_EQ(KIV_RemoveVideoOsdItem(osd, 2), KIV_OK);  // every item carrying the id, of any kind, keeping the order
    EXPECT_EQ(IdsAndKinds(), (List{{1, 1}, {3, 1}}));
    EXPECT_EQ(KIV_RemoveVideoOsdItem(osd, 2), KIV_ERROR_INVALID_ARG);
    EXPECT_EQ(std::make_pair(KIV_ClearVideoOsd(osd), KIV_ClearVideoOsd(osd)), std::make_pair(KIV_OK, KIV_OK));
    EXPECT_TRUE(IdsAndKinds().empty());
    Add({{text, 1}, {image, 11}, {text, 2}, {rect, 12}, {text, 3}, {image, 13}, {KIV_SetVideoOsdText, 20}});
    EXPECT_EQ(IdsAndKinds(), (List{{11, 2}, {12, 3}, {13, 2}, {20, 1}}));  // set replaces its own kind only, and appends
    Add({{KIV_SetVideoOsdImage, 21}});
    EXPECT_EQ(IdsAndKinds(), (List{{12, 3}, {20, 1}, {21, 2}}));
    ASSERT_EQ(KIV_ClearVideoOsd(osd), KIV_OK);
    Add({{image, 4}, {text, 4}, {text, 4}, {image, 9}});  // update changes the first text item only
    const auto updated = Wide("\xE4\xBD\xA0\xE5\xA5\xBD updated");
    EXPECT_EQ(std::vector<KivResult>({KIV_UpdateVideoOsdText(osd, 4, updated.c_str()), KIV_UpdateVideoOsdText(osd, 77, updated.c_str()),
                                      KIV_UpdateVideoOsdText(osd, 9, updated.c_str())}),  // 9: not a text item
              std::vector<KivResult>({KIV_OK, KIV_ERROR_INVALID_ARG, KIV_ERROR_INVALID_ARG}));
    const std::vector<kiv::OsdItem> items = Port(osd)->Items();
    ASSERT_EQ(items.size(), 4u);
    EXPECT_EQ(std::vector<WString>({items[0].text, items[1].text, items[2].text, items[3].text}),
              std::vector<WString>({Wide("t"), updated, Wide("t"), Wide("t")}));
    EXPECT_EQ(items[1].width, 10);
}

TEST_F(OsdPortTest, RecordDefaultsAreApplied) {
    KivVideoOsdItem r{};
    r.opacity = -1.0f, r.size = -4, r.visible = 7, r.transparent = -1;
    // No terminator: the whole field is taken, not a unit of the next one.
    std::fill(std::begin(r.text), std::end(r.text), 'x');
    std::fill(std::begin(r.fontName), std::end(r.fontName), 'f');
    std::fill(std::begin(r.imagePath), std::end(r.imagePath), 'p');
    ASSERT_EQ(KIV_AddVideoOsdText(osd, &r), KIV_OK);
    r.opacity = 3.0f, r.color = 0x00FF0000u, r.backColor = 0x12345678u, r.transparent = 0, r.fontName[0] = 0;
    ASSERT_EQ(KIV_AddVideoOsdRect(osd, &r), KIV_OK);
    r.opacity = std::nanf("");
    ASSERT_EQ(KIV_AddVideoOsdImage(osd, &r), KIV_OK);
    const std::vector<kiv::OsdItem> items = Port(osd)->Items();
    ASSERT_EQ(items.size(), 3u);
    EXPECT_EQ(std::vector<WString>({items[0].text, items[0].fontName, items[0].imagePath, items[1].fontName}),
              std::vector<WString>({WString(std::size(r.text), 'x'), WString(std::size(r.fontName), 'f'), WString(std::size(r.imagePath), 'p'),
                                    Wide("Microsoft YaHei UI")}));
    const std::tuple<float, uint32_t, uint32_t, int32_t, bool, bool> expected[] = {
        {0.0f, 0xFFFFFFFFu, 0x80000000u, 36, true, true},
        {1.0f, 0x00FF0000u, 0x12345678u, 3, false, true},  // colour kept as given; drawn opaque
        {0.0f, 0x00FF0000u, 0x12345678u, 36, false, true}};
    for (size_t i = 0; i < items.size(); ++i)
        EXPECT_EQ(std::make_tuple(items[i].opacity, items[i].color, items[i].backColor, items[i].size, items[i].transparent, items[i].visible),
                  expected[i]) << i;
}

// frame source -> overlay, with an ordinary output and an overlay output, each a video mux whose callback keeps the frames.
class OsdGraphTest : public OsdPortTest {
protected:
    void *source = KIV_CreateVideoFrameSource(), *plainMux = KIV_CreateVideoMux(), *overlayMux = KIV_CreateVideoMux();
    FrameCatcher plain, overlay, own;

    void SetUp() override {
        ASSERT_EQ(KIV_Connect(source, osd), KIV_OK);
        ASSERT_EQ(KIV_ConnectVideoOsdOutput(osd, 0, plainMux), KIV_OK);
        ASSERT_EQ(KIV_ConnectVideoOsdOutput(osd, 1, overlayMux), KIV_OK);
        ASSERT_EQ(KIV_ConnectVideoOsdOutput(osd, 1, overlayMux), KIV_OK);  // no duplicate
        for (auto [port, catcher] : {std::make_pair(plainMux, &plain), {overlayMux, &overlay}, {osd, &own}})
            KIV_SetVideoFrameCallback(port, FrameCatcher::OnFrame, catcher);
    }
    void TearDown() override {
        KIV_Disconnect(source, osd);
        OsdPortTest::TearDown();
        for (void* port : {source, plainMux, overlayMux}) KIV_DestroyPort(port);
    }
    void AddRect(int x, int y, int w, int h, uint32_t color, int32_t layer = 0, int32_t visible = 1) {
        KivVideoOsdItem r = osdtest::Item(x, y, w, h);
        r.color = color, r.layer = layer, r.size = 1, r.visible = visible;
        ASSERT_EQ(KIV_AddVideoOsdRect(osd, &r), KIV_OK);
    }
};

// Ordinary outputs get the frame as it came, overlay outputs a drawn copy; layers decide what ends on top;
// compressed frames pass only while nothing is visible.
TEST_F(OsdGraphTest, OutputsFormatsLayersAndCompressedFrames) {
    AddRect(0, 0, 4, 4, 0xFFFFFFFFu, 0, 0);
    std::vector<uint8_t> payload(100, 7);
    KivVideoFrame mjpg = kivtest::FrameOver(KIV_PIXEL_FORMAT_MJPG, 64, 48, payload.data(), 100);
    ASSERT_EQ(KIV_PushVideoFrame(source, &mjpg), KIV_OK);
    ASSERT_EQ(overlay.Count(), 1u);
    EXPECT_EQ(overlay.frames[0].record, &mjpg);  // the very frame, not a copy
    AddRect(0, 0, 3, 3, 0xFFFFFFFFu);
    KivVideoFrame h264 = kivtest::FrameOver(KIV_PIXEL_FORMAT_H264, 64, 48, payload.data(), 100);
    EXPECT_EQ(Port(osd)->OnVideoFrame(&h264), KIV_ERROR_UNSUPPORTED);
    EXPECT_EQ(std::make_pair(overlay.Count(), plain.Count()), std::make_pair(size_t(1), size_t(2)));  // the ordinary output still gets it
    EXPECT_EQ(Port(osd)->FramesInProgress(), 0);
    OwnedFrame rgb(KIV_PIXEL_FORMAT_RGB32, 16, 8, 40);
    rgb.frame.timestamp = 555, rgb.frame.frameIndex = 3;
    ASSERT_EQ(KIV_PushVideoFrame(source, &rgb.frame), KIV_OK);
    ASSERT_EQ(std::vector<size_t>({plain.Count(), own.Count(), overlay.Count()}), std::vector<size_t>({3, 3, 2}));
    EXPECT_EQ(std::make_pair(plain.frames[2].plane0, own.frames[2].plane0), std::make_pair(rgb.bytes, rgb.bytes));
    const kivtest::CaughtFrame& r = overlay.frames[1];
    EXPECT_NE(r.meta.planes[0], rgb.frame.planes[0]);
    EXPECT_EQ(std::vector<int64_t>({r.meta.format, r.meta.timestamp, int64_t(r.meta.frameIndex), r.plane0[0], r.plane0[17 * 4], r.plane0[3 * 4]}),
              std::vector<int64_t>({KIV_PIXEL_FORMAT_RGB32, 555, 3, 255, 40, 255}));
    ASSERT_EQ(KIV_ClearVideoOsd(osd), KIV_OK);
    AddRect(0, 0, 4, 4, 0xFF0000FFu, 5);  // blue, drawn last
    AddRect(0, 0, 4, 4, 0xFFFF0000u, 1);  // red
    AddRect(0, 0, 4, 4, 0xFF00FF00u, 5);  // green: same layer as blue, after it in the list
    ASSERT_EQ(KIV_PushVideoFrame(source, &rgb.frame), KIV_OK);
    ASSERT_EQ(overlay.Count(), 3u);
    EXPECT_EQ(std::vector<uint8_t>(overlay.frames[2].plane0.begin(), overlay.frames[2].plane0.begin() + 4), (std::vector<uint8_t>{0, 255, 0, 255}));
}

// Holds the overlay output's callback until 20 ms into the test's disconnect; with `osd` set, it disconnects itself.
struct Gate {
    std::atomic<bool> entered{false}, disconnecting{false}, finished{false};
    std::atomic<int> frames{0};
    void *osd = nullptr, *self = nullptr;
    static void KIV_CALL OnFrame(const KivVideoFrame*, void* user) {
        auto* gate = static_cast<Gate*>(user);
        gate->frames++, gate->entered = true;
        if (gate->osd) KIV_Disconnect(gate->osd, gate->self);  // its own frame is in progress: no waiting for it
        while (!gate->osd && !gate->disconnecting) std::this_thread::sleep_for(std::chrono::milliseconds(1));
        if (!gate->osd) std::this_thread::sleep_for(std::chrono::milliseconds(20));
        gate->finished = true;
    }
};

TEST_F(OsdGraphTest, DisconnectWaitsForAFrameInFlightButNotForItsOwn) {
    AddRect(0, 0, 4, 4, 0xFFFFFFFFu);
    Gate gate;
    KIV_SetVideoFrameCallback(overlayMux, Gate::OnFrame, &gate);
    OwnedFrame in(KIV_PIXEL_FORMAT_RGB32, 8, 8, 0);
    std::thread producer([&] { KIV_PushVideoFrame(source, &in.frame); });
    while (!gate.entered) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    gate.disconnecting = true;
    EXPECT_EQ(KIV_Disconnect(osd, overlayMux), KIV_OK);
    EXPECT_TRUE(gate.finished);
    producer.join();
    EXPECT_EQ(KIV_Disconnect(osd, overlayMux), KIV_OK);  // not connected any more: still 0
    ASSERT_EQ(KIV_PushVideoFrame(source, &in.frame), KIV_OK);
    gate.osd = osd, gate.self = overlayMux;
    ASSERT_EQ(KIV_ConnectVideoOsdOutput(osd, 1, overlayMux), KIV_OK);
    for (int i = 0; i < 2; ++i) ASSERT_EQ(KIV_PushVideoFrame(source, &in.frame), KIV_OK);
    EXPECT_EQ(std::make_pair(gate.frames.load(), plain.Count()), std::make_pair(2, size_t(4)));
}

TEST(OsdFramePath, NothingIsDrawnWithoutOverlayOutputs) {
    auto* raster = new FakeRasterizer();  // owned by the port; paints opaque red
    KivVideoOsd port{std::unique_ptr<kiv::OsdRasterizer>(raster)};
    const KivVideoOsdItem text = WithId(0);
    OwnedFrame in(KIV_PIXEL_FORMAT_RGB32, 32, 32, 0);
    ASSERT_EQ(port.AddItem(&text, kiv::kOsdText), KIV_OK);
    EXPECT_EQ(port.OnVideoFrame(&in.frame), KIV_OK);
    EXPECT_EQ(raster->texts, 0);
    KivVideoMux sink;
    FrameCatcher seen;
    sink.SetVideoFrameCallback(FrameCatcher::OnFrame, &seen);
    ASSERT_EQ(port.AddOverlayOutput(&sink), KIV_OK);
    EXPECT_EQ(port.OnVideoFrame(&in.frame), KIV_OK);
    ASSERT_EQ(std::make_pair(raster->texts, seen.Count()), std::make_pair(1, size_t(1)));
    EXPECT_EQ(std::make_tuple(seen.frames[0].plane0[2], port.OnVideoFrame(nullptr), port.FramesInProgress()), std::make_tuple(255, KIV_ERROR_INVALID_ARG, 0));
}

}  // namespace
