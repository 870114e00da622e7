// The shader's constant buffer and the per-draw choices that fill it: pure
// arithmetic, shared by the Direct3D pipeline and its native tests.
#pragma once
#include <cstddef>
#include <cstdint>

// Register b0 of the main pixel shader; the HLSL declaration in
// render_shaders.cpp must keep this exact layout.
struct KivRenderParams {
    int32_t mode;       // 0 RGB texture, 1 NV12, 2 YUY2 pairs
    int32_t interp;     // 1 nearest, 0 bilinear
    int32_t lutEnable;  // 1 when the LUT stage is active
    int32_t lutDim;     // edge length of the 3D LUT texture
    float lutStrength;  // 0..1
    int32_t colorSpace; // 1 BT.601, 2 BT.709, 3 BT.2020
    int32_t colorRange; // 1 full, 2 limited
    float pad;
    float domainMin[3];
    float domainPad0;
    float domainMax[3];
    float domainPad1;
};
static_assert(sizeof(KivRenderParams) == 64, "Params is one 64-byte constant buffer");
static_assert(offsetof(KivRenderParams, lutStrength) == 16, "second register starts at lutStrength");
static_assert(offsetof(KivRenderParams, domainMin) == 32, "domainMin is the third register");
static_assert(offsetof(KivRenderParams, domainMax) == 48, "domainMax is the fourth register");

// Register b1: the frame texture's size in texels (x width, y height). The
// YUY2 pass needs the pair count and row count, and Wine's HLSL compiler has
// no GetDimensions, so the size travels in a constant buffer of its own.
struct KivRenderFrameSize {
    float width;
    float height;
    float pad[2];
};
static_assert(sizeof(KivRenderFrameSize) == 16, "one constant register");

// Colour settings the draw takes from the LUT configuration.
struct KivRenderColorSettings {
    int32_t colorSpace = 0;  // 1, 2, 3, anything else automatic
    int32_t colorRange = 0;  // 1 full, anything else limited
    float strength = 1.0f;
};

// Params.mode for a frame-texture format: NV12 1, YUY2 2, else 0.
int32_t KivRenderShaderMode(int32_t format);
// The configured colour space if it is 1, 2 or 3; otherwise BT.709 from
// 1280 pixels wide, BT.601 up to 576 rows, BT.709 above.
int32_t KivRenderColorSpace(int32_t configured, int32_t frameWidth, int32_t frameHeight);
int32_t KivRenderColorRange(int32_t configured);
// Nearest sampling for the window: interpolation 1 always, 0 never, 2 when
// the picture shrinks by no more than to 0.7 of its size.
bool KivRenderUseNearest(int32_t interpolation, int32_t backWidth, int32_t backHeight, int32_t frameWidth,
                         int32_t frameHeight);
// Params for a draw without LUT: the LUT fields off, the domain 0..1.
KivRenderParams KivRenderBaseParams(int32_t format, bool nearest, const KivRenderColorSettings& color,
                                    int32_t frameWidth, int32_t frameHeight);
