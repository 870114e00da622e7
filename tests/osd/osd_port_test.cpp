// The overlay port driven through the exported functions as an application
// would: item commands, the two kinds of outputs and KIV_Disconnect.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "osd_test_util.h"
#include "ports/kiv_video_mux.h"
#include "processing/kiv_video_osd.h"
#include "test_support.h"

using kiv::OsdItem;
using kivtest::LibraryScope;
using kivtest::OwnedFrame;
using kivtest::Wide;
using kivtest::CaughtFrame;
using kivtest::FrameCatcher;
using osdtest::Item;

namespace {

KivVideoOsd* Port(void* osd) { return static_cast<KivVideoOsd*>(static_cast<KivPortBase*>(osd)); }

// Ids and kinds of the items in list order, as {id, kind} pairs.
std::vector<std::pair<int32_t, int32_t>> IdsAndKinds(void* osd) {
    std::vector<std::pair<int32_t, int32_t>> out;
    for (const OsdItem& item : Port(osd)->Items()) out.emplace_back(item.id, item.kind);
    return out;
}

KivVideoOsdItem WithId(int32_t id) {
    KivVideoOsdItem item = Item(0, 0, 10, 10);
    item.id = id;
    osdtest::SetText(item.text, "t");
    osdtest::SetText(item.imagePath, "p.bmp");
    return item;
}

class OsdPortTest : public ::testing::Test {
protected:
    LibraryScope library;
    void* osd = KIV_CreateVideoOsd();
    void TearDown() override { EXPECT_EQ(KIV_DestroyPort(osd), KIV_OK); }
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
        KIV_ConnectVideoOsdOutput(osd, -1, mux)};
    EXPECT_EQ(results, std::vector<KivResult>(results.size(), KIV_ERROR_INVALID_ARG));
    // The overlay feeds other ports only through its output function.
    EXPECT_EQ(KIV_Connect(osd, mux), KIV_ERROR_UNSUPPORTED);
    EXPECT_EQ(static_cast<KivPortBase*>(osd)->DownstreamCount(), 0u);

    const std::vector<OsdItem> items = Port(osd)->Items();
    ASSERT_EQ(items.size(), 1u);
    EXPECT_EQ(items[0].id, 5);
    EXPECT_EQ(items[0].text, Wide("t"));
    KIV_DestroyPort(mux);
}

TEST_F(OsdPortTest, AllocatedIdsCountFromOneAndShareTheSpace) {
    KivVideoOsdItem item = WithId(0);
    ASSERT_EQ(KIV_AddVideoOsdText(osd, &item), KIV_OK);
    ASSERT_EQ(KIV_AddVideoOsdRect(osd, &item), KIV_OK);
    item.id = 2;  // the application picks an id the counter already gave out
    ASSERT_EQ(KIV_AddVideoOsdImage(osd, &item), KIV_OK);
    item.id = -7;
    ASSERT_EQ(KIV_AddVideoOsdText(osd, &item), KIV_OK);
    using List = std::vector<std::pair<int32_t, int32_t>>;
    EXPECT_EQ(IdsAndKinds(osd), (List{{1, 1}, {2, 3}, {2, 2}, {3, 1}}));
    // Remove takes every item carrying the id, of any kind, keeping the order.
    EXPECT_EQ(KIV_RemoveVideoOsdItem(osd, 2), KIV_OK);
    EXPECT_EQ(IdsAndKinds(osd), (List{{1, 1}, {3, 1}}));
    EXPECT_EQ(KIV_RemoveVideoOsdItem(osd, 2), KIV_ERROR_INVALID_ARG);
    EXPECT_EQ(KIV_RemoveVideoOsdItem(osd, 0), KIV_ERROR_INVALID_ARG);
    EXPECT_EQ(IdsAndKinds(osd), (List{{1, 1}, {3, 1}}));
    EXPECT_EQ(KIV_ClearVideoOsd(osd), KIV_OK);
    EXPECT_TRUE(Port(osd)->Items().empty());
    EXPECT_EQ(KIV_ClearVideoOsd(osd), KIV_OK);
}

