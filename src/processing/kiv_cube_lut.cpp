#include "kiv_cube_lut.h"

#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <new>

#include "kiv_wide_path.h"

namespace kiv {

namespace {

constexpr size_t kLineBuffer = 1024;

bool IsBlank(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f'; }

const char* SkipBlanks(const char* p) {
    while (IsBlank(*p)) ++p;
    return p;
}

// One "%f" conversion of the formatted scan, locale-independent: leading
// white space, an optional sign, then a decimal (with exponent), inf or nan.
bool ScanFloat(const char*& p, float* value) {
    const char* s = SkipBlanks(p);
    bool negative = false;
    if (*s == '+' || *s == '-') {
        negative = *s == '-';
        ++s;
        if (*s == '+' || *s == '-') return false;
    }
    const char* end = s + std::strlen(s);
    float v = 0.0f;
    auto result = std::from_chars(s, end, v, std::chars_format::general);
    if (result.ec == std::errc::result_out_of_range) {
        // Out-of-range numbers scan as infinity or zero, as the C library does.
        double d = 0.0;
        auto wide = std::from_chars(s, end, d, std::chars_format::general);
        if (wide.ec != std::errc() && wide.ec != std::errc::result_out_of_range) return false;
        v = static_cast<float>(d);
        result.ptr = wide.ptr;
    } else if (result.ec != std::errc()) {
        return false;
    }
    *value = negative ? -v : v;
    p = result.ptr;
    return true;
}

// One "%d" conversion; values beyond 32 bits saturate.
bool ScanInt(const char*& p, int64_t* value) {
    const char* s = SkipBlanks(p);
    bool negative = false;
    if (*s == '+' || *s == '-') {
        negative = *s == '-';
        ++s;
    }
    if (*s < '0' || *s > '9') return false;
    int64_t v = 0;
    while (*s >= '0' && *s <= '9') {
        if (v < (int64_t{1} << 40)) v = v * 10 + (*s - '0');
        ++s;
    }
    *value = negative ? -v : v;
    p = s;
    return true;
}

// "KEYWORD %f %f %f" with all three converted; keyword may be empty.
bool ScanTriple(const char* line, const char* keyword, float out[3]) {
    const size_t n = std::strlen(keyword);
    if (std::strncmp(line, keyword, n) != 0) return false;
    const char* p = line + n;
    float v[3];
    for (float& x : v) {
        if (!ScanFloat(p, &x)) return false;
    }
    out[0] = v[0];
    out[1] = v[1];
    out[2] = v[2];
    return true;
}

struct GatheredCube {
    int64_t size = 0;
    float domainMin[3] = {0.0f, 0.0f, 0.0f};
    float domainMax[3] = {1.0f, 1.0f, 1.0f};
    std::vector<float> values;
};

// Cuts the comment and surrounding blanks; returns the start of what is left.
char* CleanLine(char* line) {
    if (char* hash = std::strchr(line, '#')) *hash = '\0';
    size_t len = std::strlen(line);
    while (len > 0 && (line[len - 1] == '\r' || line[len - 1] == '\n' || line[len - 1] == ' ' || line[len - 1] == '\t')) {
        line[--len] = '\0';
    }
    while (*line == ' ' || *line == '\t') ++line;
    return line;
}

// Reads every line; false only for a size line out of range.
bool Gather(const char* text, bool skipTitle, GatheredCube* cube) {
    char buffer[kLineBuffer];
    const char* p = text;
    while (*p) {
        // Keep at most 1023 characters; the tail of a longer line is dropped.
        size_t len = 0;
        while (p[len] && p[len] != '\n' && len < kLineBuffer - 1) ++len;
        std::memcpy(buffer, p, len);
        buffer[len] = '\0';
        p += len;
        while (*p && *p != '\n') ++p;
        if (*p == '\n') ++p;

        const char* line = CleanLine(buffer);
        if (*line == '\0') continue;

        if (std::strncmp(line, "LUT_3D_SIZE", 11) == 0) {
            const char* q = line + 11;
            int64_t size = 0;
            if (ScanInt(q, &size)) {
                if (size < 2 || size > 128) return false;
                cube->size = size;
                continue;
            }
        }
        if (ScanTriple(line, "DOMAIN_MIN", cube->domainMin)) continue;
        if (ScanTriple(line, "DOMAIN_MAX", cube->domainMax)) continue;
        if (skipTitle && std::strncmp(line, "TITLE", 5) == 0) continue;
        float rgb[3];
        if (ScanTriple(line, "", rgb)) cube->values.insert(cube->values.end(), rgb, rgb + 3);
    }
    return true;
}

// Steps shared after gathering: the edge length, from the size line or the
// entry count, and enough entries for it. Returns 0 on failure.
int64_t ResolveDim(const GatheredCube& cube) {
    const int64_t entries = static_cast<int64_t>(cube.values.size() / 3);
    if (cube.size == 0) {
        const int64_t n = static_cast<int64_t>(std::pow(static_cast<double>(entries), 1.0 / 3.0) + 0.5);
        if (n < 2 || n * n * n != entries) return 0;
        return n;
    }
    if (entries < cube.size * cube.size * cube.size) return 0;
    return cube.size;
}

float Clamp01(float v) {
    if (!(v >= 0.0f)) return 0.0f;  // also not-a-number
    return v > 1.0f ? 1.0f : v;
}

}  // namespace

namespace {

// Lattice indices and fraction of an input byte in the 8-bit lookup.
struct LatticeStep {
    uint32_t lo, hi;
    int f;
};
LatticeStep StepOf(uint32_t value, uint32_t n) {
    const int p = static_cast<int>((value * (n - 1) * 256 + 127) / 255);
    const uint32_t i = static_cast<uint32_t>(p >> 8);
    if (i < n - 1) return {i, i + 1, p & 255};
    return {n - 1, n - 1, 0};
}

int Lerp8(int a, int b, int f) { return a + (((b - a) * f + 128) >> 8); }

}  // namespace

void BuildRedGreenSteps(Kiv3DLutData* lut) {
    const uint32_t n = static_cast<uint32_t>(lut->dim);
    lut->redGreenSteps.clear();
    // Tables beyond the largest size a size line allows (only possible by
    // counting entries) keep to the plain lookup rather than grow this.
    if (n < 2 || n > 128 || lut->bytes.size() != static_cast<size_t>(n) * n * n * 3) return;
    const size_t plane = static_cast<size_t>(n) * n;
    // Along red first: for each red byte, every (g, b) lattice point.
    std::vector<uint8_t> red(256 * plane * 3);
    for (uint32_t r = 0; r < 256; ++r) {
        const LatticeStep s = StepOf(r, n);
        for (size_t gb = 0; gb < plane; ++gb) {
            const uint8_t* a = lut->bytes.data() + (gb * n + s.lo) * 3;
            const uint8_t* b = lut->bytes.data() + (gb * n + s.hi) * 3;
            for (int c = 0; c < 3; ++c) red[(r * plane + gb) * 3 + c] = static_cast<uint8_t>(Lerp8(a[c], b[c], s.f));
        }
    }
    // Then along green for each green byte, at every blue lattice index.
    lut->redGreenSteps.assign(256 * 256 * static_cast<size_t>(n) + 1, 0);
    uint32_t* out = lut->redGreenSteps.data();
    for (uint32_t r = 0; r < 256; ++r) {
        const uint8_t* redPlane = red.data() + r * plane * 3;
        for (uint32_t g = 0; g < 256; ++g) {
            const LatticeStep s = StepOf(g, n);
            for (uint32_t b = 0; b < n; ++b, ++out) {
                const uint8_t* lo = redPlane + (s.lo + n * b) * 3;
                const uint8_t* hi = redPlane + (s.hi + n * b) * 3;
                uint32_t packed = 0;
                for (int c = 0; c < 3; ++c) packed |= static_cast<uint32_t>(Lerp8(lo[c], hi[c], s.f)) << (8 * c);
                *out = packed;
            }
        }
    }
}

void BuildPaddedValues(Kiv3DLutData* lut) {
    const size_t entries = lut->values.size() / 3;
    lut->paddedValues.assign(entries * 4, 0.0f);
    for (size_t i = 0; i < entries; ++i) std::memcpy(&lut->paddedValues[i * 4], &lut->values[i * 3], 3 * sizeof(float));
}

namespace {

// Far above the largest table (128 points a side is about 60 MB of text).
constexpr size_t kMaxCubeFileBytes = size_t{256} << 20;

bool ReadStream(std::FILE* f, std::vector<char>* out) {
    long size = -1;
    if (std::fseek(f, 0, SEEK_END) == 0) size = std::ftell(f);
    if (size < 0 || static_cast<unsigned long>(size) > kMaxCubeFileBytes) return false;
    std::fseek(f, 0, SEEK_SET);
    // The size is only a hint: a folder or a device reports one it cannot
    // deliver, so the bytes are read to the end and a read error fails.
    out->clear();
    out->reserve(static_cast<size_t>(size) + 1);
    char chunk[16384];
    for (;;) {
        const size_t got = std::fread(chunk, 1, sizeof chunk, f);
        if (out->size() + got > kMaxCubeFileBytes) return false;
        out->insert(out->end(), chunk, chunk + got);
        if (got < sizeof chunk) break;
    }
    if (std::ferror(f)) return false;
    out->push_back('\0');
    return true;
}

}  // namespace

bool ReadWholeFile(const KivWChar* path, std::vector<char>* out) {
    if (!path || path[0] == 0 || !out) return false;
    std::FILE* f = OpenWideFile(path, "rb");
    if (!f) return false;
    bool ok = false;
    try {
        ok = ReadStream(f, out);
    } catch (const std::bad_alloc&) {
        ok = false;
    }
    std::fclose(f);
    return ok;
}

bool ParseCubeForColorEngine(const char* text, Kiv3DLutData* out) {
    if (!text || !out) return false;
    GatheredCube cube;
    if (!Gather(text, false, &cube)) return false;
    const int64_t n = ResolveDim(cube);
    if (n == 0) return false;
    for (int c = 0; c < 3; ++c) {
        if (cube.domainMax[c] == cube.domainMin[c]) return false;
    }
    const size_t count = static_cast<size_t>(n * n * n * 3);
    out->dim = static_cast<int32_t>(n);
    std::memcpy(out->domainMin, cube.domainMin, sizeof(out->domainMin));
    std::memcpy(out->domainMax, cube.domainMax, sizeof(out->domainMax));
    out->values.resize(count);
    out->bytes.resize(count);
    for (size_t i = 0; i < count; ++i) {
        const float v = Clamp01(cube.values[i]);
        out->values[i] = v;
        out->bytes[i] = static_cast<uint8_t>(v * 255.0f + 0.5f);
    }
    BuildRedGreenSteps(out);
    BuildPaddedValues(out);
    return true;
}

bool ParseCubeForRender(const char* text, KivRenderLutData* out) {
    if (!text || !out) return false;
    GatheredCube cube;
    if (!Gather(text, true, &cube)) return false;
    const int64_t n = ResolveDim(cube);
    if (n == 0) return false;
    for (int c = 0; c < 3; ++c) {
        if (cube.domainMax[c] <= cube.domainMin[c]) return false;
    }
    const size_t entries = static_cast<size_t>(n * n * n);
    out->dim = static_cast<int32_t>(n);
    std::memcpy(out->domainMin, cube.domainMin, sizeof(out->domainMin));
    std::memcpy(out->domainMax, cube.domainMax, sizeof(out->domainMax));
    out->texels.resize(entries * 4);
    for (size_t i = 0; i < entries; ++i) {
        for (int c = 0; c < 3; ++c) {
            out->texels[i * 4 + c] = static_cast<uint16_t>(Clamp01(cube.values[i * 3 + c]) * 65535.0f + 0.5f);
        }
        out->texels[i * 4 + 3] = 65535;
    }
    return true;
}

}  // namespace kiv
