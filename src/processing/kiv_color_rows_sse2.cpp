#include "kiv_color_rows_sse2.h"

#include "kiv_color_math.h"
#include "kiv_cube_lut.h"

#include <cstring>

#if defined(__SSE2__) || defined(_M_X64) || (defined(_M_IX86_FP) && _M_IX86_FP >= 2)
#include <emmintrin.h>

namespace kiv::color {

namespace {

// Integer rules of the 8-bit YUV-to-RGB conversion (see kiv_color_math):
// limited: R = (298cy + rv V + cr) >> 8, G = (298cy + gu U + gv V + cg) >> 8,
//          B = (298cy + bu U + cb) >> 8, cy = clamp(Y - 16, 0, 255);
// full:    R = Y + ((rv V + cr) >> 8), G = Y - ((gu U + gv V + cg) >> 8),
//          B = Y + ((bu U + cb) >> 8).
struct DecodeRule {
    bool full;
    int16_t rv, gu, gv, bu;
    int32_t cr, cg, cb;
};

DecodeRule DecodeRuleFor(int32_t cs, int32_t range) {
    const bool bt601 = cs == 1;
    if (range == 1) {
        return bt601 ? DecodeRule{true, 359, 88, 183, 454, -45824, -34560, -57984}
                     : DecodeRule{true, 403, 48, 120, 475, -51456, -21376, -60672};
    }
    return bt601 ? DecodeRule{false, 409, -100, -208, 516, -52224, 39552, -65920}
                 : DecodeRule{false, 459, -55, -136, 541, -58624, 24576, -69120};
}

inline __m128i Pair(int16_t a, int16_t b) {
    return _mm_set1_epi32(static_cast<int>((static_cast<uint32_t>(static_cast<uint16_t>(b)) << 16) | static_cast<uint16_t>(a)));
}

// Eight pixels from 16-bit lanes of Y and of their (duplicated) U and V to
// 16 bytes of R, G, B, x for pixels 0-3 and 16 more for pixels 4-7.
class Decoder {
public:
    explicit Decoder(const DecodeRule& rule)
        : rule_(rule), r_(_mm_setzero_si128()), g_(r_), gv_(r_), b_(r_), cr_(r_), cg_(r_), cb_(r_) {
        if (rule.full) {
            r_ = Pair(rule.rv, 0);
            g_ = Pair(rule.gu, rule.gv);
            b_ = Pair(rule.bu, 0);
        } else {
            r_ = Pair(298, rule.rv);
            g_ = Pair(298, rule.gu);
            gv_ = Pair(rule.gv, 0);
            b_ = Pair(298, rule.bu);
        }
        cr_ = _mm_set1_epi32(rule.cr);
        cg_ = _mm_set1_epi32(rule.cg);
        cb_ = _mm_set1_epi32(rule.cb);
    }

