// The GPU stages natively: LUT loads and request order (also racing a render thread), the overlay canvas against
// references written out here, the recorder against a stand-in sink, the exported interface without a window.
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <functional>
#include <future>
#include <map>
#include <thread>
#include <utility>

#include "render/gpu_lut_state.h"
#include "render/gpu_osd_canvas.h"
#include "render/gpu_osd_items.h"
#include "render/gpu_recorder.h"
#include "render/kiv_video_render.h"
#include "render/render_gpu_stages.h"
#include "render/snapshot_image.h"
#include "test_support.h"
#ifdef _WIN32
#include <objbase.h>

#include "processing_test_helpers.h"
#include "test_window_win.h"
#endif

namespace {

using kiv::GpuOsdBitmap;
using kiv::OsdItem;
using Bytes = std::vector<uint8_t>;

std::string Cube(int entries, const char* head = "", const char* entry = "0.25 0.5 1\n") {
    std::string text = head;
    while (entries-- > 0) text += entry;
    return text;
}

class GpuTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(KIV_EnableLog(1), KIV_OK); }
    void TearDown() override { KIV_EnableLog(0); }
    std::basic_string<KivWChar> File(const std::string& name, const std::string& body) {
        kivtest::WriteFile(dir + "/" + name, body);
        return kivtest::Wide(dir + "/" + name);
    }
    // Loads a cube, optionally from another thread while this one holds the render lock.
    int32_t Load(const std::basic_string<KivWChar>& path, bool renderBusy = false) {
        if (!renderBusy) return lut.LoadCubeFile(path.c_str(), renderLock);
        std::lock_guard<std::recursive_mutex> lock(renderLock);
        return std::async(std::launch::async, [&] { return lut.LoadCubeFile(path.c_str(), renderLock); }).get();
    }
    bool Logged(const std::string& text) { return kivtest::LibraryLog().find(text) != std::string::npos; }
    std::string dir = kivtest::TempDir("gpu");
    std::recursive_mutex renderLock;
    kiv::GpuLutState lut;
};

TEST_F(GpuTest, LutLoadsFailuresAndReuse) {
    ASSERT_EQ(Load(File("n33.cube", Cube(35937))), KIV_OK);  // no size line: 33 from the count
    EXPECT_EQ(Load(File("n33plus1.cube", Cube(35938))), KIV_ERROR_FAILED);
    EXPECT_EQ(Load(kivtest::Wide(dir + "/missing.cube")), KIV_ERROR_FAILED);
    ASSERT_TRUE(lut.ApplyPending());
    EXPECT_FALSE(lut.ApplyPending());  // failures queue nothing
    EXPECT_EQ(lut.ActiveData()->dim, 33);
    EXPECT_TRUE(Logged("parse error path=" + dir + "/n33plus1.cube"));
    EXPECT_TRUE(Logged("open file failed path=" + dir + "/missing.cube"));
    EXPECT_EQ(Load(kivtest::Wide("")), KIV_ERROR_INVALID_ARG);
    EXPECT_EQ(Load(kivtest::Wide("x")), KIV_ERROR_FAILED);  // a one-character name is a path, just not there
    EXPECT_EQ(lut.LoadCubeFile(nullptr, renderLock), KIV_ERROR_INVALID_ARG);
    // The pending, then the active path is reused without reading the file (removed after the first load)...
    const auto path = File("a.cube", Cube(8, "LUT_3D_SIZE 2\n"));
    ASSERT_EQ(Load(path), KIV_OK);
    std::remove((dir + "/a.cube").c_str());
    EXPECT_EQ(Load(path), KIV_OK);
    ASSERT_TRUE(lut.ApplyPending());
    EXPECT_EQ(Load(path), KIV_OK);
    EXPECT_FALSE(lut.ApplyPending());
    // ...but with the render side busy the active path is not looked at: the file is read again.
    EXPECT_EQ(Load(path, true), KIV_ERROR_FAILED);
    File("a.cube", Cube(8, "LUT_3D_SIZE 2\n"));
    EXPECT_EQ(Load(path, true), KIV_OK);
    EXPECT_TRUE(lut.ApplyPending());  // the same file makes a new texture
    // Configurations: strength checked, processor normalised, applied after a clear and a cube of the same batch.
    lut.QueueClear();
    lut.ApplyPending();
    KivVideoRenderLutConfig config{0, 1, 0, 0, 0, 0};
    for (float strength : {1.5f, -0.1f, std::nanf("")}) {
        config.strength = strength;
        EXPECT_EQ(lut.QueueConfig(config), KIV_ERROR_INVALID_ARG);
    }
    lut.ApplyPending();
    EXPECT_EQ(lut.ActiveConfig().enable * 10 + lut.ActiveConfig().strength, 1.0f);
    for (int processor : {3, 0, 2, 7}) {
        config.processor = processor, config.strength = 0.5f;
        ASSERT_EQ(lut.QueueConfig(config), KIV_OK);
        lut.ApplyPending();
        EXPECT_EQ(lut.ActiveConfig().processor, processor == 3 ? 3 : 1) << processor;
    }
    EXPECT_FALSE(lut.Usable());  // enabled but no table
    // One batch applies clear, cube, configuration in that order: the cube survives a clear queued before it.
    lut.QueueClear();
    ASSERT_EQ(Load(File("b.cube", Cube(8))), KIV_OK);
    ASSERT_EQ(lut.QueueConfig(config), KIV_OK);
    EXPECT_TRUE(lut.ApplyPending());
    EXPECT_TRUE(lut.Usable());
    // A clear drops a pending cube and disables the stage.
    ASSERT_EQ(Load(File("c.cube", Cube(27))), KIV_OK);
    lut.QueueClear();
    EXPECT_TRUE(lut.ApplyPending());
    EXPECT_TRUE(!lut.ActiveData() && lut.ActiveConfig().enable == 0);
}

