// The render mode's GPU stages: the example cube graded on the GPU, an
// overlay caption and frame, BMP and JPEG snapshots and a GPU recording,
// each reporting what the platform allowed.
#include <cstdio>
#include <string>

#include "kivcapture.h"
#include "kivsample.h"

namespace {

template <size_t N>
void CopyAscii(KivWChar (&field)[N], const char* text) {
    size_t i = 0;
    for (; text[i] && i + 1 < N; ++i) field[i] = static_cast<KivWChar>(text[i]);
    field[i] = 0;
}

std::basic_string<KivWChar> Widen(const std::string& text) { return std::basic_string<KivWChar>(text.begin(), text.end()); }

const char* Outcome(int32_t result) { return result == KIV_OK ? "ok" : "failed"; }

}  // namespace

void StartRenderGpuFeatures(void* render) {
    const char* cubes[] = {"example.cube", "samples/example.cube", "../samples/example.cube",
                           "../../samples/example.cube", "../../../samples/example.cube"};
    int32_t loaded = KIV_ERROR_FAILED;
    for (const char* cube : cubes) {
        if (loaded != KIV_OK) loaded = KIV_LoadVideoRenderCubeFile(render, Widen(cube).c_str());
    }
    const KivVideoRenderLutConfig lut{1, 1, 0, 0, 0, 0.8f};
    std::printf("GPU LUT example.cube: %s, config: %s\n", Outcome(loaded), Outcome(KIV_SetVideoRenderLutConfig(render, &lut)));

    KivVideoOsdItem caption{};
    caption.id = 1;
    caption.visible = 1;
    caption.layer = 2;
    caption.x = 16, caption.y = 12, caption.width = 420, caption.height = 44;
    caption.color = 0xFFFFFFFF;
    caption.backColor = 0xFF203040;
    caption.size = 28;
    CopyAscii(caption.text, "kivcapture GPU overlay");
    KivVideoOsdItem box = caption;
    box.id = 2;
    box.layer = 1;
    box.x = 8, box.y = 6, box.width = 436, box.height = 56;
    box.color = 0xFFFFC000;
    box.size = 4;
    box.opacity = 0.75f;
    std::printf("GPU overlay caption: %s, rectangle: %s\n", Outcome(KIV_AddVideoRenderGpuOsdText(render, &caption)),
                Outcome(KIV_AddVideoRenderGpuOsdRect(render, &box)));

    KivGpuRecordConfig record{};
    CopyAscii(record.file, "render_gpu.mp4");
    record.fps = 30;
    record.bitrate = 4000000;
    std::printf("GPU recording armed: %s\n", Outcome(KIV_StartVideoRenderGpuRecord(render, &record)));
}

void FinishRenderGpuFeatures(void* render) {
    std::printf("snapshot render_snapshot.bmp: %s\n",
                Outcome(KIV_SaveVideoRenderSnapshot(render, Widen("render_snapshot.bmp").c_str(), 1)));
    std::printf("snapshot render_snapshot.jpg: %s\n",
                Outcome(KIV_SaveVideoRenderSnapshot(render, Widen("render_snapshot.jpg").c_str(), 2)));
    KIV_StopVideoRenderGpuRecord(render);
    std::FILE* f = std::fopen("render_gpu.mp4", "rb");
    long size = 0;
    if (f) {
        std::fseek(f, 0, SEEK_END);
        size = std::ftell(f);
        std::fclose(f);
    }
    if (size > 0) {
        std::printf("GPU recording written: render_gpu.mp4 (%ld bytes)\n", size);
    } else {
        std::printf("GPU recording not possible on this platform (see kivcapture.log: GPU recorder ...)\n");
    }
}