    inline void Decode(__m128i y, __m128i u, __m128i v, uint8_t* out) const {
        const __m128i zero = _mm_setzero_si128();
        __m128i r[2], g[2], b[2];
        if (rule_.full) {
            const __m128i yl = _mm_unpacklo_epi16(y, zero), yh = _mm_unpackhi_epi16(y, zero);
            const __m128i uvl = _mm_unpacklo_epi16(u, v), uvh = _mm_unpackhi_epi16(u, v);
            r[0] = _mm_add_epi32(yl, Shift(_mm_madd_epi16(_mm_unpacklo_epi16(v, zero), r_), cr_));
            r[1] = _mm_add_epi32(yh, Shift(_mm_madd_epi16(_mm_unpackhi_epi16(v, zero), r_), cr_));
            g[0] = _mm_sub_epi32(yl, Shift(_mm_madd_epi16(uvl, g_), cg_));
            g[1] = _mm_sub_epi32(yh, Shift(_mm_madd_epi16(uvh, g_), cg_));
            b[0] = _mm_add_epi32(yl, Shift(_mm_madd_epi16(_mm_unpacklo_epi16(u, zero), b_), cb_));
            b[1] = _mm_add_epi32(yh, Shift(_mm_madd_epi16(_mm_unpackhi_epi16(u, zero), b_), cb_));
        } else {
            // Y - 16 floored at 0; Y <= 255 keeps it within 255.
            const __m128i cy = _mm_subs_epu16(y, _mm_set1_epi16(16));
            const __m128i yvl = _mm_unpacklo_epi16(cy, v), yvh = _mm_unpackhi_epi16(cy, v);
            const __m128i yul = _mm_unpacklo_epi16(cy, u), yuh = _mm_unpackhi_epi16(cy, u);
            r[0] = Shift(_mm_madd_epi16(yvl, r_), cr_);
            r[1] = Shift(_mm_madd_epi16(yvh, r_), cr_);
            g[0] = Shift(_mm_add_epi32(_mm_madd_epi16(yul, g_), _mm_madd_epi16(_mm_unpacklo_epi16(v, zero), gv_)), cg_);
            g[1] = Shift(_mm_add_epi32(_mm_madd_epi16(yuh, g_), _mm_madd_epi16(_mm_unpackhi_epi16(v, zero), gv_)), cg_);
            b[0] = Shift(_mm_madd_epi16(yul, b_), cb_);
            b[1] = Shift(_mm_madd_epi16(yuh, b_), cb_);
        }
        // Saturating packs clamp to 0..255 as the rule does.
        const __m128i r8 = _mm_packus_epi16(_mm_packs_epi32(r[0], r[1]), zero);
        const __m128i g8 = _mm_packus_epi16(_mm_packs_epi32(g[0], g[1]), zero);
        const __m128i b8 = _mm_packus_epi16(_mm_packs_epi32(b[0], b[1]), zero);
        const __m128i rg = _mm_unpacklo_epi8(r8, g8);
        const __m128i bx = _mm_unpacklo_epi8(b8, zero);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out), _mm_unpacklo_epi16(rg, bx));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out + 16), _mm_unpackhi_epi16(rg, bx));
    }

private:
    static inline __m128i Shift(__m128i v, __m128i c) { return _mm_srai_epi32(_mm_add_epi32(v, c), 8); }

    DecodeRule rule_;
    __m128i r_, g_, gv_, b_, cr_, cg_, cb_;
};

// Lanes U0 V0 U1 V1 ... to U0 U0 U1 U1 ... and V0 V0 V1 V1 ...
inline void SplitChroma(__m128i uv, __m128i* u, __m128i* v) {
    const __m128i uLow = _mm_shufflehi_epi16(_mm_shufflelo_epi16(uv, _MM_SHUFFLE(2, 2, 0, 0)), _MM_SHUFFLE(2, 2, 0, 0));
    const __m128i vLow = _mm_shufflehi_epi16(_mm_shufflelo_epi16(uv, _MM_SHUFFLE(3, 3, 1, 1)), _MM_SHUFFLE(3, 3, 1, 1));
    *u = uLow;
    *v = vLow;
}

}  // namespace

int32_t Yuy2RowToRgbx(const uint8_t* yuy2, int32_t pixels, int32_t cs, int32_t range, uint8_t* rgbx) {
    const Decoder decoder(DecodeRuleFor(cs, range));
    const __m128i lowBytes = _mm_set1_epi16(0x00FF);
    int32_t x = 0;
    for (; x + 8 <= pixels; x += 8) {
        const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(yuy2 + x * 2));
        __m128i u, vv;
        SplitChroma(_mm_srli_epi16(v, 8), &u, &vv);
        decoder.Decode(_mm_and_si128(v, lowBytes), u, vv, rgbx + x * 4);
    }
    return x;
}

int32_t Nv12RowToRgbx(const uint8_t* luma, const uint8_t* uv, int32_t pixels, int32_t cs, int32_t range,
                      uint8_t* rgbx) {
    const Decoder decoder(DecodeRuleFor(cs, range));
    const __m128i zero = _mm_setzero_si128();
    int32_t x = 0;
    for (; x + 8 <= pixels; x += 8) {
        const __m128i y = _mm_unpacklo_epi8(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(luma + x)), zero);
        const __m128i c = _mm_unpacklo_epi8(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(uv + x)), zero);
        __m128i u, v;
        SplitChroma(c, &u, &v);
        decoder.Decode(y, u, v, rgbx + x * 4);
    }
    return x;
}