TEST_F(OsdPortTest, SetReplacesOnlyItsOwnKind) {
    for (int32_t id : {1, 2, 3}) {
        KivVideoOsdItem text = WithId(id);
        ASSERT_EQ(KIV_AddVideoOsdText(osd, &text), KIV_OK);
        KivVideoOsdItem other = WithId(10 + id);
        ASSERT_EQ(id == 2 ? KIV_AddVideoOsdRect(osd, &other) : KIV_AddVideoOsdImage(osd, &other), KIV_OK);
    }
    KivVideoOsdItem replacement = WithId(20);
    ASSERT_EQ(KIV_SetVideoOsdText(osd, &replacement), KIV_OK);
    using List = std::vector<std::pair<int32_t, int32_t>>;
    EXPECT_EQ(IdsAndKinds(osd), (List{{11, 2}, {12, 3}, {13, 2}, {20, 1}}));
    replacement.id = 21;
    ASSERT_EQ(KIV_SetVideoOsdImage(osd, &replacement), KIV_OK);
    EXPECT_EQ(IdsAndKinds(osd), (List{{12, 3}, {20, 1}, {21, 2}}));
}

TEST_F(OsdPortTest, UpdateChangesTheFirstTextItemOnly) {
    KivVideoOsdItem a = WithId(4);
    ASSERT_EQ(KIV_AddVideoOsdImage(osd, &a), KIV_OK);  // a picture with the same id comes first
    ASSERT_EQ(KIV_AddVideoOsdText(osd, &a), KIV_OK);
    ASSERT_EQ(KIV_AddVideoOsdText(osd, &a), KIV_OK);
    KivVideoOsdItem picture = WithId(9);
    ASSERT_EQ(KIV_AddVideoOsdImage(osd, &picture), KIV_OK);

    const auto text = Wide("\xE4\xBD\xA0\xE5\xA5\xBD updated");
    EXPECT_EQ(KIV_UpdateVideoOsdText(osd, 4, text.c_str()), KIV_OK);
    EXPECT_EQ(KIV_UpdateVideoOsdText(osd, 9, text.c_str()), KIV_ERROR_INVALID_ARG);
    EXPECT_EQ(KIV_UpdateVideoOsdText(osd, 77, text.c_str()), KIV_ERROR_INVALID_ARG);
    const std::vector<OsdItem> items = Port(osd)->Items();
    ASSERT_EQ(items.size(), 4u);
    EXPECT_EQ(items[0].text, Wide("t"));
    EXPECT_EQ(items[1].text, text);
    EXPECT_EQ(items[2].text, Wide("t"));
    EXPECT_EQ(items[1].x, a.x);
    EXPECT_EQ(items[1].width, a.width);
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
    osdtest::SetText(r.fontName, "Tahoma");
    ASSERT_EQ(KIV_AddVideoOsdText(osd, &r), KIV_OK);
    r.opacity = 3.0f;
    r.color = 0x00FF0000u;
    r.backColor = 0x12345678u;
    r.transparent = 0;
    r.fontName[0] = 0;
    ASSERT_EQ(KIV_AddVideoOsdRect(osd, &r), KIV_OK);
    r.opacity = 0.25f;
    ASSERT_EQ(KIV_AddVideoOsdImage(osd, &r), KIV_OK);

    const std::vector<OsdItem> items = Port(osd)->Items();
    ASSERT_EQ(items.size(), 3u);
    EXPECT_EQ(items[0].text, std::basic_string<KivWChar>(512, 'x'));
    EXPECT_EQ(items[0].fontName, Wide("Tahoma"));
    EXPECT_EQ(items[1].fontName, Wide("Microsoft YaHei UI"));
    const struct {
        float opacity;
        uint32_t color, backColor;
        int32_t size;
        bool transparent;
    } expected[] = {{0.0f, 0xFFFFFFFFu, 0x80000000u, 36, true},
                    {1.0f, 0x00FF0000u, 0x12345678u, 3, false},  // colour kept as given; drawn opaque
                    {0.25f, 0x00FF0000u, 0x12345678u, 36, false}};
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(items[i].opacity, expected[i].opacity) << i;
        EXPECT_EQ(items[i].color, expected[i].color) << i;
        EXPECT_EQ(items[i].backColor, expected[i].backColor) << i;
        EXPECT_EQ(items[i].size, expected[i].size) << i;
        EXPECT_EQ(items[i].transparent, expected[i].transparent) << i;
        EXPECT_TRUE(items[i].visible);
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
        KivVideoOsdItem r = Item(x, y, w, h);
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

    ASSERT_EQ(plain.Count(), 1u);
    ASSERT_EQ(own.Count(), 1u);
    ASSERT_EQ(overlay.Count(), 1u);
    EXPECT_EQ(plain.frames[0].plane0, in.bytes);
    EXPECT_EQ(own.frames[0].plane0, in.bytes);
    const CaughtFrame& drawn = overlay.frames[0];
    EXPECT_EQ(drawn.meta.format, KIV_PIXEL_FORMAT_RGB32);
    EXPECT_EQ(drawn.meta.timestamp, 555);
    EXPECT_EQ(drawn.meta.frameIndex, 3u);
    EXPECT_NE(drawn.meta.planes[0], in.frame.planes[0]);
    for (int y = 0; y < 8; ++y) {
        for (int x = 0; x < 16; ++x) {
            const bool onOutline = (x >= 2 && x <= 7 && (y == 2 || y == 7)) || (y >= 2 && y <= 7 && (x == 2 || x == 7));
            EXPECT_EQ(drawn.plane0[(y * 16 + x) * 4], onOutline ? 255 : 40) << x << "," << y;
        }
    }
}