// Requests from two application threads while a render thread applies them under its lock, as frames would.
TEST_F(GpuTest, LutRaceRequestsAndApplyingRunTogether) {
    const auto x = File("x.cube", Cube(8, "LUT_3D_SIZE 2\n", "0 0.5 1\n")), y = File("y.cube", Cube(8, "LUT_3D_SIZE 2\n", "0 0.5 1\n"));
    std::atomic<bool> stop{false};
    std::thread render([&] {
        while (!stop.load()) {
            std::lock_guard<std::recursive_mutex> lock(renderLock);
            lut.ApplyPending();
            if (lut.Usable()) { EXPECT_EQ(lut.ActiveData()->texels.size(), 32u); }
        }
    });
    std::thread loader([&] { for (int i = 0; i < 200; ++i) EXPECT_EQ(lut.LoadCubeFile((i % 2 ? x : y).c_str(), renderLock), KIV_OK); });
    KivVideoRenderLutConfig config{1, 1, 0, 0, 0, 1.0f};
    for (int i = 0; i < 200; ++i) {
        config.enable = i % 3 != 0;
        EXPECT_EQ(lut.QueueConfig(config), KIV_OK);
        if (i % 7 == 0) lut.QueueClear();
    }
    loader.join();
    stop = true;
    render.join();
}

KivVideoOsdItem Record(int32_t id, int32_t layer, int32_t x, int32_t y, int32_t w, int32_t h, uint32_t color, float opacity = 1.0f) {
    KivVideoOsdItem r{};
    r.id = id, r.visible = 1, r.layer = layer, r.x = x, r.y = y, r.width = w, r.height = h, r.color = color, r.opacity = opacity;
    return r;
}

// The over step written out in doubles, rounded half up as the integer form promises: the canvases' reference.
void ReferenceOver(uint8_t* p, uint8_t b, uint8_t g, uint8_t r, uint32_t a) {
    const uint8_t src[3] = {b, g, r};
    for (int c = 0; c < 3; ++c) p[c] = static_cast<uint8_t>(std::floor((src[c] * a + p[c] * (255.0 - a) + 127) / 255));
    p[3] = static_cast<uint8_t>(std::floor((p[3] * (255.0 - a) + 127) / 255) + a);
}

// Text as columns (c: c * 40 in blue and green, c * 10 in red; alpha left as GDI does), pictures from a table.
class FakeRasterizer : public kiv::GpuOsdRasterizer {
public:
    bool RenderText(const OsdItem& item, GpuOsdBitmap* out) override {
        *out = {item.width, item.height, Bytes(static_cast<size_t>(item.width) * item.height * 4, 0x55)};
        for (size_t i = 0; i < out->pixels.size(); i += 4) {
            const int x = static_cast<int>(i / 4 % item.width);
            out->pixels[i] = out->pixels[i + 1] = static_cast<uint8_t>(x * 40), out->pixels[i + 2] = static_cast<uint8_t>(x * 10);
        }
        return ++texts;
    }
    bool DecodePicture(const kiv::OsdString& path, GpuOsdBitmap* out) override { return pictures.count(path) && (*out = pictures[path], true); }
    std::map<kiv::OsdString, GpuOsdBitmap> pictures;
    int texts = 0;
};

TEST(GpuOsd, RecordDefaultsAndCommandsInOrderWithSharedIds) {
    const std::pair<float, uint32_t> coverage[] = {{0.0f, 255}, {-1.0f, 255}, {std::nanf(""), 255}, {2.0f, 255}, {0.5f, 128}, {0.2f, 51}};
    for (const auto& c : coverage) {
        const OsdItem item = kiv::GpuOsdItemFromRecord(Record(1, 0, 0, 0, 4, 4, 0, c.first), kiv::kOsdRect);
        const std::vector<uint32_t> got = {kiv::GpuOsdCoverage(item.opacity), item.color, item.backColor, uint32_t(item.size)};
        EXPECT_EQ(got, std::vector<uint32_t>({c.second, 0xFFFFFFFFu, 0x80000000u, 3})) << c.first;
    }
    const OsdItem t = kiv::GpuOsdItemFromRecord(Record(1, 0, 0, 0, 4, 4, 0), kiv::kOsdText);
    EXPECT_TRUE(t.size == 36 && t.fontName == kivtest::Wide("Microsoft YaHei UI"));
    auto item = [](int32_t id, int32_t kind, int32_t layer, const char* text) {
        OsdItem i = kiv::GpuOsdItemFromRecord(Record(id, layer, 0, 0, 1, 1, 0), kind);
        i.text = kivtest::Wide(text);
        return i;
    };
    std::vector<OsdItem> items;
    std::vector<kiv::GpuOsdCommand> batch = {
        {kiv::kGpuOsdAddImage, 7, item(7, kiv::kOsdPicture, 5, "pic")}, {kiv::kGpuOsdAddText, 7, item(7, kiv::kOsdText, 2, "first")},
        {kiv::kGpuOsdAddText, 7, item(7, kiv::kOsdText, 2, "second")}, {kiv::kGpuOsdAddRect, 9, item(9, kiv::kOsdRect, -1, "")},
        {kiv::kGpuOsdUpdateText, 7, item(0, 0, 0, "changed")},        {42, 9, item(9, 0, 0, "")},  // unknown kinds are skipped
    };
    ASSERT_TRUE(kiv::ApplyGpuOsdCommands(batch, &items));
    std::basic_string<KivWChar> texts;  // sorted by layer; equal layers keep their order
    for (const OsdItem& i : items) texts += i.text + kivtest::Wide("|");
    EXPECT_EQ(texts, kivtest::Wide("|changed|second|pic|"));
    // Nothing to change: no update of a picture's id, no removal of an unknown id.
    EXPECT_FALSE(kiv::ApplyGpuOsdCommands({{kiv::kGpuOsdUpdateText, 9, item(0, 0, 0, "x")}, {kiv::kGpuOsdRemove, 3, {}}}, &items));
    EXPECT_TRUE(kiv::ApplyGpuOsdCommands({{kiv::kGpuOsdRemove, 7, {}}}, &items));
    ASSERT_TRUE(items.size() == 1 && items[0].id == 9);
    EXPECT_TRUE(kiv::ApplyGpuOsdCommands({{kiv::kGpuOsdClear, 0, {}}}, &items));
    EXPECT_FALSE(kiv::ApplyGpuOsdCommands({{kiv::kGpuOsdClear, 0, {}}}, &items));
    kiv::GpuOsdCommandQueue queue;  // hands each command over once; a clear drops what waits
    for (int round = 0; round < 3; ++round) {
        if (round != 1) queue.Push({kiv::kGpuOsdClear, 0, {}}), queue.Push({kiv::kGpuOsdRemove, 3, {}});
        if (round == 2) queue.Clear();
        queue.TakeAll(&batch);
        EXPECT_EQ(batch.size(), round == 0 ? 2u : 0u) << round;
    }
}