int32_t Nv12RowToRgbxViaFloat(const uint8_t* luma, const uint8_t* uv, int32_t pixels, int32_t cs, int32_t range,
                              uint8_t* rgbx) {
    const FloatYuvToRgb k = FloatDecodeCoefficients(cs);
    const bool full = range == 1;
    const __m128i yBias = _mm_set1_epi32(full ? 0 : 16);
    const __m128i cBias = _mm_set1_epi32(128);
    const __m128 yScale = _mm_set1_ps(full ? 255.0f : 219.0f);
    const __m128 cScale = _mm_set1_ps(full ? 255.0f : 224.0f);
    const __m128 a = _mm_set1_ps(k.a), b = _mm_set1_ps(k.b), c = _mm_set1_ps(k.c), d = _mm_set1_ps(k.d);
    const __m128 zero = _mm_setzero_ps(), one = _mm_set1_ps(1.0f);
    const __m128 byteScale = _mm_set1_ps(255.0f), half = _mm_set1_ps(0.5f);
    const __m128i zeroI = _mm_setzero_si128();
    auto clamp01 = [&](__m128 v) { return _mm_min_ps(_mm_max_ps(v, zero), one); };
    auto toByte = [&](__m128 v) { return _mm_cvttps_epi32(_mm_add_ps(_mm_mul_ps(v, byteScale), half)); };
    int32_t x = 0;
    for (; x + 4 <= pixels; x += 4) {
        int32_t lumaBytes, chromaBytes;
        std::memcpy(&lumaBytes, luma + x, 4);
        std::memcpy(&chromaBytes, uv + x, 4);
        const __m128i y = _mm_unpacklo_epi16(_mm_unpacklo_epi8(_mm_cvtsi32_si128(lumaBytes), zeroI), zeroI);
        const __m128i uvLanes = _mm_unpacklo_epi16(_mm_unpacklo_epi8(_mm_cvtsi32_si128(chromaBytes), zeroI), zeroI);
        const __m128i u = _mm_shuffle_epi32(uvLanes, _MM_SHUFFLE(2, 2, 0, 0));
        const __m128i v = _mm_shuffle_epi32(uvLanes, _MM_SHUFFLE(3, 3, 1, 1));
        const __m128 yn = clamp01(_mm_div_ps(_mm_cvtepi32_ps(_mm_sub_epi32(y, yBias)), yScale));
        const __m128 cb = _mm_div_ps(_mm_cvtepi32_ps(_mm_sub_epi32(u, cBias)), cScale);
        const __m128 cr = _mm_div_ps(_mm_cvtepi32_ps(_mm_sub_epi32(v, cBias)), cScale);
        const __m128i r = toByte(clamp01(_mm_add_ps(yn, _mm_mul_ps(a, cr))));
        const __m128i g = toByte(clamp01(_mm_sub_ps(_mm_sub_ps(yn, _mm_mul_ps(b, cb)), _mm_mul_ps(c, cr))));
        const __m128i bl = toByte(clamp01(_mm_add_ps(yn, _mm_mul_ps(d, cb))));
        const __m128i packed = _mm_or_si128(_mm_or_si128(r, _mm_slli_epi32(g, 8)), _mm_slli_epi32(bl, 16));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(rgbx + x * 4), packed);
    }
    return x;
}

namespace {

inline __m128i LoadFourBytes(const uint8_t* p) {
    int32_t bytes;
    std::memcpy(&bytes, p, 4);
    const __m128i zero = _mm_setzero_si128();
    return _mm_unpacklo_epi16(_mm_unpacklo_epi8(_mm_cvtsi32_si128(bytes), zero), zero);
}

inline void StoreFourBytes(__m128i lanes, uint8_t* p) {
    const int32_t bytes = _mm_cvtsi128_si32(_mm_packus_epi16(_mm_packs_epi32(lanes, lanes), lanes));
    std::memcpy(p, &bytes, 4);
}

// min(max(v, 0), 1); maxps returns its second operand for a NaN, so NaN
// becomes 0 as in the plain code.
inline __m128 Clamp01(__m128 v) { return _mm_min_ps(_mm_max_ps(v, _mm_setzero_ps()), _mm_set1_ps(1.0f)); }

// Lane P of v in all four lanes.
template <int P>
inline __m128 Lane(__m128 v) {
    return _mm_shuffle_ps(v, v, _MM_SHUFFLE(P, P, P, P));
}

}  // namespace

