#include "kiv_color_rows_sse2.h"

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
    // Weights of the 8-bit RGB-to-YUV rule; Y = ((yr R + yg G + yb B + 128) >> 8) + yOffset.
    const bool bt601 = cs == 1;
    int16_t yr, yg, yb, ur, ug, ub, vr, vg, vb;
    int32_t yOffset;
    if (range == 1) {
        yOffset = 0;
        if (bt601) yr = 77, yg = 150, yb = 29, ur = -43, ug = -85, ub = 128, vr = 128, vg = -107, vb = -21;
        else yr = 54, yg = 183, yb = 18, ur = -29, ug = -99, ub = 128, vr = 128, vg = -116, vb = -12;
    } else {
        yOffset = 16;
        if (bt601) yr = 66, yg = 129, yb = 25, ur = -38, ug = -74, ub = 112, vr = 112, vg = -94, vb = -18;
        else yr = 47, yg = 157, yb = 16, ur = -26, ug = -87, ub = 112, vr = 112, vg = -102, vb = -10;
    }
    const __m128i zero = _mm_setzero_si128();
    const __m128i rgY = Pair(yr, yg), bY = Pair(yb, 128);
    const __m128i rgU = Pair(ur, ug), bU = Pair(ub, 128);
    const __m128i rgV = Pair(vr, vg), bV = Pair(vb, 128);
    const __m128i one = _mm_set1_epi32(1);  // the "x 128" partner of blue
    const __m128i yAdd = _mm_set1_epi32(yOffset), cAdd = _mm_set1_epi32(128);
    const __m128i max255 = _mm_set1_epi16(255);
    int32_t x = 0;
    for (; x + 4 <= pixels; x += 4) {
        // Four pixels R G B x as 16-bit lanes, then (R, G) and (B, 1) pairs.
        const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(rgbx + x * 4));
        const __m128i lo = _mm_unpacklo_epi8(v, zero);  // pixels 0, 1
        const __m128i hi = _mm_unpackhi_epi8(v, zero);  // pixels 2, 3
        // R G pairs in 32-bit lanes: shuffle 16-bit lanes r g b x r g b x.
        const __m128i rg = _mm_castps_si128(_mm_shuffle_ps(_mm_castsi128_ps(lo), _mm_castsi128_ps(hi), _MM_SHUFFLE(2, 0, 2, 0)));
        const __m128i bx = _mm_castps_si128(_mm_shuffle_ps(_mm_castsi128_ps(lo), _mm_castsi128_ps(hi), _MM_SHUFFLE(3, 1, 3, 1)));
        // Replace x with 1 so the pair's second weight adds the rounding 128.
        const __m128i b1 = _mm_or_si128(_mm_and_si128(bx, _mm_set1_epi32(0xFFFF)), _mm_slli_epi32(one, 16));
        const __m128i y = _mm_add_epi32(_mm_srai_epi32(_mm_add_epi32(_mm_madd_epi16(rg, rgY), _mm_madd_epi16(b1, bY)), 8), yAdd);
        const __m128i u = _mm_add_epi32(_mm_srai_epi32(_mm_add_epi32(_mm_madd_epi16(rg, rgU), _mm_madd_epi16(b1, bU)), 8), cAdd);
        const __m128i w = _mm_add_epi32(_mm_srai_epi32(_mm_add_epi32(_mm_madd_epi16(rg, rgV), _mm_madd_epi16(b1, bV)), 8), cAdd);
        // Clamp each pixel to 0..255 before averaging the pairs' chroma.
        const __m128i y16 = _mm_max_epi16(_mm_min_epi16(_mm_packs_epi32(y, y), max255), zero);
        const __m128i uv16 = _mm_max_epi16(_mm_min_epi16(_mm_packs_epi32(u, w), max255), zero);  // u0..u3 v0..v3
        // Pair sums: lanes (u0 + u1, u2 + u3, v0 + v1, v2 + v3).
        const __m128i sums = _mm_madd_epi16(uv16, _mm_set1_epi16(1));
        const __m128i avg = _mm_srli_epi32(_mm_add_epi32(sums, one), 1);  // u01 u23 v01 v23
        // Groups Y0 U Y1 V: 16-bit lanes y0 u01 y1 v01 y2 u23 y3 v23.
        const __m128i uAvg = _mm_shuffle_epi32(avg, _MM_SHUFFLE(1, 1, 0, 0));  // u01 u01 u23 u23
        const __m128i vAvg = _mm_shuffle_epi32(avg, _MM_SHUFFLE(3, 3, 2, 2));  // v01 v01 v23 v23
        // Lanes (y_even | u << 16) and (y_odd | v << 16) for each pair.
        const __m128i y32 = _mm_unpacklo_epi16(y16, zero);                       // y0 y1 y2 y3
        const __m128i yEven = _mm_shuffle_epi32(y32, _MM_SHUFFLE(2, 2, 0, 0));  // y0 y0 y2 y2
        const __m128i yOdd = _mm_shuffle_epi32(y32, _MM_SHUFFLE(3, 3, 1, 1));   // y1 y1 y3 y3
        const __m128i first = _mm_or_si128(yEven, _mm_slli_epi32(uAvg, 16));    // (y0,u01) x2, (y2,u23) x2
        const __m128i second = _mm_or_si128(yOdd, _mm_slli_epi32(vAvg, 16));    // (y1,v01) x2, (y3,v23) x2
        // Interleave: (y0,u01) (y1,v01) (y2,u23) (y3,v23).
        const __m128i groups = _mm_unpacklo_epi32(_mm_shuffle_epi32(first, _MM_SHUFFLE(3, 3, 2, 0)),
                                                  _mm_shuffle_epi32(second, _MM_SHUFFLE(3, 3, 2, 0)));
        const __m128i bytes = _mm_packus_epi16(groups, zero);
        _mm_storel_epi64(reinterpret_cast<__m128i*>(yuy2 + x * 2), bytes);
    }
    return x;
}

}  // namespace kiv::color

#else

namespace kiv::color {
int32_t Yuy2RowToRgbx(const uint8_t*, int32_t, int32_t, int32_t, uint8_t*) { return 0; }
int32_t Nv12RowToRgbx(const uint8_t*, const uint8_t*, int32_t, int32_t, int32_t, uint8_t*) { return 0; }
int32_t RgbxRowToBgra(const uint8_t*, int32_t, uint8_t*) { return 0; }
int32_t BgraRowToRgbx(const uint8_t*, int32_t, uint8_t*) { return 0; }
int32_t RgbxRowToYuy2(const uint8_t*, int32_t, int32_t, int32_t, uint8_t*) { return 0; }
}  // namespace kiv::color

#endif