// Rectangles: four bars per item, clipped, corners covered twice, layers drawn in ascending order.
TEST(GpuOsd, RectanglesMatchABarByBarReference) {
    const int W = 9, H = 7;
    std::vector<OsdItem> items = {
        kiv::GpuOsdItemFromRecord(Record(1, 4, 3, 2, 6, 5, 0x00FF0000, 0.5f), kiv::kOsdRect),  // on top
        kiv::GpuOsdItemFromRecord(Record(2, 1, -2, -1, 8, 6, 0x8000FF00, 0.0f), kiv::kOsdRect),
        kiv::GpuOsdItemFromRecord(Record(3, 9, 7, 5, 4, 4, 0xFF0000FF, 1.0f), kiv::kOsdRect),
    };
    items[1].size = 2, items[2].visible = false;
    GpuOsdBitmap canvas;
    kiv::ComposeGpuOsdCanvas(items, W, H, nullptr, &canvas);
    Bytes want(W * H * 4, 0);
    for (const OsdItem& it : {items[1], items[0]}) {
        const int t = it.size;
        const int bars[4][4] = {{it.x, it.y, it.width, t}, {it.x, it.y + it.height - t, it.width, t}, {it.x, it.y, t, it.height},
                                {it.x + it.width - t, it.y, t, it.height}};
        for (const auto& bar : bars)
            for (int y = std::max(0, bar[1]); y < std::min(H, bar[1] + bar[3]); ++y)
                for (int x = std::max(0, bar[0]); x < std::min(W, bar[0] + bar[2]); ++x)
                    ReferenceOver(&want[(y * W + x) * 4], it.color & 0xFF, (it.color >> 8) & 0xFF, (it.color >> 16) & 0xFF,
                                  kiv::GpuOsdCoverage(it.opacity));
    }
    EXPECT_EQ(canvas.pixels, want);
}

TEST(GpuOsd, TextBlendsItsBrightnessAndPicturesScaleWithTheirAlpha) {
    FakeRasterizer raster;
    std::vector<OsdItem> items = {kiv::GpuOsdItemFromRecord(Record(1, 0, -2, 1, 6, 2, 0, 0.5f), kiv::kOsdText)};
    GpuOsdBitmap canvas;
    kiv::ComposeGpuOsdCanvas(items, 5, 4, &raster, &canvas);
    Bytes want(5 * 4 * 4, 0);
    for (int i = 0; i < 20; ++i) {
        const int column = i % 5 + 2, y = i / 5;  // text column drawn at i
        if (y < 1 || y > 2 || column >= 6) continue;
        const uint8_t grey = static_cast<uint8_t>(column * 40), red = static_cast<uint8_t>(column * 10);
        ReferenceOver(&want[i * 4], grey, grey, red, (std::min(2u * grey + red, 255u) * 128 + 127) / 255);
    }
    EXPECT_EQ(canvas.pixels, want);
    // Without a rasteriser, or without a size, text is skipped.
    kiv::ComposeGpuOsdCanvas(items, 5, 4, nullptr, &canvas);
    EXPECT_EQ(canvas.pixels, Bytes(5 * 4 * 4, 0));
    items[0].width = 0;
    kiv::ComposeGpuOsdCanvas(items, 5, 4, &raster, &canvas);
    EXPECT_EQ(raster.texts, 1);
    // Pictures scale by nearest neighbour with their alpha.
    GpuOsdBitmap& picture = raster.pictures[kivtest::Wide("p.png")] = {2, 2, {10, 20, 30, 255, 40, 50, 60, 128, 70, 80, 90, 0, 100, 110, 120, 255}};
    KivVideoOsdItem r = Record(1, 0, 1, -1, 4, 4, 0, 0.5f);
    r.backColor = 0xFF1E140A, r.transparent = 1;  // would be a colour key on the CPU: not here
    OsdItem scaled = kiv::GpuOsdItemFromRecord(r, kiv::kOsdPicture);
    scaled.imagePath = kivtest::Wide("p.png");
    OsdItem natural = scaled, single = scaled, missing = scaled;
    natural.width = natural.height = 0, natural.x = 4, natural.y = 3, natural.opacity = 1.0f;  // own size, bottom right
    single.width = single.height = 1, single.x = 0, single.y = 3, single.opacity = 1.0f;      // the top-left pixel only
    missing.imagePath = kivtest::Wide("none.png");
    kiv::ComposeGpuOsdCanvas({scaled, natural, single, missing}, 5, 4, &raster, &canvas);
    want.assign(5 * 4 * 4, 0);
    auto put = [&](int x, int y, int sx, int sy, float alpha) {
        if (x < 0 || x >= 5 || y < 0 || y >= 4) return;
        const uint8_t* s = &picture.pixels[(sy * 2 + sx) * 4];
        ReferenceOver(&want[(y * 5 + x) * 4], s[0], s[1], s[2], static_cast<uint32_t>(s[3] * alpha + 0.5f));
    };
    for (int i = 0; i < 16; ++i) put(1 + i % 4, -1 + i / 4, i % 4 / 2, i / 8, 0.5f);
    for (int i = 0; i < 4; ++i) put(4 + i % 2, 3 + i / 2, i % 2, i / 2, 1.0f);
    put(0, 3, 0, 0, 1.0f);
    EXPECT_EQ(canvas.pixels, want);
}