int32_t YuvBytesToFloatRow(const uint8_t* y, const uint8_t* u, const uint8_t* v, int32_t pixels, int32_t cs,
                           int32_t range, float* r, float* g, float* b) {
    const FloatYuvToRgb k = FloatDecodeCoefficients(cs);
    const bool full = range == 1;
    const __m128i yBias = _mm_set1_epi32(full ? 0 : 16), cBias = _mm_set1_epi32(128);
    const __m128 yScale = _mm_set1_ps(full ? 255.0f : 219.0f), cScale = _mm_set1_ps(full ? 255.0f : 224.0f);
    const __m128 a = _mm_set1_ps(k.a), bb = _mm_set1_ps(k.b), c = _mm_set1_ps(k.c), d = _mm_set1_ps(k.d);
    int32_t x = 0;
    for (; x + 4 <= pixels; x += 4) {
        const __m128 yn = Clamp01(_mm_div_ps(_mm_cvtepi32_ps(_mm_sub_epi32(LoadFourBytes(y + x), yBias)), yScale));
        const __m128 cb = _mm_div_ps(_mm_cvtepi32_ps(_mm_sub_epi32(LoadFourBytes(u + x), cBias)), cScale);
        const __m128 cr = _mm_div_ps(_mm_cvtepi32_ps(_mm_sub_epi32(LoadFourBytes(v + x), cBias)), cScale);
        _mm_storeu_ps(r + x, Clamp01(_mm_add_ps(yn, _mm_mul_ps(a, cr))));
        _mm_storeu_ps(g + x, Clamp01(_mm_sub_ps(_mm_sub_ps(yn, _mm_mul_ps(bb, cb)), _mm_mul_ps(c, cr))));
        _mm_storeu_ps(b + x, Clamp01(_mm_add_ps(yn, _mm_mul_ps(d, cb))));
    }
    return x;
}

int32_t FloatRowToYuvBytes(const float* r, const float* g, const float* b, int32_t pixels, int32_t cs, int32_t range,
                           uint8_t* y, uint8_t* u, uint8_t* v) {
    const FloatRgbToYuv k = FloatEncodeCoefficients(cs);
    const bool full = range == 1;
    const __m128 kr = _mm_set1_ps(k.kr), kg = _mm_set1_ps(k.kg), kb = _mm_set1_ps(k.kb);
    const __m128 cbDivisor = _mm_set1_ps(2.0f * (1.0f - k.kb)), crDivisor = _mm_set1_ps(2.0f * (1.0f - k.kr));
    const __m128 yScale = _mm_set1_ps(full ? 255.0f : 219.0f), cScale = _mm_set1_ps(full ? 255.0f : 224.0f);
    const __m128 yOffset = _mm_set1_ps(16.0f), cOffset = _mm_set1_ps(128.0f), half = _mm_set1_ps(0.5f);
    int32_t x = 0;
    for (; x + 4 <= pixels; x += 4) {
        const __m128 rr = Clamp01(_mm_loadu_ps(r + x)), gg = Clamp01(_mm_loadu_ps(g + x)), bl = Clamp01(_mm_loadu_ps(b + x));
        const __m128 luma = _mm_add_ps(_mm_add_ps(_mm_mul_ps(kr, rr), _mm_mul_ps(kg, gg)), _mm_mul_ps(kb, bl));
        const __m128 cb = _mm_div_ps(_mm_sub_ps(bl, luma), cbDivisor);
        const __m128 cr = _mm_div_ps(_mm_sub_ps(rr, luma), crDivisor);
        __m128 y8 = _mm_mul_ps(luma, yScale);
        if (!full) y8 = _mm_add_ps(y8, yOffset);
        const __m128 u8 = _mm_add_ps(_mm_mul_ps(cb, cScale), cOffset);
        const __m128 v8 = _mm_add_ps(_mm_mul_ps(cr, cScale), cOffset);
        StoreFourBytes(_mm_cvttps_epi32(_mm_add_ps(y8, half)), y + x);
        StoreFourBytes(_mm_cvttps_epi32(_mm_add_ps(u8, half)), u + x);
        StoreFourBytes(_mm_cvttps_epi32(_mm_add_ps(v8, half)), v + x);
    }
    return x;
}

