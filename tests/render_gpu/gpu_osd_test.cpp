// The overlay of the GPU stages natively: the integer "over" step, item
// records and commands, and the canvas composed from rectangles, text and
// pictures, each against a reference written out here.
#include <gtest/gtest.h>

#include <cmath>
#include <map>

#include "render/gpu_osd_canvas.h"
#include "render/gpu_osd_items.h"
#include "test_support.h"

namespace {

using kiv::GpuOsdBitmap;
using kiv::OsdItem;

KivVideoOsdItem Record(int32_t id, int32_t layer, int32_t x, int32_t y, int32_t w, int32_t h, uint32_t color,
                       float opacity = 1.0f) {
    KivVideoOsdItem r{};
    r.id = id, r.visible = 1, r.layer = layer, r.x = x, r.y = y, r.width = w, r.height = h;
    r.color = color, r.opacity = opacity;
    return r;
}

// The over step written out in doubles, rounded half up as the integer form
// promises; hand-worked values below pin it down independently.
void ReferenceOver(uint8_t* p, uint8_t b, uint8_t g, uint8_t r, uint32_t a) {
    const uint8_t src[3] = {b, g, r};
    for (int c = 0; c < 3; ++c) p[c] = static_cast<uint8_t>(std::floor((src[c] * a + p[c] * (255.0 - a) + 127) / 255));
    p[3] = static_cast<uint8_t>(std::floor((p[3] * (255.0 - a) + 127) / 255) + a);
}

// Draws text as a fixed pattern and pictures from a table.
class FakeRasterizer : public kiv::GpuOsdRasterizer {
public:
    bool RenderText(const OsdItem& item, GpuOsdBitmap* out) override {
        out->width = item.width, out->height = item.height;
        out->pixels.assign(static_cast<size_t>(item.width) * item.height * 4, 0);
        // Column c gets c * 40 in blue and green, c * 10 in red and a stray
        // byte where GDI leaves alpha (it must not count).
        for (size_t i = 0; i < out->pixels.size(); i += 4) {
            const int x = static_cast<int>(i / 4 % item.width);
            out->pixels[i] = out->pixels[i + 1] = static_cast<uint8_t>(x * 40);
            out->pixels[i + 2] = static_cast<uint8_t>(x * 10);
            out->pixels[i + 3] = 0x55;
        }
        ++texts;
        return true;
    }
    bool DecodePicture(const kiv::OsdString& path, GpuOsdBitmap* out) override {
        auto it = pictures.find(path);
        if (it != pictures.end()) *out = it->second;
        return it != pictures.end();
    }
    std::map<kiv::OsdString, GpuOsdBitmap> pictures;
    int texts = 0;
};

const uint8_t* Pixel(const GpuOsdBitmap& canvas, int x, int y) { return &canvas.pixels[(y * canvas.width + x) * 4]; }

TEST(GpuOsdBlend, OverStepMatchesTheRoundedFormula) {
    for (uint32_t a : {0u, 1u, 77u, 128u, 254u, 255u}) {
        for (uint8_t d : {uint8_t{0}, uint8_t{90}, uint8_t{255}}) {
            uint8_t got[4] = {d, static_cast<uint8_t>(255 - d), 17, d};
            uint8_t want[4] = {got[0], got[1], got[2], got[3]};
            kiv::GpuOsdBlendOver(got, 200, 3, 255, a);
            if (a != 0) ReferenceOver(want, 200, 3, 255, a);
            EXPECT_EQ(std::vector<uint8_t>(got, got + 4), std::vector<uint8_t>(want, want + 4)) << a << " " << int(d);
        }
    }
}

TEST(GpuOsdItems, RecordDefaults) {
    const struct {
        float opacity;
        uint32_t coverage;
    } cases[] = {{0.0f, 255}, {-1.0f, 255}, {std::nanf(""), 255}, {2.0f, 255}, {0.5f, 128}, {0.2f, 51}};
    for (const auto& c : cases) {
        KivVideoOsdItem r = Record(1, 0, 0, 0, 4, 4, 0, c.opacity);
        const OsdItem item = kiv::GpuOsdItemFromRecord(r, kiv::kOsdRect);
        EXPECT_EQ(kiv::GpuOsdCoverage(item.opacity), c.coverage) << c.opacity;
        EXPECT_EQ(item.color, 0xFFFFFFFFu);
        EXPECT_EQ(item.backColor, 0x80000000u);
        EXPECT_EQ(item.size, 3);
    }
    const OsdItem t = kiv::GpuOsdItemFromRecord(Record(1, 0, 0, 0, 4, 4, 0), kiv::kOsdText);
    EXPECT_EQ(t.size, 36);
    EXPECT_EQ(t.fontName, kivtest::Wide("Microsoft YaHei UI"));
}

TEST(GpuOsdItems, CommandsApplyInOrderWithSharedIds) {
    auto item = [](int32_t id, int32_t kind, int32_t layer, const char* text) {
        KivVideoOsdItem r = Record(id, layer, 0, 0, 1, 1, 0);
        OsdItem i = kiv::GpuOsdItemFromRecord(r, kind);
        i.text = kivtest::Wide(text);
        return i;
    };
    std::vector<OsdItem> items;
    std::vector<kiv::GpuOsdCommand> batch = {
        {kiv::kGpuOsdAddImage, 7, item(7, kiv::kOsdPicture, 5, "pic")},
        {kiv::kGpuOsdAddText, 7, item(7, kiv::kOsdText, 2, "first")},
        {kiv::kGpuOsdAddText, 7, item(7, kiv::kOsdText, 2, "second")},
        {kiv::kGpuOsdAddRect, 9, item(9, kiv::kOsdRect, -1, "")},
        {kiv::kGpuOsdUpdateText, 7, item(0, 0, 0, "changed")},
        {42, 9, item(9, 0, 0, "")},  // unknown kinds are skipped
    };
    ASSERT_TRUE(kiv::ApplyGpuOsdCommands(batch, &items));
    // Sorted by layer; equal layers keep their order.
    std::basic_string<KivWChar> texts;
    for (const OsdItem& i : items) texts += i.text + kivtest::Wide("|");
    EXPECT_EQ(texts, kivtest::Wide("|changed|second|pic|"));

    // Nothing to change: no update of a picture's id, no removal of an unknown id.
    const std::vector<kiv::GpuOsdCommand> idle = {{kiv::kGpuOsdUpdateText, 9, item(0, 0, 0, "x")},
                                                  {kiv::kGpuOsdRemove, 3, {}}};
    EXPECT_FALSE(kiv::ApplyGpuOsdCommands(idle, &items));
    EXPECT_TRUE(kiv::ApplyGpuOsdCommands({{kiv::kGpuOsdRemove, 7, {}}}, &items));
    ASSERT_EQ(items.size(), 1u);
    EXPECT_EQ(items[0].id, 9);
    EXPECT_TRUE(kiv::ApplyGpuOsdCommands({{kiv::kGpuOsdClear, 0, {}}}, &items));
    EXPECT_TRUE(items.empty());
    EXPECT_FALSE(kiv::ApplyGpuOsdCommands({{kiv::kGpuOsdClear, 0, {}}}, &items));
    kiv::GpuOsdCommandQueue queue;  // hands each command over once
    for (int i = 0; i < 2; ++i) queue.Push(batch[i]);
    for (size_t expected : {2u, 0u}) {
        queue.TakeAll(&batch);
        EXPECT_EQ(batch.size(), expected);
    }
    queue.Push({kiv::kGpuOsdClear, 0, {}});
    queue.Clear();
    queue.TakeAll(&batch);
    EXPECT_TRUE(batch.empty());
}

// Rectangles: four bars per item, clipped, corners covered twice, layers
// drawn in ascending order whatever the list order.
TEST(GpuOsdCanvas, RectanglesMatchABarByBarReference) {
    const int W = 9, H = 7;
    std::vector<OsdItem> items = {
        kiv::GpuOsdItemFromRecord(Record(1, 4, 3, 2, 6, 5, 0x00FF0000, 0.5f), kiv::kOsdRect),  // on top
        kiv::GpuOsdItemFromRecord(Record(2, 1, -2, -1, 8, 6, 0x8000FF00, 0.0f), kiv::kOsdRect),
        kiv::GpuOsdItemFromRecord(Record(3, 9, 7, 5, 4, 4, 0xFF0000FF, 1.0f), kiv::kOsdRect),
    };
    items[1].size = 2;
    items[2].visible = false;
    GpuOsdBitmap canvas;
    kiv::ComposeGpuOsdCanvas(items, W, H, nullptr, &canvas);
    ASSERT_EQ(canvas.pixels.size(), size_t{W * H * 4});

    std::vector<uint8_t> want(W * H * 4, 0);
    for (int index : {1, 0}) {
        const OsdItem& it = items[index];
        const int t = it.size;
        const int bars[4][4] = {{it.x, it.y, it.width, t},
                                {it.x, it.y + it.height - t, it.width, t},
                                {it.x, it.y, t, it.height},
                                {it.x + it.width - t, it.y, t, it.height}};
        for (const auto& bar : bars) {
            for (int y = 0; y < H; ++y) {
                for (int x = 0; x < W; ++x) {
                    if (x >= bar[0] && x < bar[0] + bar[2] && y >= bar[1] && y < bar[1] + bar[3]) {
                        ReferenceOver(&want[(y * W + x) * 4], it.color & 0xFF, (it.color >> 8) & 0xFF,
                                      (it.color >> 16) & 0xFF, kiv::GpuOsdCoverage(it.opacity));
                    }
                }
            }
        }
    }
    EXPECT_EQ(canvas.pixels, want);
    // Spot checks against hand-worked values: an opaque green bar pixel, a
    // half-red corner covered twice over nothing.
    EXPECT_EQ(std::vector<uint8_t>(Pixel(canvas, 0, 0), Pixel(canvas, 0, 0) + 4), (std::vector<uint8_t>{0, 255, 0, 255}));
    EXPECT_EQ(std::vector<uint8_t>(Pixel(canvas, 8, 2), Pixel(canvas, 8, 2) + 4), (std::vector<uint8_t>{0, 0, 192, 192}));
}

TEST(GpuOsdCanvas, TextBlendsItsBrightnessAndClipsAtTheEdges) {
    FakeRasterizer raster;
    KivVideoOsdItem r = Record(1, 0, -2, 1, 6, 2, 0, 0.5f);
    std::vector<OsdItem> items = {kiv::GpuOsdItemFromRecord(r, kiv::kOsdText)};
    GpuOsdBitmap canvas;
    kiv::ComposeGpuOsdCanvas(items, 5, 4, &raster, &canvas);
    for (int y = 0; y < 4; ++y) {
        for (int x = 0; x < 5; ++x) {
            const int column = x + 2;  // text column drawn here
            std::vector<uint8_t> want(4, 0);
            if (y >= 1 && y <= 2 && column < 6 && column > 0) {
                const uint8_t grey = static_cast<uint8_t>(column * 40), red = static_cast<uint8_t>(column * 10);
                const uint32_t sum = std::min(2u * grey + red, 255u);
                ReferenceOver(want.data(), grey, grey, red, (sum * 128 + 127) / 255);
            }
            EXPECT_EQ(std::vector<uint8_t>(Pixel(canvas, x, y), Pixel(canvas, x, y) + 4), want) << x << "," << y;
        }
    }
    // Without a rasteriser, or without a size, text is skipped.
    kiv::ComposeGpuOsdCanvas(items, 5, 4, nullptr, &canvas);
    EXPECT_EQ(canvas.pixels, std::vector<uint8_t>(5 * 4 * 4, 0));
    items[0].width = 0;
    kiv::ComposeGpuOsdCanvas(items, 5, 4, &raster, &canvas);
    EXPECT_EQ(raster.texts, 1);
}

TEST(GpuOsdCanvas, PicturesScaleByNearestNeighbourWithTheirAlpha) {
    FakeRasterizer raster;
    GpuOsdBitmap picture;
    picture.width = picture.height = 2;
    picture.pixels = {10, 20, 30, 255, 40, 50, 60, 128, 70, 80, 90, 0, 100, 110, 120, 255};
    raster.pictures[kivtest::Wide("p.png")] = picture;

    KivVideoOsdItem r = Record(1, 0, 1, -1, 4, 4, 0, 0.5f);
    r.backColor = 0xFF1E140A;  // would be a colour key on the CPU: not here
    r.transparent = 1;
    OsdItem scaled = kiv::GpuOsdItemFromRecord(r, kiv::kOsdPicture);
    scaled.imagePath = kivtest::Wide("p.png");
    OsdItem natural = scaled;  // own size, at the bottom right corner
    natural.width = natural.height = 0;
    natural.x = 4, natural.y = 3, natural.opacity = 1.0f;
    OsdItem single = natural;  // 1 x 1: the picture's top-left pixel only
    single.width = single.height = 1;
    single.x = 0, single.y = 3;
    OsdItem missing = scaled;
    missing.imagePath = kivtest::Wide("none.png");
    GpuOsdBitmap canvas;
    kiv::ComposeGpuOsdCanvas({scaled, natural, single, missing}, 5, 4, &raster, &canvas);

    std::vector<uint8_t> want(5 * 4 * 4, 0);
    auto put = [&](int x, int y, int sx, int sy, float alpha) {
        if (x < 0 || x >= 5 || y < 0 || y >= 4) return;
        const uint8_t* s = &picture.pixels[(sy * 2 + sx) * 4];
        ReferenceOver(&want[(y * 5 + x) * 4], s[0], s[1], s[2], static_cast<uint32_t>(s[3] * alpha + 0.5f));
    };
    for (int r2 = 0; r2 < 4; ++r2)
        for (int c = 0; c < 4; ++c) put(1 + c, -1 + r2, c / 2, r2 / 2, 0.5f);
    for (int r2 = 0; r2 < 2; ++r2)
        for (int c = 0; c < 2; ++c) put(4 + c, 3 + r2, c, r2, 1.0f);
    put(0, 3, 0, 0, 1.0f);
    EXPECT_EQ(canvas.pixels, want);
    // The key colour pixel (source alpha 255) was drawn, half covered.
    EXPECT_EQ(Pixel(canvas, 1, 0)[3], 128);
}

}  // namespace
