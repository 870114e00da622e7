// Two sources feeding one render port: while one frame is being drawn every
// frame of the other source is dropped, counted and logged at 1, 120, 240.
#include <gtest/gtest.h>

#include <thread>

#include "render/kiv_video_render.h"
#include "render_reference.h"
#include "test_support.h"

namespace {

TEST(RenderDropTest, FramesArrivingWhileDrawingAreDroppedAndLoggedSparingly) {
    kivtest::LibraryScope library;
    ASSERT_EQ(KIV_EnableLog(1), KIV_OK);
    rendertest::FakeGpu::Shared shared;
    shared.holdDraw = true;
    void* window = reinterpret_cast<void*>(static_cast<uintptr_t>(0x99));
    auto* render = new KivVideoRender(window, std::make_unique<rendertest::FakeGpu>(&shared));
    void* slow = KIV_CreateVideoFrameSource();
    void* fast = KIV_CreateVideoFrameSource();
    ASSERT_EQ(KIV_Connect(slow, render), KIV_OK);
    ASSERT_EQ(KIV_Connect(fast, render), KIV_OK);
    rendertest::PatternFrame frame(KIV_PIXEL_FORMAT_RGB32, 8, 8);

    std::thread drawing([&] { EXPECT_EQ(KIV_PushVideoFrame(slow, &frame.frame), KIV_OK); });
    {
        std::unique_lock<std::mutex> lock(shared.mutex);
        ASSERT_TRUE(shared.changed.wait_for(lock, std::chrono::seconds(10), [&] { return shared.drawing; }));
    }
    for (int i = 0; i < 249; ++i) ASSERT_EQ(KIV_PushVideoFrame(fast, &frame.frame), KIV_OK);
    EXPECT_EQ(render->OnVideoFrame(&frame.frame), KIV_OK);  // a dropped frame is not an error
    {
        std::lock_guard<std::mutex> lock(shared.mutex);
        shared.holdDraw = false;
        shared.changed.notify_all();
    }
    drawing.join();
    EXPECT_EQ(render->Drops(), 250u);

    const std::string log = kivtest::LibraryLog();
    char prefix[128];
    std::snprintf(prefix, sizeof(prefix), "] Video render busy, drop frame render=%p hwnd=%p drops=",
                  static_cast<void*>(render), window);
    EXPECT_EQ(kivtest::CountOf(log, prefix), 3u);
    for (const char* count : {"1\r\n", "120\r\n", "240\r\n"}) {
        EXPECT_EQ(kivtest::CountOf(log, std::string(prefix) + count), 1u) << count;
    }
    EXPECT_EQ(shared.steps, "device,back,textures,upload,draw,");  // only the slow source's frame was drawn
    KIV_EnableLog(0);
    KIV_Disconnect(slow, render);
    KIV_Disconnect(fast, render);
    KIV_DestroyPort(slow);
    KIV_DestroyPort(fast);
    KIV_DestroyPort(render);
}

}  // namespace
