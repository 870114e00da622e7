// The overlay port driven through the exported functions as an application
// would: item commands, the two kinds of outputs and KIV_Disconnect.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <thread>
#include <tuple>

#include "osd_test_util.h"
#include "ports/kiv_video_mux.h"
#include "processing/kiv_video_osd.h"
#include "test_support.h"

using kivtest::FrameCatcher;
using kivtest::OwnedFrame;
using kivtest::Wide;
using List = std::vector<std::pair<int32_t, int32_t>>;

namespace {

KivVideoOsd* Port(void* osd) { return static_cast<KivVideoOsd*>(static_cast<KivPortBase*>(osd)); }

KivVideoOsdItem WithId(int32_t id) {
    KivVideoOsdItem item = osdtest::Item(0, 0, 10, 10);
    item.id = id;
    osdtest::SetText(item.text, "t");
    osdtest::SetText(item.imagePath, "p.bmp");
    return item;
}

class OsdPortTest : public ::testing::Test {
protected:
    kivtest::LibraryScope library;
    void* osd = KIV_CreateVideoOsd();
    void TearDown() override { EXPECT_EQ(KIV_DestroyPort(osd), KIV_OK); }
    // Ids and kinds of the items in list order.
    List IdsAndKinds() {
        List out;
        for (const kiv::OsdItem& item : Port(osd)->Items()) out.emplace_back(item.id, item.kind);
        return out;
    }
    void Add(KivResult(KIV_CALL* add)(void*, const KivVideoOsdItem*), int32_t id) {
        const KivVideoOsdItem item = WithId(id);
        ASSERT_EQ(add(osd, &item), KIV_OK);
    }
};

TEST_F(OsdPortTest, BadInputIsRejectedAndChangesNothing) {
    KivVideoOsdItem item = WithId(5);
    ASSERT_EQ(KIV_AddVideoOsdText(osd, &item), KIV_OK);
    void* mux = KIV_CreateVideoMux();
    const auto text = Wide("new");
    for (void* wrong : {static_cast<void*>(nullptr), mux}) {
        const std::vector<KivResult> results = {
            KIV_SetVideoOsdText(wrong, &item),  KIV_SetVideoOsdImage(wrong, &item),
            KIV_AddVideoOsdText(wrong, &item),  KIV_AddVideoOsdImage(wrong, &item),
            KIV_AddVideoOsdRect(wrong, &item),  KIV_UpdateVideoOsdText(wrong, 5, text.c_str()),
            KIV_RemoveVideoOsdItem(wrong, 5),   KIV_ClearVideoOsd(wrong),
            KIV_ConnectVideoOsdOutput(wrong, 1, osd)};
        EXPECT_EQ(results, std::vector<KivResult>(results.size(), KIV_ERROR_INVALID_ARG));
    }
    const std::vector<KivResult> results = {
        KIV_SetVideoOsdText(osd, nullptr),          KIV_SetVideoOsdImage(osd, nullptr),
        KIV_AddVideoOsdText(osd, nullptr),          KIV_AddVideoOsdImage(osd, nullptr),
        KIV_AddVideoOsdRect(osd, nullptr),          KIV_UpdateVideoOsdText(osd, 5, nullptr),
        KIV_UpdateVideoOsdText(osd, 0, text.c_str()), KIV_ConnectVideoOsdOutput(osd, 1, nullptr),
        KIV_ConnectVideoOsdOutput(osd, 0, nullptr), KIV_ConnectVideoOsdOutput(osd, 2, mux),
        KIV_ConnectVideoOsdOutput(osd, -1, mux),    KIV_RemoveVideoOsdItem(osd, 0),
        KIV_RemoveVideoOsdItem(osd, 77)};
    EXPECT_EQ(results, std::vector<KivResult>(results.size(), KIV_ERROR_INVALID_ARG));
    // The overlay feeds other ports only through its output function.
    EXPECT_EQ(KIV_Connect(osd, mux), KIV_ERROR_UNSUPPORTED);
    EXPECT_EQ(static_cast<KivPortBase*>(osd)->DownstreamCount(), 0u);
    ASSERT_EQ(Port(osd)->Items().size(), 1u);
    EXPECT_EQ(Port(osd)->Items()[0].text, Wide("t"));
    KIV_DestroyPort(mux);
}

TEST_F(OsdPortTest, IdsAddSetRemoveAndClear) {
    Add(KIV_AddVideoOsdText, 0);  // id 0: the port allocates one, counting from 1
    Add(KIV_AddVideoOsdRect, 0);
    Add(KIV_AddVideoOsdImage, 2);  // the application picks an id the counter already gave out
    Add(KIV_AddVideoOsdText, -7);
    EXPECT_EQ(IdsAndKinds(), (List{{1, 1}, {2, 3}, {2, 2}, {3, 1}}));
    // Remove takes every item carrying the id, of any kind, keeping the order.
    EXPECT_EQ(KIV_RemoveVideoOsdItem(osd, 2), KIV_OK);
    EXPECT_EQ(IdsAndKinds(), (List{{1, 1}, {3, 1}}));
    EXPECT_EQ(KIV_RemoveVideoOsdItem(osd, 2), KIV_ERROR_INVALID_ARG);
    EXPECT_EQ(KIV_ClearVideoOsd(osd), KIV_OK);
    EXPECT_EQ(KIV_ClearVideoOsd(osd), KIV_OK);
    EXPECT_TRUE(IdsAndKinds().empty());

    // Set replaces the items of its own kind only, and appends.
    for (int32_t id : {1, 2, 3}) {
        Add(KIV_AddVideoOsdText, id);
        Add(id == 2 ? KIV_AddVideoOsdRect : KIV_AddVideoOsdImage, 10 + id);
    }
    Add(KIV_SetVideoOsdText, 20);
    EXPECT_EQ(IdsAndKinds(), (List{{11, 2}, {12, 3}, {13, 2}, {20, 1}}));
    Add(KIV_SetVideoOsdImage, 21);
    EXPECT_EQ(IdsAndKinds(), (List{{12, 3}, {20, 1}, {21, 2}}));
}

TEST_F(OsdPortTest, UpdateChangesTheFirstTextItemOnly) {
    Add(KIV_AddVideoOsdImage, 4);  // a picture with the same id comes first
    Add(KIV_AddVideoOsdText, 4);
    Add(KIV_AddVideoOsdText, 4);
    const auto text = Wide("\xE4\xBD\xA0\xE5\xA5\xBD updated");
    EXPECT_EQ(KIV_UpdateVideoOsdText(osd, 4, text.c_str()), KIV_OK);
    EXPECT_EQ(KIV_UpdateVideoOsdText(osd, 77, text.c_str()), KIV_ERROR_INVALID_ARG);
    Add(KIV_AddVideoOsdImage, 9);
    EXPECT_EQ(KIV_UpdateVideoOsdText(osd, 9, text.c_str()), KIV_ERROR_INVALID_ARG) << "not a text item";
    const std::vector<kiv::OsdItem> items = Port(osd)->Items();
    ASSERT_EQ(items.size(), 4u);
    using Text = std::basic_string<KivWChar>;
    EXPECT_EQ(std::vector<Text>({items[0].text, items[1].text, items[2].text, items[3].text}),
              std::vector<Text>({Wide("t"), text, Wide("t"), Wide("t")}));
    EXPECT_EQ(items[1].width, 10);
}

TEST_F(OsdPortTest, RecordDefaultsAreApplied) {
    KivVideoOsdItem r;
    std::memset(&r, 0, sizeof r);
    r.opacity = -1.0f;
    r.size = -4;
    r.visible = 7;
    r.transparent = -1;
    // No terminator: the whole field is taken, not a unit of the next one.
    for (KivWChar& c : r.text) c = 'x';
    for (KivWChar& c : r.fontName) c = 'f';
    for (KivWChar& c : r.imagePath) c = 'p';
    ASSERT_EQ(KIV_AddVideoOsdText(osd, &r), KIV_OK);
    r.opacity = 3.0f;
    r.color = 0x00FF0000u;
    r.backColor = 0x12345678u;
    r.transparent = 0;
    r.fontName[0] = 0;
    ASSERT_EQ(KIV_AddVideoOsdRect(osd, &r), KIV_OK);
    r.opacity = 0.25f;
    ASSERT_EQ(KIV_AddVideoOsdImage(osd, &r), KIV_OK);
    r.opacity = std::nanf("");
    ASSERT_EQ(KIV_AddVideoOsdImage(osd, &r), KIV_OK);

    const std::vector<kiv::OsdItem> items = Port(osd)->Items();
    ASSERT_EQ(items.size(), 4u);
    EXPECT_EQ(items[0].text, std::basic_string<KivWChar>(std::size(r.text), 'x'));
    EXPECT_EQ(items[0].fontName, std::basic_string<KivWChar>(std::size(r.fontName), 'f'));
    EXPECT_EQ(items[0].imagePath, std::basic_string<KivWChar>(std::size(r.imagePath), 'p'));
    EXPECT_EQ(items[1].fontName, Wide("Microsoft YaHei UI"));
    const struct {
        float opacity;
        uint32_t color, backColor;
        int32_t size;
        bool transparent;
    } expected[] = {{0.0f, 0xFFFFFFFFu, 0x80000000u, 36, true},
                    {1.0f, 0x00FF0000u, 0x12345678u, 3, false},  // colour kept as given; drawn opaque
                    {0.25f, 0x00FF0000u, 0x12345678u, 36, false},
                    {0.0f, 0x00FF0000u, 0x12345678u, 36, false}};
    for (size_t i = 0; i < items.size(); ++i) {
        const auto& e = expected[i];
        EXPECT_EQ(std::make_tuple(items[i].opacity, items[i].color, items[i].backColor, items[i].size, items[i].transparent,
                                  items[i].visible),
                  std::make_tuple(e.opacity, e.color, e.backColor, e.size, e.transparent, true))
            << i;
    }
}

// A graph of frame source -> overlay, with an ordinary output and an overlay
// output, each a video mux whose callback keeps the frames.
class OsdGraphTest : public OsdPortTest {
protected:
    void* source = KIV_CreateVideoFrameSource();
    void* plainMux = KIV_CreateVideoMux();
    void* overlayMux = KIV_CreateVideoMux();
    FrameCatcher plain, overlay, own;

