// Rectangle outlines pixel by pixel, and the geometry and blending of text
// and picture items through a scripted rasteriser.
#include <gtest/gtest.h>

#include "osd_test_util.h"
#include "processing/osd_draw.h"
#include "test_support.h"

using kiv::OsdCanvas;
using kiv::OsdItem;
using kivtest::OwnedFrame;
using osdtest::FakeRasterizer;

namespace {

struct Rgb32Canvas {
    OwnedFrame in;
    OsdCanvas canvas;
    KivVideoFrame out{};
    Rgb32Canvas(int w, int h) : in(KIV_PIXEL_FORMAT_RGB32, w, h, 0) {
        EXPECT_EQ(canvas.Build(in.frame), KIV_OK);
        out = canvas.Frame(in.frame);
    }
    // Red channel of pixel (x, y).
    int Red(int x, int y) const { return out.planes[0][y * out.strides[0] + x * 4 + 2]; }
    int CountRed() const {
        int n = 0;
        for (int y = 0; y < out.height; ++y)
            for (int x = 0; x < out.width; ++x) n += Red(x, y) != 0;
        return n;
    }
    // The picture row by row: '#' opaque red, '.' untouched, '?' anything else.
    std::vector<std::string> RedRows() const {
        std::vector<std::string> rows(static_cast<size_t>(out.height), std::string(static_cast<size_t>(out.width), '.'));
        for (int y = 0; y < out.height; ++y)
            for (int x = 0; x < out.width; ++x) rows[y][x] = Red(x, y) == 255 ? '#' : Red(x, y) == 0 ? '.' : '?';
        return rows;
    }
};

// The expected RedRows of a one-pixel outline with corners (x0, y0), (x1, y1).
std::vector<std::string> Outline(int w, int h, int x0, int y0, int x1, int y1) {
    std::vector<std::string> rows(static_cast<size_t>(h), std::string(static_cast<size_t>(w), '.'));
    for (int y = y0; y <= y1; ++y)
        for (int x = x0; x <= x1; ++x)
            if (x == x0 || x == x1 || y == y0 || y == y1) rows[y][x] = '#';
    return rows;
}

OsdItem Rect(int x, int y, int w, int h, int size, uint32_t color = 0xFFFF0000u, float opacity = 1.0f) {
    KivVideoOsdItem record = osdtest::Item(x, y, w, h);
    record.size = size;
    record.color = color;
    record.opacity = opacity;
    return kiv::OsdItemFromRecord(record, kiv::kOsdRect);
}

TEST(OsdRect, OutlinesAreClippedToTheCanvasBeforeDrawing) {
    OsdItem hidden = Rect(2, 2, 8, 8, 2);
    hidden.visible = false;
    const struct {
        const char* what;
        int w, h;
        OsdItem item;
        int x0, y0, x1, y1;  // the outline drawn; x0 < 0 when nothing is
    } cases[] = {
        {"negative width: columns -10..10 clip to 0..10", 32, 32, Rect(10, 10, -20, 5, 1), 0, 10, 10, 15},
        {"negative height, overhanging every edge", 16, 12, Rect(-5, 20, 100, -100, 1), 0, 0, 15, 11},
        {"plain RGB colour is opaque", 8, 8, Rect(0, 0, 7, 7, 1, 0x00FF0000u), 0, 0, 7, 7},
        {"no width", 16, 16, Rect(4, 4, 0, 8, 2), -1, 0, 0, 0},
        {"no height", 16, 16, Rect(4, 4, 8, 0, 2), -1, 0, 0, 0},
        {"wholly left of the canvas", 16, 16, Rect(-50, 2, 10, 8, 2), -1, 0, 0, 0},
        {"wholly below", 16, 16, Rect(2, 40, 10, 8, 2), -1, 0, 0, 0},
        {"hidden", 16, 16, hidden, -1, 0, 0, 0},
    };
    for (const auto& k : cases) {
        SCOPED_TRACE(k.what);
        Rgb32Canvas c(k.w, k.h);
        kiv::OsdDrawRect(c.canvas, k.item);
        EXPECT_EQ(c.RedRows(), k.x0 < 0 ? Outline(k.w, k.h, 0, 0, -1, -1) : Outline(k.w, k.h, k.x0, k.y0, k.x1, k.y1));
    }
}

// Each ring's rows and columns blend separately, so pixels where they meet
// blend more than once; rings stop at 32.
TEST(OsdRect, OverlappingRingPassesBlendAgain) {
    const struct {
        OsdItem item;
        int x, y, red;
    } cases[] = {
        {Rect(2, 2, 6, 6, 1, 0xFFFF0000u, 0.5f), 5, 2, 128},  // 255 x 0.5 + 0.5
        {Rect(2, 2, 6, 6, 1, 0xFFFF0000u, 0.5f), 2, 5, 128},
        {Rect(2, 2, 6, 6, 1, 0xFFFF0000u, 0.5f), 2, 2, 192},  // corners twice: 128 x 0.5 + 127.5 + 0.5
        {Rect(2, 2, 6, 6, 1, 0xFFFF0000u, 0.5f), 8, 8, 192},
        {Rect(2, 2, 6, 6, 1, 0xFFFF0000u, 0.5f), 8, 2, 192},
        // A 3x3 box with 3 rings: the centre is ring 1's row and column;
        // (1, 0) is also ring 2's bottom row; (0, 0) four times.
        {Rect(0, 0, 2, 2, 3, 0xFFFF0000u, 0.5f), 1, 1, 192},
        {Rect(0, 0, 2, 2, 3, 0xFFFF0000u, 0.5f), 1, 0, 224},
        {Rect(0, 0, 2, 2, 3, 0xFFFF0000u, 0.5f), 0, 0, 240},
        {Rect(0, 0, 99, 99, 40), 50, 31, 255},
        {Rect(0, 0, 99, 99, 40), 50, 32, 0},
        {Rect(0, 0, 99, 99, 40), 68, 50, 255},  // ring 31 of the right side
        {Rect(0, 0, 99, 99, 40), 67, 50, 0},
    };
    for (const auto& c : cases) {
        Rgb32Canvas canvas(100, 100);
        kiv::OsdDrawRect(canvas.canvas, c.item);
        EXPECT_EQ(canvas.Red(c.x, c.y), c.red) << c.x << "," << c.y << " of a rect at " << c.item.x;
    }
}

struct FakeSetup {
    std::shared_ptr<FakeRasterizer::Calls> calls = std::make_shared<FakeRasterizer::Calls>();
    FakeRasterizer raster{calls};
};

OsdItem Text(int x, int y, int w, int h, int size) {
    KivVideoOsdItem record = osdtest::Item(x, y, w, h);
    record.size = size;
    osdtest::SetText(record.text, "hello");
    return kiv::OsdItemFromRecord(record, kiv::kOsdText);
}

TEST(OsdText, BoxFontAndColoursReachTheRasteriser) {
    FakeSetup f;
    Rgb32Canvas c(640, 480);
    kiv::OsdDrawText(c.canvas, &f.raster, Text(100, 10, 0, 0, 0));  // automatic box from position and size
    ASSERT_EQ(f.calls->text, 1);
    const kiv::OsdTextJob& job = f.calls->lastText;
    EXPECT_EQ(std::vector<int64_t>({job.box.width, job.box.height, job.fontPixels, job.textArgb, job.boxArgb, job.fillBox}),
              std::vector<int64_t>({540, 72, 36, 0xFFFFFFFF, 0x80000000, 1}));
    // The default colours are for the rasteriser; the fake paints opaque red.
    EXPECT_EQ(std::vector<int>({c.Red(100, 10), c.Red(639, 81), c.Red(99, 10), c.Red(100, 82)}),
              std::vector<int>({255, 255, 0, 0}));
    EXPECT_EQ(c.CountRed(), 540 * 72);

    OsdItem item = Text(0, 0, 10, 10, 10);
    item.transparent = true;
    item.color = 0x00123456;  // plain RGB: opaque
    item.backColor = 0x40ABCDEF;
    kiv::OsdDrawText(c.canvas, &f.raster, item);
    EXPECT_EQ(std::vector<int64_t>({job.textArgb, job.boxArgb, job.fillBox}), std::vector<int64_t>({0xFF123456, 0x40ABCDEF, 0}));

    // A huge size clamps the font but not the box, which is clipped.
    Rgb32Canvas small(64, 64);
    kiv::OsdDrawText(small.canvas, &f.raster, Text(0, -10, 20, 0, 1000));
    EXPECT_EQ(std::vector<int>({job.fontPixels, job.box.height, f.calls->lastRegion.y, f.calls->lastRegion.height,
                                f.calls->lastRegion.width}),
              std::vector<int>({512, 2000, 0, 64, 20}));
}

TEST(OsdText, SkipsWhatCannotBeDrawn) {
    FakeSetup f;
    Rgb32Canvas c(64, 64);
    OsdItem empty = Text(0, 0, 10, 10, 10);
    empty.text.clear();
    kiv::OsdDrawText(c.canvas, &f.raster, empty);
    kiv::OsdDrawText(c.canvas, &f.raster, Text(70, 0, 0, 10, 10));    // automatic width below 1
    kiv::OsdDrawText(c.canvas, &f.raster, Text(-30, 0, 20, 10, 10));  // box left of the canvas
    kiv::OsdDrawText(c.canvas, nullptr, Text(0, 0, 10, 10, 10));      // no rasteriser
    EXPECT_EQ(f.calls->text, 0);
    EXPECT_EQ(c.CountRed(), 0);
}

OsdItem Picture(int x, int y, int w, int h) {
    KivVideoOsdItem record = osdtest::Item(x, y, w, h);
    osdtest::SetText(record.imagePath, "logo.png");
    return kiv::OsdItemFromRecord(record, kiv::kOsdPicture);
}

TEST(OsdPicture, OwnSizeWhenItemSizeIsAutomaticAndNothingWhenMissing) {
    FakeSetup f;
    Rgb32Canvas c(64, 64);
    kiv::OsdDrawPicture(c.canvas, &f.raster, Picture(60, 4, 0, 0));
    ASSERT_EQ(f.calls->picture, 1);
    EXPECT_EQ(std::vector<int>({f.calls->lastDest.width, f.calls->lastDest.height, f.calls->lastRegion.width}),
              std::vector<int>({16, 8, 4}));  // clipped at the right edge
    EXPECT_EQ(c.CountRed(), 4 * 8);
    f.raster.missingFile = true;
    kiv::OsdDrawPicture(c.canvas, &f.raster, Picture(0, 20, 10, 10));
    EXPECT_EQ(f.calls->picture, 1);
    EXPECT_EQ(c.CountRed(), 4 * 8);
}

TEST(OsdPicture, ColourKeyHidesMatchingPixelsWhateverTheirAlpha) {
    auto calls = std::make_shared<FakeRasterizer::Calls>();
    FakeRasterizer green(calls, 0xFF00FF00u);
    Rgb32Canvas c(32, 32);
    OsdItem item = Picture(0, 0, 10, 10);
    item.transparent = true;
    item.backColor = 0xFF00FF00u;
    kiv::OsdDrawPicture(c.canvas, &green, item);
    item.backColor = 0x0000FF00u;  // the key compares red, green and blue only
    kiv::OsdDrawPicture(c.canvas, &green, item);
    EXPECT_EQ(calls->picture, 2);
    EXPECT_EQ(c.out.planes[0][1], 0);
    item.transparent = false;
    kiv::OsdDrawPicture(c.canvas, &green, item);
    EXPECT_EQ(c.out.planes[0][1], 255);
}

}  // namespace
