// Prints the cost per 1080p frame of the overlay's real GDI+ path (Windows
// build, run it under Wine or Windows): a 64-pixel text item whose box covers
// a third of the frame, and a 256x256 picture decoded from a BMP every frame.
// The native benchmark (bench/osd_bench.cpp) covers the portable part.
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "osd_test_util.h"
#include "processing/kiv_video_osd.h"
#include "test_support.h"

namespace {

constexpr int kWidth = 1920, kHeight = 1080, kFrames = 30;

double MsPerFrame(int32_t format, const KivVideoOsdItem& item, int32_t kind) {
    KivVideoOsd osd;
    KivPortBase sink(KIV_PORT_VIDEO_SINK_RESERVED);
    osd.AddOverlayOutput(&sink);
    osd.AddItem(&item, kind);
    kivtest::OwnedFrame frame(format, kWidth, kHeight, 0x50);
    osd.OnVideoFrame(&frame.frame);
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < kFrames; ++i) osd.OnVideoFrame(&frame.frame);
    const std::chrono::duration<double, std::milli> elapsed = std::chrono::steady_clock::now() - start;
    return elapsed.count() / kFrames;
}

}  // namespace

int main() {
    KivVideoOsdItem text{};
    text.visible = 1;
    text.opacity = 1.0f;
    text.y = kHeight / 3;
    text.height = kHeight / 3;
    text.size = 64;
    const auto caption = kivtest::Wide("Overlay timing 0123456789 caption text drawn every frame");
    for (size_t i = 0; i < caption.size(); ++i) text.text[i] = caption[i];
    const auto font = kivtest::Wide("DejaVu Sans");
    for (size_t i = 0; i < font.size(); ++i) text.fontName[i] = font[i];

    const std::string path = kivtest::TempDir("osd_timing") + "/picture.bmp";
    osdtest::WriteBmp24(path, 256, 256, [](int x, int y) { return uint32_t(x * 0x010203 + y * 0x030201) & 0xFFFFFFu; });
    KivVideoOsdItem picture{};
    picture.visible = 1;
    picture.opacity = 1.0f;
    picture.x = 100;
    picture.y = 100;
    const auto widePath = kivtest::Wide(path);
    for (size_t i = 0; i < widePath.size(); ++i) picture.imagePath[i] = widePath[i];

    for (int32_t format : {KIV_PIXEL_FORMAT_NV12, KIV_PIXEL_FORMAT_RGB32}) {
        const char* name = format == KIV_PIXEL_FORMAT_NV12 ? "NV12" : "RGB32";
        std::printf("%-5s text 64px, box 1920x360: %7.2f ms/frame\n", name, MsPerFrame(format, text, kiv::kOsdText));
        std::printf("%-5s picture 256x256:         %7.2f ms/frame\n", name,
                    MsPerFrame(format, picture, kiv::kOsdPicture));
    }
    std::filesystem::remove_all(std::filesystem::u8path(path).parent_path());  // no test listener does it here
    return 0;
}
