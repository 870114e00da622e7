// The processing chain an application builds, shared by the hardening tests.
#pragma once
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "kivcapture.h"
#include "test_support.h"

namespace hardening {

// A 2-point cube table that swaps red and blue and darkens green, written into `dir`.
inline std::string WriteSwapCube(const std::string& dir) {
    std::string text = "LUT_3D_SIZE 2\n";
    for (int b = 0; b < 2; ++b)
        for (int g = 0; g < 2; ++g)
            for (int r = 0; r < 2; ++r) text += std::to_string(b) + (g ? " 0.5 " : " 0 ") + std::to_string(r) + "\n";
    EXPECT_TRUE(kivtest::WriteFile(dir + "/swap.cube", text));
    return dir + "/swap.cube";
}

// source -> crop (from (4, 2) to the edges) -> colour engine (the swap table
// at 0.75, YUY2 out) -> overlay (a rectangle outline), whose composited
// output feeds the mux `tap`, so the mux's callback sees the final frames.
struct Chain {
    void* source = KIV_CreateVideoFrameSource();
    void* crop = KIV_CreateVideoCrop();
    void* color = KIV_CreateVideoColorEngine();
    void* osd = KIV_CreateVideoOsd();
    void* tap = KIV_CreateVideoMux();
    explicit Chain(const std::string& cubePath) {
        const KivVideoCropRect rect{4, 2, 0, 0};
        EXPECT_EQ(KIV_SetVideoCropRect(crop, &rect), KIV_OK);
        EXPECT_EQ(KIV_EnableVideoCrop(crop, 1), KIV_OK);
        EXPECT_EQ(KIV_LoadVideoColorEngineCubeFile(color, kivtest::Wide(cubePath).c_str()), KIV_OK);
        const KivVideoColorEngineConfig config{0, 1, KIV_PIXEL_FORMAT_YUY2, 1, 1, 0.75f};
        EXPECT_EQ(KIV_SetVideoColorEngineConfig(color, &config), KIV_OK);
        KivVideoOsdItem box{};
        box.visible = 1, box.x = 3, box.y = 3, box.width = 20, box.height = 12, box.size = 2, box.opacity = 0.6f, box.color = 0xFFFF2040;
        EXPECT_GT(KIV_AddVideoOsdRect(osd, &box), KIV_ERROR_FAILED);
        for (auto link : Links()) EXPECT_EQ(KIV_Connect(link.first, link.second), KIV_OK);
        EXPECT_EQ(KIV_ConnectVideoOsdOutput(osd, 1, tap), KIV_OK);
    }
    std::vector<std::pair<void*, void*>> Links() const { return {{source, crop}, {crop, color}, {color, osd}}; }
    ~Chain() {
        for (auto link : Links()) KIV_Disconnect(link.first, link.second);
        KIV_Disconnect(osd, tap);
        for (void* port : {source, crop, color, osd, tap}) EXPECT_EQ(KIV_DestroyPort(port), KIV_OK);
    }
};

}  // namespace hardening