std::string Span(int64_t time, int64_t duration) { return std::to_string(time) + "+" + std::to_string(duration); }

// Writes the recorder's calls as events ("open <file> <w>x<h> ...|v <time>+<duration>|"), failing what it is told.
struct SinkScript {
    int32_t openResult = KIV_OK;
    bool audioReady = true;
    int zeroCopyFailsFrom = -1, videoSamples = 0;  // the video sample index from which zero-copy fails
    uint32_t audioResult = 0;
    void* device = this;  // the render device the recording expects
    std::string events;
    void Event(const std::string& text) { events += text + "|"; }
};

struct FakeSink : kiv::GpuRecordSink {
    explicit FakeSink(SinkScript* script) : s(script) {}
    int32_t Open(void* device, const kiv::GpuRecordSettings& st, int32_t width, int32_t height, bool* audioReady) override {
        char text[160];
        std::snprintf(text, sizeof text, "open %s %dx%d fps=%d audio=%d %d/%d/%d%s", std::string(st.file.begin(), st.file.end()).c_str(),
                      width, height, st.fps, int(st.audio), st.sampleRate, st.channels, st.audioBitrate, device == s->device ? "" : " new device");
        s->Event(text);
        s->videoSamples = 0, *audioReady = s->audioReady;
        return s->openResult;
    }
    int32_t Convert(void* texture) override { return texture == &texture_ ? KIV_OK : KIV_ERROR_FAILED; }  // the final texture
    uint32_t WriteVideoZeroCopy(int64_t time, int64_t duration) override {
        return s->zeroCopyFailsFrom >= 0 && s->videoSamples >= s->zeroCopyFailsFrom ? 0x887A0001u : Video("v ", time, duration);
    }
    int32_t WriteVideoCopied(int64_t time, int64_t duration) override { return Video("copy ", time, duration); }
    int32_t Video(const char* kind, int64_t time, int64_t duration) { return s->Event(kind + Span(time, duration)), ++s->videoSamples, 0; }
    uint32_t WriteAudio(const uint8_t*, uint32_t bytes, int64_t time, int64_t duration) override {
        if (s->audioResult == 0) s->Event("a " + Span(time, duration) + " " + std::to_string(bytes));
        return s->audioResult;
    }
    void Finalize() override { s->Event("end"); }
    inline static int texture_ = 0;
    SinkScript* s;
};

KivGpuRecordConfig Request(const char* file, int32_t fps, int32_t audio, int32_t rate = 0, int32_t channels = 0) {
    KivGpuRecordConfig r{};
    kivtest::Wide(file).copy(r.file, std::size(r.file));
    r.fps = fps, r.bitrate = 4000000, r.audio = audio, r.sampleRate = rate, r.channels = channels;
    return r;
}

class GpuRecorderTest : public GpuTest {
protected:
    int32_t Submit(int count = 1, int32_t width = 8, int32_t height = 8) {
        int32_t result = KIV_OK;
        for (int i = 0; i < count && result == KIV_OK; ++i) result = recorder.SubmitFrame(script.device, &FakeSink::texture_, width, height);
        return result;
    }
    int32_t Audio(int32_t rate, int32_t channels, uint32_t bytes, int32_t bits = 16) {
        return recorder.WriteAudio({pcm.data(), bytes, rate, channels, bits, 0, 0});
    }
    std::string Events() { return std::exchange(script.events, std::string()); }  // the events so far
    size_t Mismatches() { return kivtest::CountOf(kivtest::LibraryLog(), "GPU recorder audio frame mismatch"); }
    SinkScript script;
    kiv::GpuRecorder recorder{[this] { return std::make_unique<FakeSink>(&script); }};
    Bytes pcm = Bytes(4096);  // no frame is longer
};

