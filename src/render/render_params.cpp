#include "render_params.h"

#include <algorithm>

#include "kivcapture.h"

int32_t KivRenderShaderMode(int32_t format) {
    if (format == KIV_PIXEL_FORMAT_NV12) return 1;
    if (format == KIV_PIXEL_FORMAT_YUY2) return 2;
    return 0;
}

int32_t KivRenderColorSpace(int32_t configured, int32_t frameWidth, int32_t frameHeight) {
    if (configured >= 1 && configured <= 3) return configured;
    if (frameWidth >= 1280) return 2;
    return frameHeight <= 576 ? 1 : 2;
}

int32_t KivRenderColorRange(int32_t configured) { return configured == 1 ? 1 : 2; }

bool KivRenderUseNearest(int32_t interpolation, int32_t backWidth, int32_t backHeight, int32_t frameWidth,
                         int32_t frameHeight) {
    if (interpolation == 1) return true;
    if (interpolation != 2) return false;
    const double sx = frameWidth < 1 ? 1.0 : static_cast<double>(backWidth) / frameWidth;
    const double sy = frameHeight < 1 ? 1.0 : static_cast<double>(backHeight) / frameHeight;
    return std::min(sx, sy) >= 0.7;
}

KivRenderParams KivRenderBaseParams(int32_t format, bool nearest, const KivRenderColorSettings& color,
                                    int32_t frameWidth, int32_t frameHeight) {
    KivRenderParams p{};
    p.mode = KivRenderShaderMode(format);
    p.interp = nearest ? 1 : 0;
    p.lutStrength = std::min(std::max(color.strength, 0.0f), 1.0f);
    p.colorSpace = KivRenderColorSpace(color.colorSpace, frameWidth, frameHeight);
    p.colorRange = KivRenderColorRange(color.colorRange);
    for (int i = 0; i < 3; ++i) p.domainMax[i] = 1.0f;
    return p;
}