int32_t ApplyLutFloatRow(const Kiv3DLutData& lut, float strength, float* r, float* g, float* b, int32_t pixels) {
    const int n = lut.dim;
    if (n < 2 || lut.values.empty()) return pixels;  // colours pass unchanged
    if (lut.paddedValues.size() != lut.values.size() / 3 * 4) return 0;
    float* channel[3] = {r, g, b};
    __m128 low[3], span[3];
    for (int c = 0; c < 3; ++c) {
        low[c] = _mm_set1_ps(lut.domainMin[c]);
        span[c] = _mm_set1_ps(lut.domainMax[c] - lut.domainMin[c]);
    }
    const __m128 last = _mm_set1_ps(static_cast<float>(n - 1));
    const __m128i lastIndex = _mm_set1_epi32(n - 1), oneI = _mm_set1_epi32(1);
    const __m128 one = _mm_set1_ps(1.0f);
    const __m128 weight = _mm_set1_ps(strength > 0.0f ? (strength < 1.0f ? strength : 1.0f) : 0.0f);
    const float* entries = lut.paddedValues.data();
    const int32_t rowStep = n, planeStep = n * n;
    alignas(16) int32_t lo[3][4], step[3][4];
    int32_t x = 0;
    for (; x + 4 <= pixels; x += 4) {
        // Lattice position, upper-neighbour step and weights of four pixels.
        __m128 f[3], g1[3];
        for (int c = 0; c < 3; ++c) {
            const __m128 v = _mm_loadu_ps(channel[c] + x);
            const __m128 pos = _mm_mul_ps(Clamp01(_mm_div_ps(_mm_sub_ps(v, low[c]), span[c])), last);
            const __m128i l = _mm_cvttps_epi32(pos);  // floor: pos is not negative
            _mm_store_si128(reinterpret_cast<__m128i*>(lo[c]), l);
            _mm_store_si128(reinterpret_cast<__m128i*>(step[c]), _mm_and_si128(_mm_cmplt_epi32(l, lastIndex), oneI));
            f[c] = _mm_sub_ps(pos, _mm_cvtepi32_ps(l));
            g1[c] = _mm_sub_ps(one, f[c]);
        }
        const float* base[4];
        int32_t offset[4][8];
        for (int p = 0; p < 4; ++p) {
            base[p] = entries + static_cast<size_t>(lo[0][p] + rowStep * (lo[1][p] + n * lo[2][p])) * 4;
            const int32_t dr = step[0][p] * 4, dg = step[1][p] * rowStep * 4, db = step[2][p] * planeStep * 4;
            int32_t* o = offset[p];
            o[0] = 0, o[1] = dr, o[2] = dg, o[3] = dr + dg;
            o[4] = db, o[5] = dr + db, o[6] = dg + db, o[7] = dr + dg + db;
        }
        // Per pixel, the lanes are red, green, blue and a spare: each
        // channel's sum runs over the corners in the same order as the plain
        // code, so every channel gets its bytes exactly. The four pixels'
        // sums are interleaved so their loads overlap.
        __m128 sum[4] = {_mm_setzero_ps(), _mm_setzero_ps(), _mm_setzero_ps(), _mm_setzero_ps()};
        for (int corner = 0; corner < 8; ++corner) {
            const __m128 wr = (corner & 1) ? f[0] : g1[0];
            const __m128 wg = (corner & 2) ? f[1] : g1[1];
            const __m128 wb = (corner & 4) ? f[2] : g1[2];
            const __m128 w = _mm_mul_ps(_mm_mul_ps(wr, wg), wb);
            sum[0] = _mm_add_ps(sum[0], _mm_mul_ps(Lane<0>(w), _mm_loadu_ps(base[0] + offset[0][corner])));
            sum[1] = _mm_add_ps(sum[1], _mm_mul_ps(Lane<1>(w), _mm_loadu_ps(base[1] + offset[1][corner])));
            sum[2] = _mm_add_ps(sum[2], _mm_mul_ps(Lane<2>(w), _mm_loadu_ps(base[2] + offset[2][corner])));
            sum[3] = _mm_add_ps(sum[3], _mm_mul_ps(Lane<3>(w), _mm_loadu_ps(base[3] + offset[3][corner])));
        }
        _MM_TRANSPOSE4_PS(sum[0], sum[1], sum[2], sum[3]);  // now red, green, blue of the four pixels
        for (int c = 0; c < 3; ++c) {
            const __m128 in = _mm_loadu_ps(channel[c] + x);
            _mm_storeu_ps(channel[c] + x, Clamp01(_mm_add_ps(in, _mm_mul_ps(_mm_sub_ps(sum[c], in), weight))));
        }
    }
    return x;
}