TEST_F(GpuRecorderTest, ArmingRetriesCountedTimesFallbackAndAudio) {
    EXPECT_EQ(Submit(), KIV_OK);  // idle: nothing made
    recorder.Stop();              // stop without start
    EXPECT_EQ(recorder.Arm(Request("", 30, 0)), KIV_ERROR_INVALID_ARG);
    EXPECT_FALSE(recorder.Armed());
    EXPECT_EQ(Events(), "");
    EXPECT_EQ(kiv::GpuRecorder().Arm(Request("x", 30, 0)), KIV_OK);  // a one-character name is a name
    KivGpuRecordConfig full = Request("", 30, 0);                     // a name filling the field ends with it
    std::fill(std::begin(full.file), std::end(full.file), 'a');
    full.reserved0 = 0x62;
    EXPECT_EQ(kiv::GpuRecordSettingsFrom(full).file.size(), 260u);
    ASSERT_EQ(recorder.Arm(Request("first.mp4", 24, 0)), KIV_OK);
    ASSERT_EQ(recorder.Arm(Request("second.mp4", 60, 1)), KIV_OK);  // keeps the first request
    EXPECT_TRUE(recorder.Armed());
    EXPECT_EQ(recorder.FrameDuration(), 416666);
    // A failed setup is retried with the next frame; a new render device (after a loss) means a new writer.
    script.openResult = KIV_ERROR_FAILED;
    EXPECT_EQ(Submit(), KIV_ERROR_FAILED);
    script.openResult = KIV_OK;
    EXPECT_EQ(Submit(), KIV_OK);
    int otherDevice = 0;
    EXPECT_EQ(recorder.SubmitFrame(&otherDevice, &FakeSink::texture_, 8, 8), KIV_OK);
    recorder.Stop();
    recorder.Stop();
    EXPECT_FALSE(recorder.Armed());
    const std::string open = "open first.mp4 8x8 fps=24 audio=0 48000/2/128000";
    EXPECT_EQ(Events(), open + "|" + open + "|v 0+416666|end|" + open + " new device|v 416666+416666|end|");
    const int64_t cases[][3] = {{0, 30, 333333}, {-5, 30, 333333}, {25, 25, 400000}, {60, 60, 166666}};  // fps asked, used; duration
    for (const auto& c : cases) {
        ASSERT_EQ(recorder.Arm(Request("a.mp4", int32_t(c[0]), 1)), KIV_OK);
        ASSERT_EQ(Submit(3, 641, 359), KIV_OK);  // odd sizes go to the writer as they are
        recorder.Stop();
        std::string want = "open a.mp4 641x359 fps=" + std::to_string(c[1]) + " audio=1 48000/2/128000|";
        for (int i = 0; i < 3; ++i) want += "v " + Span(i * c[2], c[2]) + "|";
        EXPECT_EQ(Events(), want + "end|") << c[0];
    }
    // A zero-copy failure switches to copies for the rest of the recording; the next one starts over.
    script.zeroCopyFailsFrom = 1;
    ASSERT_EQ(recorder.Arm(Request("b.mp4", 50, 0)), KIV_OK);
    ASSERT_EQ(Submit(4), KIV_OK);
    recorder.Stop();
    script.zeroCopyFailsFrom = -1;
    ASSERT_EQ(recorder.Arm(Request("c.mp4", 50, 0)), KIV_OK);
    ASSERT_EQ(Submit(), KIV_OK);
    EXPECT_EQ(Events(), "open b.mp4 8x8 fps=50 audio=0 48000/2/128000|v 0+200000|copy 200000+200000|copy 400000+200000|"
                        "copy 600000+200000|end|open c.mp4 8x8 fps=50 audio=0 48000/2/128000|v 0+200000|");
    recorder.Stop();
    Events();
    // Audio is timed by its length; mismatches are logged once per recording.
    EXPECT_EQ(Audio(48000, 2, 1920), KIV_OK);  // not armed
    ASSERT_EQ(recorder.Arm(Request("d.mp4", 30, 1, 48000, 2)), KIV_OK);
    EXPECT_EQ(Audio(48000, 2, 1920), KIV_OK);  // no writer yet
    ASSERT_EQ(Submit(), KIV_OK);
    // 480 sample frames: 100000; wrong rate, channel count or depth: dropped; 1: 208; empty: ignored; 960: 200000.
    const int32_t frames[][4] = {{48000, 2, 1920, 16}, {44100, 2, 1764, 16}, {48000, 1, 960, 16}, {48000, 2, 1920, 24},
                                 {48000, 2, 4, 16},    {48000, 2, 0, 16},    {48000, 2, 3840, 16}};
    for (const auto& f : frames) EXPECT_EQ(Audio(f[0], f[1], uint32_t(f[2]), f[3]), KIV_OK) << f[0] << " " << f[2];
    EXPECT_EQ(Events(), "open d.mp4 8x8 fps=30 audio=1 48000/2/128000|v 0+333333|a 0+100000 1920|a 100000+208 4|a 100208+200000 3840|");
    EXPECT_EQ(Mismatches(), 1u);
    script.audioResult = 0x80004005u;
    EXPECT_EQ(Audio(48000, 2, 1920), KIV_ERROR_FAILED);
    // An audio stream the platform could not set up turns sound off; the next recording logs a mismatch again.
    script.audioResult = 0;
    for (bool ready : {false, true}) {
        recorder.Stop();
        script.audioReady = ready;
        ASSERT_EQ(recorder.Arm(Request("e.mp4", 30, 1, 48000, 2)), KIV_OK);
        ASSERT_EQ(Submit(), KIV_OK);
        EXPECT_EQ(Audio(ready ? 44100 : 48000, 2, 1920), KIV_OK);
    }
    EXPECT_EQ(Events(), "end|open e.mp4 8x8 fps=30 audio=1 48000/2/128000|v 0+333333|end|open e.mp4 8x8 fps=30 audio=1 48000/2/128000|v 0+333333|");
    EXPECT_EQ(Mismatches(), 2u);
}

