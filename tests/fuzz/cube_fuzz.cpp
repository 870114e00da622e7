// Feeds arbitrary text to both cube table parsers and checks what they build.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "processing/kiv_cube_lut.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // The readers see the file as zero-terminated text.
    const std::string text(reinterpret_cast<const char*>(data), size);
    Kiv3DLutData engine;
    if (kiv::ParseCubeForColorEngine(text.c_str(), &engine)) {
        const size_t entries = static_cast<size_t>(engine.dim) * engine.dim * engine.dim;
        if (engine.dim < 2 || engine.values.size() != entries * 3 || engine.bytes.size() != entries * 3) std::abort();
        for (float v : engine.values) {
            if (!(v >= 0.0f && v <= 1.0f)) std::abort();
        }
        for (int c = 0; c < 3; ++c) {
            if (engine.domainMax[c] == engine.domainMin[c]) std::abort();
        }
    } else if (engine.dim != 0 || !engine.values.empty() || !engine.bytes.empty()) {
        std::abort();
    }
    KivRenderLutData render;
    if (kiv::ParseCubeForRender(text.c_str(), &render)) {
        const size_t entries = static_cast<size_t>(render.dim) * render.dim * render.dim;
        if (render.dim < 2 || render.texels.size() != entries * 4) std::abort();
        for (size_t i = 3; i < render.texels.size(); i += 4) {
            if (render.texels[i] != 65535) std::abort();
        }
        for (int c = 0; c < 3; ++c) {
            if (render.domainMax[c] <= render.domainMin[c]) std::abort();
        }
    } else if (render.dim != 0 || !render.texels.empty()) {
        std::abort();
    }
    return 0;
}