int32_t RgbxRowToBgra(const uint8_t* rgbx, int32_t pixels, uint8_t* bgra) {
    const __m128i green = _mm_set1_epi32(0x0000FF00);
    const __m128i low = _mm_set1_epi32(0x000000FF);
    const __m128i alpha = _mm_set1_epi32(static_cast<int>(0xFF000000u));
    int32_t x = 0;
    for (; x + 4 <= pixels; x += 4) {
        const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(rgbx + x * 4));
        const __m128i swapped = _mm_or_si128(_mm_or_si128(_mm_and_si128(v, green), _mm_and_si128(_mm_srli_epi32(v, 16), low)),
                                             _mm_slli_epi32(_mm_and_si128(v, low), 16));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(bgra + x * 4), _mm_or_si128(swapped, alpha));
    }
    return x;
}

int32_t BgraRowToRgbx(const uint8_t* bgra, int32_t pixels, uint8_t* rgbx) {
    const __m128i green = _mm_set1_epi32(0x0000FF00);
    const __m128i low = _mm_set1_epi32(0x000000FF);
    int32_t x = 0;
    for (; x + 4 <= pixels; x += 4) {
        const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(bgra + x * 4));
        const __m128i swapped = _mm_or_si128(_mm_or_si128(_mm_and_si128(v, green), _mm_and_si128(_mm_srli_epi32(v, 16), low)),
                                             _mm_slli_epi32(_mm_and_si128(v, low), 16));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(rgbx + x * 4), swapped);
    }
    return x;
}

