#include "kiv_lut8_fast.h"

#include <cstring>

#include "kiv_color_math.h"
#include "kiv_cube_lut.h"

#if defined(__SSE2__) || defined(_M_X64)
#include <emmintrin.h>
#define KIV_LUT8_SSE2 1
#endif

namespace kiv::color {

namespace {
inline int Lerp8(int a, int b, int f) { return a + (((b - a) * f + 128) >> 8); }
}  // namespace

Lut8Fast::Lut8Fast(const Kiv3DLutData* lut, float strength) {
    if (!lut || lut->dim < 2 || lut->bytes.empty()) return;
    const int32_t weight = StrengthWeight(strength);
    if (weight < 1) return;
    const uint32_t n = static_cast<uint32_t>(lut->dim);
    const uint32_t stride[3] = {1u, n, n * n};
    for (int c = 0; c < 256; ++c) {
        const int p = (c * static_cast<int>(n - 1) * 256 + 127) / 255;
        const uint32_t i = static_cast<uint32_t>(p >> 8);
        const bool inside = i < n - 1;
        frac_[c] = static_cast<uint8_t>(inside ? (p & 255) : 0);
        weightPair_[c] = static_cast<int32_t>((static_cast<uint32_t>(frac_[c]) << 16) | (256u - frac_[c]));
        for (int ch = 0; ch < 3; ++ch) {
            lower_[ch][c] = (inside ? i : n - 1) * stride[ch];
            step_[ch][c] = inside ? stride[ch] : 0;
        }
        blueIndex_[c] = inside ? i : n - 1;
    }
    weight_ = weight;
    bytes_ = lut->bytes.data();
    dim_ = n;
    if (lut->redGreenSteps.size() == 256 * 256 * static_cast<size_t>(n) + 1) redGreenSteps_ = lut->redGreenSteps.data();
}

void Lut8Fast::ApplyRowScalar(uint8_t* rgbx, int32_t count) const {
    if (!bytes_) return;
    for (int32_t i = 0; i < count; ++i, rgbx += 4) {
        const int r = rgbx[0], g = rgbx[1], b = rgbx[2];
        const uint8_t* c000 = bytes_ + 3 * (lower_[0][r] + lower_[1][g] + lower_[2][b]);
        const uint32_t dr = 3 * step_[0][r], dg = 3 * step_[1][g], db = 3 * step_[2][b];
        const int fr = frac_[r], fg = frac_[g], fb = frac_[b];
        const uint8_t* c010 = c000 + dg;
        const uint8_t* c001 = c000 + db;
        const uint8_t* c011 = c001 + dg;
        for (int ch = 0; ch < 3; ++ch) {
            const int x00 = Lerp8(c000[ch], c000[dr + ch], fr);
            const int x10 = Lerp8(c010[ch], c010[dr + ch], fr);
            const int x01 = Lerp8(c001[ch], c001[dr + ch], fr);
            const int x11 = Lerp8(c011[ch], c011[dr + ch], fr);
            int out = Lerp8(Lerp8(x00, x10, fg), Lerp8(x01, x11, fg), fb);
            if (weight_ < 256) {
                const int in = rgbx[ch];
                out = in + (((out - in) * weight_ + 128) >> 8);
            }
            rgbx[ch] = static_cast<uint8_t>(out < 0 ? 0 : (out > 255 ? 255 : out));
        }
    }
}

// Each step a + (((b - a) * f + 128) >> 8) equals (a * (256 - f) + b * f + 128)
// >> 8, because a * 256 is a whole multiple of 256 and the shift floors; that
// is one multiply-add on a lane pair (a, b). All values stay within 0..255,
// so the results are those of the scalar rule. The steps along red and green
// come ready-made from the table's redGreenSteps, whose two blue neighbours
// sit side by side (at the last blue index the upper one has weight 0).
void Lut8Fast::ApplyRow(uint8_t* rgbx, int32_t count) const {
    if (!bytes_) return;
#if defined(KIV_LUT8_SSE2)
    if (redGreenSteps_) {
        const __m128i zero = _mm_setzero_si128();
        const __m128i round = _mm_set1_epi32(128);
        const __m128i blend = _mm_set1_epi32(static_cast<int>((static_cast<uint32_t>(weight_) << 16) | (256u - weight_)));
        const bool partial = weight_ < 256;
        // The table is larger than the nearer caches; fetching a few pixels
        // ahead hides most of the wait for it.
        constexpr int32_t kAhead = 12;
        for (int32_t i = 0; i < count; ++i, rgbx += 4) {
            if (i + kAhead < count) {
                const uint8_t* next = rgbx + 4 * kAhead;
                _mm_prefetch(reinterpret_cast<const char*>(redGreenSteps_ + (next[0] * 256u + next[1]) * dim_ +
                                                           blueIndex_[next[2]]),
                             _MM_HINT_T0);
            }
            const uint32_t r = rgbx[0], g = rgbx[1], b = rgbx[2];
            const uint32_t* y = redGreenSteps_ + (r * 256 + g) * dim_ + blueIndex_[b];
            // y0 and y1 as 16-bit lane pairs per channel.
            const __m128i both = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(y));
            const __m128i pairs = _mm_unpacklo_epi8(_mm_unpacklo_epi8(both, _mm_srli_epi64(both, 32)), zero);
            __m128i z = _mm_madd_epi16(pairs, _mm_set1_epi32(weightPair_[b]));
            z = _mm_srai_epi32(_mm_add_epi32(z, round), 8);
            if (partial) {
                // Lanes (input, table result) weighted by strength.
                const __m128i in = _mm_unpacklo_epi16(
                    _mm_unpacklo_epi8(_mm_cvtsi32_si128(static_cast<int>(r | (g << 8) | (b << 16))), zero), zero);
                z = _mm_madd_epi16(_mm_or_si128(in, _mm_slli_epi32(z, 16)), blend);
                z = _mm_srai_epi32(_mm_add_epi32(z, round), 8);
            }
            const __m128i packed = _mm_packus_epi16(_mm_packs_epi32(z, z), zero);
            const int32_t value = _mm_cvtsi128_si32(packed);
            std::memcpy(rgbx, &value, 4);
        }
        return;
    }
#endif
    ApplyRowScalar(rgbx, count);
}

}  // namespace kiv::color
