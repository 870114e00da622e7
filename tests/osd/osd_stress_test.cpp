// Item commands and output changes racing a producer thread; under the thread sanitizer this checks that drawing
// works on snapshots only.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "osd_test_util.h"

namespace {

void KIV_CALL CountFrame(const KivVideoFrame* frame, void* count) {
    static_cast<void>(*static_cast<const volatile uint8_t*>(frame->planes[0]));  // touched: a canvas overwritten under our feet would show
    ++*static_cast<std::atomic<int>*>(count);
}

TEST(OsdStress, CommandsRaceFrames) {
    kivtest::LibraryScope library;
    void *source = KIV_CreateVideoFrameSource(), *osd = KIV_CreateVideoOsd(), *out = KIV_CreateVideoMux();
    std::atomic<int> frames{0}, pushed{0};
    std::atomic<bool> stop{false};
    ASSERT_EQ(std::make_pair(KIV_SetVideoFrameCallback(out, CountFrame, &frames), KIV_Connect(source, osd)), std::make_pair(KIV_OK, KIV_OK));
    std::thread producer([&] {
        for (kivtest::OwnedFrame frame(KIV_PIXEL_FORMAT_NV12, 64, 48, 60); !stop; pushed++) KIV_PushVideoFrame(source, &frame.frame);
    });
    std::thread outputs([&] { while (!stop) KIV_ConnectVideoOsdOutput(osd, 1, out), KIV_Disconnect(osd, out); });
    KivVideoOsdItem item = osdtest::Item(4, 4, 20, 10);
    osdtest::SetText(item.text, "x");
    const auto text = kivtest::Wide("y");
    for (int i = 0; i < 2000 || pushed < 200; ++i) {  // threads may start late (Wine): on until frames have flowed
        item.id = 1 + i % 5, item.layer = i % 3, item.visible = i % 4 != 0;
        KIV_AddVideoOsdRect(osd, &item);
        KIV_SetVideoOsdText(osd, &item);
        KIV_UpdateVideoOsdText(osd, item.id, text.c_str());
        if (i % 7 == 0) KIV_RemoveVideoOsdItem(osd, item.id);
        if (i % 50 == 0) KIV_ClearVideoOsd(osd);
    }
    stop = true;
    producer.join();
    outputs.join();
    ASSERT_EQ(KIV_ConnectVideoOsdOutput(osd, 1, out), KIV_OK);  // the port still works afterwards
    const int before = frames;
    kivtest::OwnedFrame frame(KIV_PIXEL_FORMAT_RGB32, 16, 16, 0);
    ASSERT_EQ(KIV_PushVideoFrame(source, &frame.frame), KIV_OK);
    EXPECT_EQ(frames, before + 1);
    KIV_Disconnect(source, osd), KIV_Disconnect(osd, out);
    for (void* port : {source, osd, out}) EXPECT_EQ(KIV_DestroyPort(port), KIV_OK);
}

}  // namespace
