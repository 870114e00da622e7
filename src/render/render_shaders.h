// HLSL sources of the render port, compiled at run time (vs_4_0 / ps_4_0).
#pragma once

// Full-screen quad from SV_VertexID as a four-vertex strip.
extern const char kKivRenderVertexShader[];
// Frame texture to RGB: NV12, YUY2 pairs or BGRA, then the colour LUT.
extern const char kKivRenderPixelShader[];