TEST_F(OsdGraphTest, Nv12StaysNv12) {
    AddRect(0, 0, 3, 3, 0xFFFFFFFFu);
    OwnedFrame in(KIV_PIXEL_FORMAT_NV12, 8, 4, 90);
    ASSERT_EQ(KIV_PushVideoFrame(source, &in.frame), KIV_OK);
    ASSERT_EQ(overlay.Count(), 1u);
    const CaughtFrame& drawn = overlay.frames[0];
    EXPECT_EQ(drawn.meta.format, KIV_PIXEL_FORMAT_NV12);
    EXPECT_EQ(drawn.plane0[0], 235);
    EXPECT_EQ(drawn.plane0[1 * 8 + 1], 90);
    EXPECT_EQ(drawn.plane0[3 * 8 + 3], 235);
    EXPECT_EQ(drawn.plane1[0], 128);
    EXPECT_EQ(drawn.plane1[6], 90);  // pair at x 6..7 untouched
}

TEST_F(OsdGraphTest, LayersDecideWhatEndsOnTop) {
    AddRect(0, 0, 4, 4, 0xFF0000FFu, 5);  // blue, drawn last
    AddRect(0, 0, 4, 4, 0xFFFF0000u, 1);  // red
    AddRect(0, 0, 4, 4, 0xFF00FF00u, 5);  // green: same layer as blue, after it in the list
    OwnedFrame in(KIV_PIXEL_FORMAT_RGB24, 8, 8, 0);
    ASSERT_EQ(KIV_PushVideoFrame(source, &in.frame), KIV_OK);
    ASSERT_EQ(overlay.Count(), 1u);
    const std::vector<uint8_t>& px = overlay.frames[0].plane0;
    EXPECT_EQ(std::vector<uint8_t>(px.begin(), px.begin() + 4), (std::vector<uint8_t>{0, 255, 0, 255}));
}

TEST_F(OsdGraphTest, CompressedFramesPassOnlyWhenNothingIsVisible) {
    KivVideoOsdItem hidden = Item(0, 0, 4, 4);
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

TEST_F(OsdGraphTest, DisconnectRemovesAnOverlayOutput) {
    AddRect(0, 0, 4, 4, 0xFFFFFFFFu);
    OwnedFrame in(KIV_PIXEL_FORMAT_YUY2, 8, 8, 128);
    ASSERT_EQ(KIV_PushVideoFrame(source, &in.frame), KIV_OK);
    EXPECT_EQ(KIV_Disconnect(osd, overlayMux), KIV_OK);
    EXPECT_EQ(KIV_Disconnect(osd, overlayMux), KIV_OK);  // not connected any more: still 0
    ASSERT_EQ(KIV_PushVideoFrame(source, &in.frame), KIV_OK);
    EXPECT_EQ(overlay.Count(), 1u);
    EXPECT_EQ(plain.Count(), 2u);
    EXPECT_EQ(overlay.frames[0].meta.format, KIV_PIXEL_FORMAT_YUY2);
    EXPECT_EQ(overlay.frames[0].meta.strides[0], 16);
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

TEST_F(OsdGraphTest, DisconnectWaitsForAFrameInFlight) {
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