TEST_F(GpuTest, ExportedCallsWithoutAWindow) {
    kivtest::LibraryScope library;
    void* render = KIV_CreateVideoRender(nullptr);
    auto* stages = dynamic_cast<KivRenderGpuStages*>(&static_cast<KivVideoRender*>(static_cast<KivPortBase*>(render))->Stages());
    ASSERT_NE(stages, nullptr);
    const auto path = kivtest::Wide(dir + "/s.bmp");
    EXPECT_EQ(KIV_SaveVideoRenderSnapshot(render, path.c_str(), 1), KIV_ERROR_FAILED);
    EXPECT_TRUE(Logged("no rendered frame"));
    void* mux = KIV_CreateVideoMux();
    KivVideoOsdItem item{};
    KivVideoRenderLutConfig config{1, 1, 0, 0, 0, 1.5f};
    KivGpuRecordConfig record = Request((dir + "/r.mp4").c_str(), 0, 0), unnamed = Request("", 0, 0);
    const KivWChar empty[1] = {0};
    const uint8_t pixel[4] = {1, 2, 3, 4};
    const std::vector<int32_t> results = {
        KIV_SaveVideoRenderSnapshot(render, kivtest::Wide(dir + "/s.png").c_str(), 3), KIV_SaveVideoRenderSnapshot(render, nullptr, 1),
        KIV_SetVideoRenderLutConfig(mux, &config), KIV_LoadVideoRenderCubeFile(mux, path.c_str()),
        KIV_ClearVideoRenderLut(mux), KIV_SaveVideoRenderSnapshot(mux, path.c_str(), 1),
        KIV_AddVideoRenderGpuOsdText(mux, &item), KIV_AddVideoRenderGpuOsdImage(mux, &item),
        KIV_AddVideoRenderGpuOsdRect(mux, &item), KIV_UpdateVideoRenderGpuOsdText(mux, 1, path.c_str()),
        KIV_RemoveVideoRenderGpuOsdItem(mux, 1), KIV_ClearVideoRenderGpuOsd(mux),
        KIV_StartVideoRenderGpuRecord(mux, &record), KIV_StopVideoRenderGpuRecord(mux),
        KIV_AddVideoRenderGpuOsdRect(render, nullptr), KIV_SetVideoRenderLutConfig(render, nullptr),
        KIV_SetVideoRenderLutConfig(render, &config), KIV_StartVideoRenderGpuRecord(render, nullptr),
        KIV_StartVideoRenderGpuRecord(render, &unnamed), kiv::SaveSnapshotImage(nullptr, 1, pixel, 1, 1, 4),
        kiv::SaveSnapshotImage(empty, 1, pixel, 1, 1, 4), kiv::SaveSnapshotImage(path.c_str(), 3, pixel, 1, 1, 4),
        kiv::SaveSnapshotImage(path.c_str(), 0, pixel, 1, 1, 4), kiv::SaveSnapshotImage(path.c_str(), 1, nullptr, 1, 1, 4),
        kiv::SaveSnapshotImage(path.c_str(), 2, pixel, 0, 1, 4), kiv::SaveSnapshotImage(path.c_str(), 2, pixel, 1, -1, 4),
        kiv::SaveSnapshotImage(path.c_str(), 2, pixel, 1, 1, 0)};
    EXPECT_EQ(results, std::vector<int32_t>(results.size(), KIV_ERROR_INVALID_ARG));
    EXPECT_EQ(KIV_ClearVideoRenderGpuOsd(render), KIV_OK);
    // Nothing changed: no recording, no file, and neither a refused request nor a clear left the CPU pipeline.
    EXPECT_EQ(KIV_IsVideoRenderGpuRecording(mux) + KIV_GetVideoRenderPipelineMode(render), 0);
    EXPECT_TRUE(kivtest::ReadFile(dir + "/s.bmp").empty());
    KIV_DestroyPort(mux);
    // Every GPU request moves the port to the GPU pipeline.
    config = {1, 1, 0, 2, 1, 0.5f}, item.id = 7, item.visible = 1;
    const std::function<int32_t()> requests[] = {
        [&] { return KIV_SetVideoRenderLutConfig(render, &config); },       [&] { return KIV_AddVideoRenderGpuOsdText(render, &item); },
        [&] { return KIV_AddVideoRenderGpuOsdImage(render, &item); },       [&] { return KIV_AddVideoRenderGpuOsdRect(render, &item); },
        [&] { return KIV_UpdateVideoRenderGpuOsdText(render, 7, nullptr); }, [&] { return KIV_RemoveVideoRenderGpuOsdItem(render, 7); },
        [&] { return KIV_StartVideoRenderGpuRecord(render, &record); }};
    for (const auto& request : requests) {
        ASSERT_EQ(KIV_SetVideoRenderPipelineMode(render, 0), KIV_OK);
        EXPECT_EQ(request(), KIV_OK);
        EXPECT_EQ(KIV_GetVideoRenderPipelineMode(render), 1) << &request - requests;
    }
    EXPECT_EQ(KIV_IsVideoRenderGpuRecording(render), 1);
    EXPECT_EQ(KIV_StartVideoRenderGpuRecord(render, &record), KIV_OK);  // already armed
    // A cube waits for the render side; leaving the GPU pipeline drops it, stops the recorder and resets the LUT.
    const auto cube = File("g.cube", Cube(8, "LUT_3D_SIZE 2\n", "0 1 0\n"));
    ASSERT_EQ(KIV_LoadVideoRenderCubeFile(render, cube.c_str()), KIV_OK);
    EXPECT_FALSE(stages->LutActive());
    ASSERT_EQ(KIV_SetVideoRenderPipelineMode(render, 0), KIV_OK);
    EXPECT_EQ(KIV_IsVideoRenderGpuRecording(render), 0);
    auto colour = [&] {
        const KivRenderColorSettings c = stages->ColorSettings();
        return std::vector<float>({float(c.colorSpace), float(c.colorRange), c.strength});
    };
    EXPECT_EQ(colour(), std::vector<float>({0, 0, 1.0f}));
    EXPECT_EQ(KIV_StopVideoRenderGpuRecord(render), KIV_OK);  // stop without start
    // With the render side free a configuration applies at once, with the cube waiting for it (none: dropped).
    config = {3, 1, 9, 2, 1, 0.25f};
    ASSERT_EQ(KIV_SetVideoRenderLutConfig(render, &config), KIV_OK);
    EXPECT_FALSE(stages->LutActive());
    ASSERT_EQ(KIV_LoadVideoRenderCubeFile(render, cube.c_str()), KIV_OK);
    ASSERT_EQ(KIV_SetVideoRenderLutConfig(render, &config), KIV_OK);
    EXPECT_TRUE(stages->LutActive());
    EXPECT_EQ(colour(), std::vector<float>({2, 1, 0.25f}));
    EXPECT_EQ(KIV_ClearVideoRenderLut(render), KIV_OK);
    EXPECT_FALSE(stages->LutActive());
    KIV_DestroyPort(render);
    // Rows packed to tight BGR (a stride of 16 bytes: 4 of padding; alpha dropped).
    Bytes bgra(32, 0xEE), rows;
    for (int i = 0; i < 12; ++i) bgra[i] = static_cast<uint8_t>(i + 1), bgra[16 + i] = static_cast<uint8_t>(101 + i);
    kiv::PackBgr24Rows(bgra.data(), 3, 2, 16, &rows);
    EXPECT_EQ(rows, (Bytes{1, 2, 3, 5, 6, 7, 9, 10, 11, 101, 102, 103, 105, 106, 107, 109, 110, 111}));
}