    void SetUp() override {
        ASSERT_EQ(KIV_Connect(source, osd), KIV_OK);
        ASSERT_EQ(KIV_ConnectVideoOsdOutput(osd, 0, plainMux), KIV_OK);
        ASSERT_EQ(KIV_ConnectVideoOsdOutput(osd, 1, overlayMux), KIV_OK);
        ASSERT_EQ(KIV_ConnectVideoOsdOutput(osd, 1, overlayMux), KIV_OK);  // no duplicate
        KIV_SetVideoFrameCallback(plainMux, FrameCatcher::OnFrame, &plain);
        KIV_SetVideoFrameCallback(overlayMux, FrameCatcher::OnFrame, &overlay);
        KIV_SetVideoFrameCallback(osd, FrameCatcher::OnFrame, &own);
    }
    void TearDown() override {
        KIV_Disconnect(source, osd);
        KIV_DestroyPort(source);
        OsdPortTest::TearDown();
        KIV_DestroyPort(plainMux);
        KIV_DestroyPort(overlayMux);
    }
    void AddRect(int x, int y, int w, int h, uint32_t color, int32_t layer = 0) {
        KivVideoOsdItem r = osdtest::Item(x, y, w, h);
        r.color = color;
        r.layer = layer;
        r.size = 1;
        ASSERT_EQ(KIV_AddVideoOsdRect(osd, &r), KIV_OK);
    }
};

TEST_F(OsdGraphTest, OrdinaryOutputsGetThePlainFrameOverlayOutputsTheDrawnOne) {
    AddRect(2, 2, 5, 5, 0xFFFFFFFFu);
    OwnedFrame in(KIV_PIXEL_FORMAT_RGB32, 16, 8, 40);
    in.frame.timestamp = 555;
    in.frame.frameIndex = 3;
    ASSERT_EQ(KIV_PushVideoFrame(source, &in.frame), KIV_OK);
    ASSERT_EQ(std::vector<size_t>({plain.Count(), own.Count(), overlay.Count()}), std::vector<size_t>({1, 1, 1}));
    EXPECT_EQ(plain.frames[0].plane0, in.bytes);
    EXPECT_EQ(own.frames[0].plane0, in.bytes);
    const kivtest::CaughtFrame& drawn = overlay.frames[0];
    EXPECT_EQ(std::vector<int64_t>({drawn.meta.format, drawn.meta.timestamp, int64_t(drawn.meta.frameIndex)}),
              std::vector<int64_t>({KIV_PIXEL_FORMAT_RGB32, 555, 3}));
    EXPECT_NE(drawn.meta.planes[0], in.frame.planes[0]);
    for (int y = 0; y < 8; ++y) {
        for (int x = 0; x < 16; ++x) {
            const bool onOutline = (x >= 2 && x <= 7 && (y == 2 || y == 7)) || (y >= 2 && y <= 7 && (x == 2 || x == 7));
            EXPECT_EQ(drawn.plane0[(y * 16 + x) * 4], onOutline ? 255 : 40) << x << "," << y;
        }
    }
}

// NV12 and YUY2 are drawn in place of a copy and stay as they are; layers
// decide what ends on top (RGB24 becomes RGB32).
TEST_F(OsdGraphTest, FormatsAndLayers) {
    AddRect(0, 0, 3, 3, 0xFFFFFFFFu);
    OwnedFrame nv12(KIV_PIXEL_FORMAT_NV12, 8, 4, 90), yuy2(KIV_PIXEL_FORMAT_YUY2, 8, 8, 128);
    ASSERT_EQ(KIV_PushVideoFrame(source, &nv12.frame), KIV_OK);
    ASSERT_EQ(KIV_PushVideoFrame(source, &yuy2.frame), KIV_OK);
    ASSERT_EQ(overlay.Count(), 2u);
    const kivtest::CaughtFrame& n = overlay.frames[0];
    EXPECT_EQ(n.meta.format, KIV_PIXEL_FORMAT_NV12);
    EXPECT_EQ(std::vector<int>({n.plane0[0], n.plane0[1 * 8 + 1], n.plane0[3 * 8 + 3], n.plane1[0], n.plane1[6]}),
              std::vector<int>({235, 90, 235, 128, 90}));  // the pair at x 6..7 untouched
    EXPECT_EQ(overlay.frames[1].meta.format, KIV_PIXEL_FORMAT_YUY2);
    EXPECT_EQ(overlay.frames[1].meta.strides[0], 16);
    EXPECT_EQ(std::vector<int>(overlay.frames[1].plane0.begin(), overlay.frames[1].plane0.begin() + 4),
              std::vector<int>({235, 128, 235, 128}));

    ASSERT_EQ(KIV_ClearVideoOsd(osd), KIV_OK);
    AddRect(0, 0, 4, 4, 0xFF0000FFu, 5);  // blue, drawn last
    AddRect(0, 0, 4, 4, 0xFFFF0000u, 1);  // red
    AddRect(0, 0, 4, 4, 0xFF00FF00u, 5);  // green: same layer as blue, after it in the list
    OwnedFrame rgb24(KIV_PIXEL_FORMAT_RGB24, 8, 8, 0);
    ASSERT_EQ(KIV_PushVideoFrame(source, &rgb24.frame), KIV_OK);
    ASSERT_EQ(overlay.Count(), 3u);
    EXPECT_EQ(overlay.frames[2].meta.format, KIV_PIXEL_FORMAT_RGB32);
    const std::vector<uint8_t>& px = overlay.frames[2].plane0;
    EXPECT_EQ(std::vector<uint8_t>(px.begin(), px.begin() + 4), (std::vector<uint8_t>{0, 255, 0, 255}));
}

TEST_F(OsdGraphTest, CompressedFramesPassOnlyWhenNothingIsVisible) {
    KivVideoOsdItem hidden = osdtest::Item(0, 0, 4, 4);
    hidden.visible = 0;
    ASSERT_EQ(KIV_AddVideoOsdRect(osd, &hidden), KIV_OK);
    std::vector<uint8_t> payload(100, 7);
    KivVideoFrame mjpg = kivtest::FrameOver(KIV_PIXEL_FORMAT_MJPG, 64, 48, payload.data(), 100);
    ASSERT_EQ(KIV_PushVideoFrame(source, &mjpg), KIV_OK);
    ASSERT_EQ(overlay.Count(), 1u);
    EXPECT_EQ(overlay.frames[0].record, &mjpg);  // the very frame, not a copy
    EXPECT_EQ(overlay.frames[0].meta.planes[0], payload.data());

    AddRect(0, 0, 4, 4, 0xFFFFFFFFu);
    KivVideoFrame h264 = kivtest::FrameOver(KIV_PIXEL_FORMAT_H264, 64, 48, payload.data(), 100);
    EXPECT_EQ(Port(osd)->OnVideoFrame(&h264), KIV_ERROR_UNSUPPORTED);
    EXPECT_EQ(overlay.Count(), 1u);
    EXPECT_EQ(plain.Count(), 2u);  // the ordinary output still gets it
    EXPECT_EQ(Port(osd)->FramesInProgress(), 0);
}

// Blocks the overlay output's callback until released from another thread.
struct Gate {
    std::atomic<bool> entered{false}, release{false}, finished{false};
    static void KIV_CALL OnFrame(const KivVideoFrame*, void* user) {
        auto* gate = static_cast<Gate*>(user);
        gate->entered = true;
        while (!gate->release) std::this_thread::sleep_for(std::chrono::milliseconds(1));
        gate->finished = true;
    }
};

TEST_F(OsdGraphTest, DisconnectWaitsForAFrameInFlightAndRemovesTheOutput) {
    AddRect(0, 0, 4, 4, 0xFFFFFFFFu);
    Gate gate;
    KIV_SetVideoFrameCallback(overlayMux, Gate::OnFrame, &gate);
    // Both helper threads are running before the disconnect starts, so a slow
    // thread start cannot eat into the disconnect's wait.
    std::atomic<bool> disconnecting{false};
    std::thread releaser([&] {
        while (!disconnecting) std::this_thread::sleep_for(std::chrono::milliseconds(1));
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        gate.release = true;
    });
    OwnedFrame in(KIV_PIXEL_FORMAT_RGB32, 8, 8, 0);
    std::thread producer([&] { KIV_PushVideoFrame(source, &in.frame); });
    while (!gate.entered) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    disconnecting = true;
    EXPECT_EQ(KIV_Disconnect(osd, overlayMux), KIV_OK);
    EXPECT_TRUE(gate.finished);
    producer.join();
    releaser.join();
    EXPECT_EQ(KIV_Disconnect(osd, overlayMux), KIV_OK);  // not connected any more: still 0
    gate.entered = false;
    ASSERT_EQ(KIV_PushVideoFrame(source, &in.frame), KIV_OK);
    EXPECT_FALSE(gate.entered);
    EXPECT_EQ(plain.Count(), 2u);
}

// An overlay output that disconnects itself while it receives a frame.
struct SelfDisconnect {
    void* osd = nullptr;
    void* self = nullptr;
    int frames = 0;
    static void KIV_CALL OnFrame(const KivVideoFrame*, void* user) {
        auto* me = static_cast<SelfDisconnect*>(user);
        me->frames++;
        KIV_Disconnect(me->osd, me->self);  // its own frame is in progress: gives up waiting
    }
};

TEST_F(OsdGraphTest, OutputMayDisconnectItselfDuringDelivery) {
    AddRect(0, 0, 4, 4, 0xFFFFFFFFu);
    SelfDisconnect hook{osd, overlayMux};
    KIV_SetVideoFrameCallback(overlayMux, SelfDisconnect::OnFrame, &hook);
    OwnedFrame in(KIV_PIXEL_FORMAT_NV12, 8, 8, 0);
    ASSERT_EQ(KIV_PushVideoFrame(source, &in.frame), KIV_OK);
    ASSERT_EQ(KIV_PushVideoFrame(source, &in.frame), KIV_OK);
    EXPECT_EQ(hook.frames, 1);
    EXPECT_EQ(plain.Count(), 2u);
}

// Counts rasteriser calls on a port made with a scripted rasteriser.
TEST(OsdFramePath, NothingIsDrawnWithoutOverlayOutputs) {
    auto calls = std::make_shared<osdtest::FakeRasterizer::Calls>();
    KivVideoOsd port(std::make_unique<osdtest::FakeRasterizer>(calls));
    KivVideoOsdItem text = WithId(0);
    ASSERT_EQ(port.AddItem(&text, kiv::kOsdText), KIV_OK);
    OwnedFrame in(KIV_PIXEL_FORMAT_RGB32, 32, 32, 0);
    EXPECT_EQ(port.OnVideoFrame(&in.frame), KIV_OK);
    EXPECT_EQ(calls->text, 0);
    KivVideoMux sink;
    FrameCatcher seen;
    sink.SetVideoFrameCallback(FrameCatcher::OnFrame, &seen);
    ASSERT_EQ(port.AddOverlayOutput(&sink), KIV_OK);
    EXPECT_EQ(port.OnVideoFrame(&in.frame), KIV_OK);
    EXPECT_EQ(calls->text, 1);
    ASSERT_EQ(seen.Count(), 1u);
    EXPECT_EQ(seen.frames[0].plane0[2], 255);  // the fake paints opaque red
    EXPECT_EQ(port.OnVideoFrame(nullptr), KIV_ERROR_INVALID_ARG);
    EXPECT_EQ(port.FramesInProgress(), 0);
}

}  // namespace
