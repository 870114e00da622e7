#include "hardening_util.h"

#include <chrono>
#include <cstdlib>
#include <thread>
#include <gtest/gtest.h>

#include "stream_test_util.h"
#include "test_support.h"

namespace hardening {

std::string WriteSwapCube(const std::string& dir) {
    std::string text = "LUT_3D_SIZE 2\n";
    for (int b = 0; b < 2; ++b)
        for (int g = 0; g < 2; ++g)
            for (int r = 0; r < 2; ++r) {
                text += std::to_string(b) + " " + (g ? "0.5" : "0") + " " + std::to_string(r) + "\n";
            }
    const std::string path = dir + "/swap.cube";
    EXPECT_TRUE(kivtest::WriteFile(path, text));
    return path;
}

Chain::Chain(const std::string& cubePath) {
    source = KIV_CreateVideoFrameSource();
    crop = KIV_CreateVideoCrop();
    color = KIV_CreateVideoColorEngine();
    osd = KIV_CreateVideoOsd();
    tap = KIV_CreateVideoMux();
    const KivVideoCropRect rect{4, 2, 0, 0};
    EXPECT_EQ(KIV_SetVideoCropRect(crop, &rect), KIV_OK);
    EXPECT_EQ(KIV_EnableVideoCrop(crop, 1), KIV_OK);
    EXPECT_EQ(KIV_LoadVideoColorEngineCubeFile(color, kivtest::Wide(cubePath).c_str()), KIV_OK);
    const KivVideoColorEngineConfig config{0, 1, KIV_PIXEL_FORMAT_YUY2, 1, 1, 0.75f};
    EXPECT_EQ(KIV_SetVideoColorEngineConfig(color, &config), KIV_OK);
    KivVideoOsdItem box{};
    box.visible = 1;
    box.x = 3;
    box.y = 3;
    box.width = 20;
    box.height = 12;
    box.opacity = 0.6f;
    box.color = 0xFFFF2040;
    box.size = 2;
    EXPECT_GT(KIV_AddVideoOsdRect(osd, &box), KIV_ERROR_FAILED);
    EXPECT_EQ(KIV_Connect(source, crop), KIV_OK);
    EXPECT_EQ(KIV_Connect(crop, color), KIV_OK);
    EXPECT_EQ(KIV_Connect(color, osd), KIV_OK);
    EXPECT_EQ(KIV_ConnectVideoOsdOutput(osd, 1, tap), KIV_OK);
}

Chain::~Chain() {
    KIV_Disconnect(source, crop);
    KIV_Disconnect(crop, color);
    KIV_Disconnect(color, osd);
    KIV_Disconnect(osd, tap);
    for (void* port : {source, crop, color, osd, tap}) EXPECT_EQ(KIV_DestroyPort(port), KIV_OK);
}

ExactFrame::ExactFrame(int32_t format, int32_t width, int32_t height, int32_t stride0, int32_t stride1, uint8_t seed) {
    const size_t bytes0 = static_cast<size_t>(std::abs(stride0)) * static_cast<size_t>(height);
    plane0.reset(new uint8_t[bytes0 > 0 ? bytes0 : 1]);
    for (size_t i = 0; i < bytes0; ++i) plane0[i] = static_cast<uint8_t>(seed + i * 7);
    frame.format = format;
    frame.width = width;
    frame.height = height;
    // Rows running upwards start at the last row of the buffer.
    frame.planes[0] = stride0 < 0 ? plane0.get() + bytes0 - static_cast<size_t>(-stride0) : plane0.get();
    frame.strides[0] = stride0;
    if (format == KIV_PIXEL_FORMAT_NV12) {
        const size_t bytes1 = static_cast<size_t>(std::abs(stride1)) * static_cast<size_t>((height + 1) / 2);
        plane1.reset(new uint8_t[bytes1 > 0 ? bytes1 : 1]);
        for (size_t i = 0; i < bytes1; ++i) plane1[i] = static_cast<uint8_t>(128 + seed + i);
        frame.planes[1] = plane1.get();
        frame.strides[1] = stride1;
    }
}

std::vector<uint8_t> IdrAccessUnit(int idrId, bool withParameterSets, uint8_t shade) {
    std::vector<streamtest::Bytes> nals;
    if (withParameterSets) {
        // Baseline, level 1.0, one macroblock, POC type 2; CAVLC with
        // deblocking control.
        nals.push_back(streamtest::Nal(0x67, {0x42, 0x00, 0x0A, 0xDA, 0x79}));
        nals.push_back(streamtest::Nal(0x68, {0xCE, 0x3C, 0x80}));
    }
    // I slice header (idr_pic_id 0 or 1, deblocking off), mb_type I_PCM and
    // zero bits up to the byte-aligned samples.
    streamtest::Bytes slice = idrId % 2 ? streamtest::Bytes{0x88, 0x82, 0x28, 0x34}
                                        : streamtest::Bytes{0x88, 0x84, 0xA0, 0xD0};
    slice.insert(slice.end(), 256, shade);
    slice.insert(slice.end(), 128, 128);
    slice.push_back(0x80);  // stop bit
    nals.push_back(streamtest::Nal(0x65, slice));
    return streamtest::AnnexB(nals);
}

void KIV_CALL PlaneWatch::OnFrame(const KivVideoFrame* f, void* user) {
    auto* watch = static_cast<PlaneWatch*>(user);
    watch->plane0.store(f->planes[0]);
    watch->count.fetch_add(1);
}

kiv::EncoderOpenReport CountingEncoder::Open(const kiv::VideoEncoderSettings&) {
    open_ = true;
    return {};
}

uint32_t CountingEncoder::WriteVideo(const uint8_t*, size_t, int64_t, int64_t) {
    writes_->fetch_add(1);
    return 0;
}

kiv::EncoderFinalizeReport CountingEncoder::Finalize() {
    open_ = false;
    return {};
}

KivRecorderStats WaitForInput(void* recorder, int64_t frames) {
    KivRecorderStats stats{};
    for (int i = 0; i < 5000; ++i) {
        KIV_GetRecorderStats(recorder, &stats);
        if (stats.inputFrames >= frames) break;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return stats;
}

}  // namespace hardening