#ifdef _WIN32  // real windows drawn by Wine's Direct3D 11: GDI text, WIC pictures and snapshots, the recorder

constexpr int kW = 64, kH = 48;

class GpuWindowTest : public GpuTest {
protected:
    void SetUp() override {
        GpuTest::SetUp();
        ASSERT_EQ(KIV_Connect(source, render), KIV_OK);
        for (int i = 0; i < kW * kH; ++i)  // a gradient
            pattern[i * 4] = uint8_t(i % kW * 4), pattern[i * 4 + 1] = uint8_t(i / kW * 5), pattern[i * 4 + 2] = uint8_t((i % kW + i / kW) * 2);
    }
    void TearDown() override {
        KIV_Disconnect(source, render), KIV_DestroyPort(source), KIV_DestroyPort(render);
        GpuTest::TearDown();
    }
    // Pushes the BGRA frame until the window shows `want` (tight, bpp bytes a pixel) within the tolerance.
    int Show(const Bytes& bgra, Bytes want, int bpp, int tolerance) {
        return rendertest::PushUntilShown(source, Frame(bgra), window, {std::move(want)}, bpp, tolerance, &where);
    }
    KivVideoFrame Frame(const Bytes& bgra) { return kivtest::FrameOver(KIV_PIXEL_FORMAT_RGB32, kW, kH, bgra.data(), kW * 4); }
    // A snapshot and the window's pixels beside it, for kiv_render_gpu_snapshot_check (ffmpeg on the host).
    int32_t Snapshot(const std::string& name, int32_t format) {
        const std::string path = std::string(KIV_SNAPSHOT_CHECK_DIR) + "/" + name;
        const Bytes shown = window.Read();
        EXPECT_TRUE(kivtest::WriteFile(path.substr(0, path.size() - 3) + "bgra", std::string(shown.begin(), shown.end())));
        return KIV_SaveVideoRenderSnapshot(render, kivtest::Wide(path).c_str(), format);
    }
    kivtest::LibraryScope library;
    rendertest::TestWindow window{kW, kH};
    void* render = KIV_CreateVideoRender(window.Handle());
    void* source = KIV_CreateVideoFrameSource();
    Bytes pattern = Bytes(kW * kH * 4, 255);
    std::string where;
};

TEST_F(GpuWindowTest, SnapshotsLutAgainstTheColourEngineAndTheRecorder) {
    ASSERT_EQ(Show(pattern, pattern, 4, 0), 0) << where;
    ASSERT_EQ(Snapshot("cpu.bmp", 1), KIV_OK);
    int32_t result = -99;
    std::thread([&] {  // the JPEG from a single-threaded apartment
        CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED), result = Snapshot("cpu.jpg", 2), CoUninitialize();
    }).join();
    EXPECT_EQ(result, KIV_OK);
    EXPECT_EQ(KIV_SaveVideoRenderSnapshot(render, kivtest::Wide(dir + "/no/such/folder/x.bmp").c_str(), 1), KIV_ERROR_FAILED);
    // The CPU colour engine's result for the same cube and strength is the reference of the GPU LUT.
    const auto cube = File("grade.cube", proctest::CubeText(17, [](float r, float g, float b, float* o) { o[0] = g, o[1] = b * b, o[2] = 1 - 0.5f * r; }));
    void *engine = KIV_CreateVideoColorEngine(), *engineSource = KIV_CreateVideoFrameSource();
    ASSERT_EQ(KIV_Connect(engineSource, engine), KIV_OK);
    kivtest::FrameCatcher caught(engine);
    const KivVideoColorEngineConfig engineConfig{0, 1, 0, 1, 1, 0.75f};
    const KivVideoFrame f = Frame(pattern);
    ASSERT_EQ(KIV_SetVideoColorEngineConfig(engine, &engineConfig), KIV_OK);
    ASSERT_EQ(KIV_LoadVideoColorEngineCubeFile(engine, cube.c_str()), KIV_OK);
    ASSERT_EQ(KIV_PushVideoFrame(engineSource, &f), KIV_OK);
    ASSERT_EQ(caught.Count(), 1u);
    KIV_Disconnect(engineSource, engine), KIV_DestroyPort(engineSource), KIV_DestroyPort(engine);
    const KivVideoRenderLutConfig config{1, 1, 0, 1, 1, 0.75f};
    ASSERT_EQ(KIV_LoadVideoRenderCubeFile(render, cube.c_str()), KIV_OK);
    ASSERT_EQ(KIV_SetVideoRenderLutConfig(render, &config), KIV_OK);
    // The GPU samples the LUT in float, the colour engine looks up in 8-bit integers: three steps of 1/255 cover it.
    EXPECT_LE(Show(pattern, caught.frames[0].plane0, 4, 3), 3) << where;
    // With the LUT on, the snapshot comes from the final texture (the ungraded CPU copy would not match the window).
    ASSERT_EQ(Snapshot("gpu.bmp", 1), KIV_OK);
    // Wine has no sink writer: every final frame tries to set up and fails; elsewhere the file gets written.
    KivGpuRecordConfig request = Request((dir + "/final.mp4").c_str(), 0, 0);
    ASSERT_EQ(KIV_StartVideoRenderGpuRecord(render, &request), KIV_OK);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(KIV_PushVideoFrame(source, &f), KIV_OK);
    EXPECT_EQ(KIV_IsVideoRenderGpuRecording(render), 1);
    EXPECT_EQ(KIV_StopVideoRenderGpuRecord(render) + KIV_IsVideoRenderGpuRecording(render), 0);
    const std::string log = kivtest::LibraryLog();
    EXPECT_TRUE(log.find("GPU recorder initialized") == std::string::npos ? kivtest::CountOf(log, "create sink writer failed") == 3
                                                                          : !kivtest::ReadFile(dir + "/final.mp4").empty()) << log;
}

