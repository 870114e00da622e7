// Written in the subset every run-time HLSL compiler we meet accepts, Wine's
// included: one main and no helper functions, no ?:, fractions as
// x - floor(x), choices by arithmetic weights (w = saturate(1 - abs(v - k))
// is 1 exactly when v == k), and the frame size from a constant buffer
// instead of GetDimensions.
#include "render_shaders.h"

const char kKivRenderVertexShader[] = R"(
struct VSOUT {
    float4 pos : SV_POSITION;
    float2 uv : TEXCOORD0;
};
VSOUT main(uint id : SV_VertexID) {
    VSOUT o;
    float f = id;
    float right = floor(f * 0.5);
    float top = f - 2.0 * right;
    o.pos = float4(right * 2.0 - 1.0, top * 2.0 - 1.0, 0.0, 1.0);
    o.uv = float2(right, 1.0 - top);
    return o;
}
)";

const char kKivRenderPixelShader[] = R"(
cbuffer Params : register(b0) {
    int mode;
    int interp;
    int lutEnable;
    int lutDim;
    float lutStrength;
    int colorSpace;
    int colorRange;
    float pad;
    float3 domainMin;
    float domainPad0;
    float3 domainMax;
    float domainPad1;
};
cbuffer FrameSize : register(b1) {
    float4 frameSize;
};
Texture2D tex0 : register(t0);
Texture2D tex1 : register(t1);
Texture3D lutTex : register(t2);
SamplerState sam0 : register(s0);
SamplerState sam1 : register(s1);

float4 main(float4 pos : SV_POSITION, float2 uv : TEXCOORD0) : SV_TARGET {
    float m = mode;
    float isNv12 = saturate(1.0 - abs(m - 1.0));
    float isYuy2 = saturate(1.0 - abs(m - 2.0));
    float4 src = tex0.Sample(sam0, uv);
    float4 chroma = tex1.Sample(sam0, uv);
    float luma = src.r;
    float cb = chroma.r;
    float cr = chroma.g;

    if (mode == 2) {
        float pw = max(frameSize.x, 1.0);
        float ph = max(frameSize.y, 1.0);
        float sw = pw * 2.0;
        float ux = saturate(uv.x);
        float uy = saturate(uv.y);
        if (interp == 1) {
            float px = min(floor(ux * sw), sw - 1.0);
            float pair = min(floor(px * 0.5), pw - 1.0);
            float row = min(floor(uy * ph), ph - 1.0);
            float4 t = tex0.Load(int3(pair, row, 0));
            float odd = px - 2.0 * floor(px * 0.5);
            luma = lerp(t.r, t.b, odd);
            cb = t.g;
            cr = t.a;
        } else {
            float sx = ux * (sw - 1.0);
            float sy = uy * (ph - 1.0);
            float x0 = floor(sx);
            float x1 = min(x0 + 1.0, sw - 1.0);
            float y0 = floor(sy);
            float y1 = min(y0 + 1.0, ph - 1.0);
            float fx = sx - x0;
            float fy = sy - y0;
            float p0 = min(floor(x0 * 0.5), pw - 1.0);
            float p1 = min(floor(x1 * 0.5), pw - 1.0);
            float o0 = x0 - 2.0 * floor(x0 * 0.5);
            float o1 = x1 - 2.0 * floor(x1 * 0.5);
            float4 a0 = tex0.Load(int3(p0, y0, 0));
            float4 a1 = tex0.Load(int3(p1, y0, 0));
            float4 b0 = tex0.Load(int3(p0, y1, 0));
            float4 b1 = tex0.Load(int3(p1, y1, 0));
            float top = lerp(lerp(a0.r, a0.b, o0), lerp(a1.r, a1.b, o1), fx);
            float bottom = lerp(lerp(b0.r, b0.b, o0), lerp(b1.r, b1.b, o1), fx);
            luma = lerp(top, bottom, fy);
            float cx = ux * (pw - 1.0);
            float c0 = floor(cx);
            float c1 = min(c0 + 1.0, pw - 1.0);
            float fc = cx - c0;
            float4 d0 = tex0.Load(int3(c0, y0, 0));
            float4 d1 = tex0.Load(int3(c1, y0, 0));
            float4 e0 = tex0.Load(int3(c0, y1, 0));
            float4 e1 = tex0.Load(int3(c1, y1, 0));
            float2 ctop = lerp(float2(d0.g, d0.a), float2(d1.g, d1.a), fc);
            float2 cbottom = lerp(float2(e0.g, e0.a), float2(e1.g, e1.a), fc);
            float2 c = lerp(ctop, cbottom, fy);
            cb = c.x;
            cr = c.y;
        }
    }

    // YUV to RGB with the coefficients of the colour space and range.
    float cs = colorSpace;
    float is709 = saturate(1.0 - abs(cs - 2.0));
    float is2020 = saturate(1.0 - abs(cs - 3.0));
    float is601 = 1.0 - is709 - is2020;
    float full = saturate(1.0 - abs((float)colorRange - 1.0));
    float4 kFull = float4(1.4020, 0.344136, 0.714136, 1.7720) * is601
                 + float4(1.5748, 0.187324, 0.468124, 1.8556) * is709
                 + float4(1.4746, 0.16455, 0.57135, 1.8814) * is2020;
    float4 kLimited = float4(1.596027, 0.391762, 0.812968, 2.017232) * is601
                    + float4(1.792741, 0.213249, 0.532909, 2.112402) * is709
                    + float4(1.678674, 0.187326, 0.650424, 2.141772) * is2020;
    float d = cb - 0.5;
    float e = cr - 0.5;
    float yl = 1.164383 * (luma - 0.062745098);
    float3 rgbFull = float3(luma + kFull.x * e, luma - kFull.y * d - kFull.z * e, luma + kFull.w * d);
    float3 rgbLimited = float3(yl + kLimited.x * e, yl - kLimited.y * d - kLimited.z * e, yl + kLimited.w * d);
    float3 yuvRgb = saturate(lerp(rgbLimited, rgbFull, full));

    float isYuv = isNv12 + isYuy2;
    float3 rgb = lerp(src.rgb, yuvRgb, isYuv);
    float alpha = lerp(src.a, 1.0, isYuv);

    // Colour LUT: the input mapped into the domain, texel-centred lookup.
    float3 outRgb = saturate(rgb);
    if (lutEnable != 0 && lutDim >= 2 && lutStrength > 0.0001) {
        float n = lutDim;
        float3 scale = max(domainMax - domainMin, float3(0.000001, 0.000001, 0.000001));
        float3 nrm = saturate((rgb - domainMin) / scale);
        float3 coord = (nrm * (n - 1.0) + 0.5) / n;
        float3 lut = lutTex.Sample(sam1, coord).rgb;
        outRgb = saturate(lerp(rgb, lut, lutStrength));
    }
    return float4(outRgb, alpha);
}
)";