int32_t RgbxRowToYuy2(const uint8_t* rgbx, int32_t pixels, int32_t cs, int32_t range, uint8_t* yuy2) {
    // Weights of the 8-bit RGB-to-YUV rule: Y = ((yr R + yg G + yb B + 128) >> 8) + yOffset,
    // U = ((ur R + ug G + ub B + 128) >> 8) + 128, V likewise.
    const bool bt601 = cs == 1;
    int16_t yr, yg, yb, ur, ug, ub, vr, vg, vb, yOffset;
    if (range == 1) {
        yOffset = 0;
        if (bt601) {
            yr = 77, yg = 150, yb = 29, ur = -43, ug = -85, ub = 128, vr = 128, vg = -107, vb = -21;
        } else {
            yr = 54, yg = 183, yb = 18, ur = -29, ug = -99, ub = 128, vr = 128, vg = -116, vb = -12;
        }
    } else {
        yOffset = 16;
        if (bt601) {
            yr = 66, yg = 129, yb = 25, ur = -38, ug = -74, ub = 112, vr = 112, vg = -94, vb = -18;
        } else {
            yr = 47, yg = 157, yb = 16, ur = -26, ug = -87, ub = 112, vr = 112, vg = -102, vb = -10;
        }
    }
    const __m128i low = _mm_set1_epi32(0xFF);
    const __m128i zero = _mm_setzero_si128();
    const __m128i max255 = _mm_set1_epi16(255);
    // Y's weights are positive and sum to at most 256, so Y's sum fits an
    // unsigned 16-bit lane. U's and V's weighted sums lie within +-32640 and
    // fit a signed lane; (x + 128) >> 8 is taken as ((x >> 1) + 64) >> 7, which
    // is the same floor without the sum leaving the lane.
    auto weighted = [](__m128i r, __m128i g, __m128i b, int16_t wr, int16_t wg, int16_t wb) {
        return _mm_add_epi16(_mm_add_epi16(_mm_mullo_epi16(r, _mm_set1_epi16(wr)), _mm_mullo_epi16(g, _mm_set1_epi16(wg))),
                             _mm_mullo_epi16(b, _mm_set1_epi16(wb)));
    };
    auto chroma = [&](__m128i sum) {
        const __m128i c = _mm_srai_epi16(_mm_add_epi16(_mm_srai_epi16(sum, 1), _mm_set1_epi16(64)), 7);
        return _mm_max_epi16(_mm_min_epi16(_mm_add_epi16(c, _mm_set1_epi16(128)), max255), zero);
    };
    int32_t x = 0;
    for (; x + 8 <= pixels; x += 8) {
        const __m128i p0 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(rgbx + x * 4));
        const __m128i p1 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(rgbx + x * 4 + 16));
        // Red, green and blue of the eight pixels in 16-bit lanes.
        const __m128i r = _mm_packs_epi32(_mm_and_si128(p0, low), _mm_and_si128(p1, low));
        const __m128i g = _mm_packs_epi32(_mm_and_si128(_mm_srli_epi32(p0, 8), low), _mm_and_si128(_mm_srli_epi32(p1, 8), low));
        const __m128i b = _mm_packs_epi32(_mm_and_si128(_mm_srli_epi32(p0, 16), low), _mm_and_si128(_mm_srli_epi32(p1, 16), low));
        const __m128i y = _mm_add_epi16(_mm_srli_epi16(_mm_add_epi16(weighted(r, g, b, yr, yg, yb), _mm_set1_epi16(128)), 8),
                                        _mm_set1_epi16(yOffset));
        const __m128i u = chroma(weighted(r, g, b, ur, ug, ub));
        const __m128i v = chroma(weighted(r, g, b, vr, vg, vb));
        // Each pair's rounded chroma average lands in its even lane.
        const __m128i uPair = _mm_and_si128(_mm_avg_epu16(u, _mm_srli_epi32(u, 16)), low);
        const __m128i vPair = _mm_and_si128(_mm_avg_epu16(v, _mm_srli_epi32(v, 16)), low);
        // Per pair as 32 bits: Y0 | U << 8 | Y1 << 16 | V << 24.
        const __m128i yEven = _mm_and_si128(y, low);
        const __m128i yOdd = _mm_srli_epi32(y, 16);
        const __m128i groups = _mm_or_si128(_mm_or_si128(yEven, _mm_slli_epi32(uPair, 8)),
                                            _mm_or_si128(_mm_slli_epi32(yOdd, 16), _mm_slli_epi32(vPair, 24)));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(yuy2 + x * 2), groups);
    }
    return x;
}

}  // namespace kiv::color

#else

namespace kiv::color {
int32_t Yuy2RowToRgbx(const uint8_t*, int32_t, int32_t, int32_t, uint8_t*) { return 0; }
int32_t Nv12RowToRgbx(const uint8_t*, const uint8_t*, int32_t, int32_t, int32_t, uint8_t*) { return 0; }
int32_t Nv12RowToRgbxViaFloat(const uint8_t*, const uint8_t*, int32_t, int32_t, int32_t, uint8_t*) { return 0; }
int32_t YuvBytesToFloatRow(const uint8_t*, const uint8_t*, const uint8_t*, int32_t, int32_t, int32_t, float*, float*,
                           float*) {
    return 0;
}
int32_t FloatRowToYuvBytes(const float*, const float*, const float*, int32_t, int32_t, int32_t, uint8_t*, uint8_t*,
                           uint8_t*) {
    return 0;
}
int32_t ApplyLutFloatRow(const Kiv3DLutData&, float, float*, float*, float*, int32_t) { return 0; }
int32_t RgbxRowToBgra(const uint8_t*, int32_t, uint8_t*) { return 0; }
int32_t BgraRowToRgbx(const uint8_t*, int32_t, uint8_t*) { return 0; }
int32_t RgbxRowToYuy2(const uint8_t*, int32_t, int32_t, int32_t, uint8_t*) { return 0; }
}  // namespace kiv::color

#endif