TEST_F(GpuWindowTest, OverlayItemsAppearWhereAndHowTheySay) {
    const Bytes grey(kW * kH * 4, 128);
    KivVideoOsdItem red = Record(1, 2, 4, 4, 20, 16, 0xFFFF0000), green = Record(2, 1, 10, 8, 30, 20, 0x0000FF00, 0.5f);
    KivVideoOsdItem text = Record(3, 3, 28, 26, 34, 20, 0xFFFFFFFF), boxed = Record(5, 3, 2, 30, 24, 16, 0xFFFFFFFF);
    KivVideoOsdItem image = Record(4, 2, 52, 2, 8, 8, 0);  // a picture file of 4 x 4 pixels drawn at 8 x 8
    green.size = 5;  // plain RGB counts as opaque colour
    text.size = boxed.size = 18, text.transparent = 1, boxed.backColor = 0xFF0000FF;  // GDI text, once on its own blue box
    kivtest::Wide("Hi").copy(text.text, 2), kivtest::Wide("Hi").copy(boxed.text, 2);
    Bytes picture(4 * 4 * 4, 0);
    for (int i = 0; i < 16; ++i) picture[i * 4 + (i % 3)] = 255;
    const auto picturePath = File("p.bmp", "");
    ASSERT_EQ(kiv::SaveSnapshotImage(picturePath.c_str(), 1, picture.data(), 4, 4, 16), KIV_OK);
    picturePath.copy(image.imagePath, picturePath.size());
    using Items = std::vector<std::pair<const KivVideoOsdItem*, int>>;
    const Items all = {{&red, kiv::kOsdRect}, {&green, kiv::kOsdRect}, {&text, kiv::kOsdText}, {&image, kiv::kOsdPicture}, {&boxed, kiv::kOsdText}};
    for (const auto& r : all) {
        auto add = r.second == kiv::kOsdRect ? KIV_AddVideoRenderGpuOsdRect : r.second == kiv::kOsdText ? KIV_AddVideoRenderGpuOsdText : KIV_AddVideoRenderGpuOsdImage;
        ASSERT_EQ(add(render, r.first), KIV_OK);
    }
    // Expected: the canvas (checked bit for bit natively) blended over the grey frame as the GPU does.
    auto expected = [&](const Items& records) {
        std::vector<kiv::OsdItem> items;
        for (const auto& r : records) items.push_back(kiv::GpuOsdItemFromRecord(*r.first, r.second));
        kiv::GpuOsdBitmap canvas;
        kiv::ComposeGpuOsdCanvas(items, kW, kH, kiv::CreateGpuOsdRasterizer().get(), &canvas);
        Bytes out(kW * kH * 3);
        for (int i = 0; i < kW * kH * 3; ++i) {
            const double a = canvas.pixels[i / 3 * 4 + 3] / 255.0;
            out[i] = static_cast<uint8_t>(canvas.pixels[i / 3 * 4 + i % 3] * a + 128 * (1 - a) + 0.5);
        }
        return out;
    };
    EXPECT_LE(Show(grey, expected(all), 3, 2), 2) << where;
    const Bytes shown = window.Read();
    auto at = [&](int x, int y) { return std::vector<int>({shown[(y * kW + x) * 4 + 2], shown[(y * kW + x) * 4 + 1], shown[(y * kW + x) * 4]}); };
    // Hand-worked: red on top of green, half green darkened, the grey frame, the first picture pixel, the text box.
    const std::pair<int, std::vector<int>> spots[] = {{5 + 5 * kW, {255, 0, 0}}, {30 + 10 * kW, {64, 128, 64}}, {40 + 40 * kW, {128, 128, 128}},
                                                      {53 + 3 * kW, {0, 0, 255}}, {2 + 30 * kW, {0, 0, 255}}};
    for (const auto& s : spots) EXPECT_EQ(at(s.first % kW, s.first / kW), s.second) << s.first % kW << "," << s.first / kW;
    int textPixels = 0;
    for (int i = 0; i < 34 * 20; ++i) textPixels += at(28 + i % 34, 26 + i / 34)[0] > 200 && at(28 + i % 34, 26 + i / 34)[1] > 200;
    EXPECT_GT(textPixels, 10);
    // Removing the red rectangle and changing the text show at the next frames; a clear leaves the frame alone.
    ASSERT_EQ(KIV_RemoveVideoRenderGpuOsdItem(render, 1), KIV_OK);
    ASSERT_EQ(KIV_UpdateVideoRenderGpuOsdText(render, 3, kivtest::Wide("--").c_str()), KIV_OK);
    kivtest::Wide("--").copy(text.text, 2);
    EXPECT_LE(Show(grey, expected(Items(all.begin() + 1, all.end())), 3, 2), 2) << where;
    ASSERT_EQ(KIV_ClearVideoRenderGpuOsd(render), KIV_OK);
    EXPECT_EQ(Show(grey, grey, 4, 0), 0) << where;
}

#endif

}  // namespace
