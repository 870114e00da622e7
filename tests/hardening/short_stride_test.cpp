// Frames whose strides cannot hold a row, over buffers of exactly the size
// the strides promise: no port reads past them (the address sanitizer
// watches), processing ports pass them on untouched, and the recorder
// writes nothing from them. Frames whose strides just fit are processed.
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <memory>

#include "hardening_util.h"
#include "record/kiv_recorder.h"
#include "test_support.h"

namespace {

struct StrideCase {
    const char* what;
    int32_t format, width, height, stride0, stride1;
    bool fits;
};

const StrideCase kCases[] = {
    {"RGB32 stride 64 for 256-byte rows", KIV_PIXEL_FORMAT_RGB32, 64, 6, 64, 0, false},
    {"RGB32 stride -255", KIV_PIXEL_FORMAT_RGB32, 64, 6, -255, 0, false},
    {"RGB32 exact", KIV_PIXEL_FORMAT_RGB32, 64, 6, 256, 0, true},
    {"RGB24 odd width one byte short", KIV_PIXEL_FORMAT_RGB24, 15, 5, 44, 0, false},
    {"RGB24 odd width exact", KIV_PIXEL_FORMAT_RGB24, 15, 5, 45, 0, true},
    {"YUY2 one byte short", KIV_PIXEL_FORMAT_YUY2, 16, 6, 31, 0, false},
    {"YUY2 exact", KIV_PIXEL_FORMAT_YUY2, 16, 6, 32, 0, true},
    {"NV12 luma short", KIV_PIXEL_FORMAT_NV12, 16, 6, 8, 16, false},
    {"NV12 chroma short", KIV_PIXEL_FORMAT_NV12, 16, 6, 16, 15, false},
    {"NV12 exact", KIV_PIXEL_FORMAT_NV12, 16, 6, 16, 16, true},
};

TEST(ShortStrides, ProcessingPortsPassThemOnUntouched) {
    kivtest::LibraryScope library;
    const std::string dir = kivtest::TempDir("hardening_strides");
    {
        hardening::Chain chain(hardening::WriteSwapCube(dir));
        // Each port alone behind the source, its output watched by a callback
        // (the overlay's composited output through the chain's mux).
        KIV_Disconnect(chain.source, chain.crop);
        KIV_Disconnect(chain.crop, chain.color);
        KIV_Disconnect(chain.color, chain.osd);
        const struct {
            const char* name;
            void* port;
            void* watched;
        } ports[] = {{"crop", chain.crop, chain.crop}, {"colour", chain.color, chain.color}, {"overlay", chain.osd, chain.tap}};
        for (const auto& p : ports) {
            ASSERT_EQ(KIV_Connect(chain.source, p.port), KIV_OK);
            hardening::PlaneWatch last;
            ASSERT_EQ(KIV_SetVideoFrameCallback(p.watched, hardening::PlaneWatch::OnFrame, &last), KIV_OK);
            for (const StrideCase& c : kCases) {
                hardening::ExactFrame in(c.format, c.width, c.height, c.stride0, c.stride1);
                const int before = last.count.load();
                ASSERT_EQ(KIV_PushVideoFrame(chain.source, &in.frame), KIV_OK) << p.name << ": " << c.what;
                ASSERT_EQ(last.count.load(), before + 1) << p.name << ": " << c.what;
                // The overlay copies a YUY2 or NV12 row as far as its stride
                // goes, padding the rest: it reads nothing past the buffer.
                const bool osdPads = p.port == chain.osd && c.stride0 > 0 && c.stride1 >= 0 &&
                                     (c.format == KIV_PIXEL_FORMAT_YUY2 || c.format == KIV_PIXEL_FORMAT_NV12);
                const bool processed = c.fits || osdPads;
                EXPECT_EQ(last.plane0 != in.frame.planes[0], processed) << p.name << ": " << c.what;
            }
            ASSERT_EQ(KIV_SetVideoFrameCallback(p.watched, nullptr, nullptr), KIV_OK);
            KIV_Disconnect(chain.source, p.port);
        }
    }
    std::filesystem::remove_all(dir);
}

TEST(ShortStrides, RecorderCopiesWhatTheStridesHoldAndEncodesOnlyFittingFrames) {
    kivtest::LibraryScope library;
    const std::string dir = kivtest::TempDir("hardening_strides_rec");
    for (const StrideCase& c : kCases) {
        auto writes = std::make_shared<std::atomic<int>>(0);
        auto* recorder = new KivRecorder((dir + "/out.mp4").c_str(), std::make_unique<hardening::CountingEncoder>(writes));
        void* source = KIV_CreateVideoFrameSource();
        ASSERT_EQ(KIV_Connect(source, recorder), KIV_OK);
        ASSERT_EQ(KIV_Start(recorder), KIV_OK);
        {
            hardening::ExactFrame in(c.format, c.width, c.height, c.stride0, c.stride1);
            ASSERT_EQ(KIV_PushVideoFrame(source, &in.frame), KIV_OK) << c.what;
        }  // the caller's buffer is gone at once: the recorder works on its copy
        EXPECT_EQ(hardening::WaitForInput(recorder, 1).inputFrames, 1) << c.what;
        EXPECT_EQ(KIV_Stop(recorder), KIV_OK);
        EXPECT_EQ(writes->load(), c.fits ? 1 : 0) << c.what;
        KIV_Disconnect(source, recorder);
        EXPECT_EQ(KIV_DestroyPort(recorder), KIV_OK);
        EXPECT_EQ(KIV_DestroyPort(source), KIV_OK);
    }
    std::filesystem::remove_all(dir);
}

}  // namespace
