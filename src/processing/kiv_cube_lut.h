// Cube 3D lookup-table files: reading them whole and turning their text into
// the tables the colour engine and the render port use.
#pragma once
#include <cstdint>
#include <vector>

#include "kivcapture.h"

// The colour engine's table. Entry r + N * (g + N * b) holds the output for
// lattice point (r, g, b); values are clamped to [0, 1].
struct Kiv3DLutData {
    int32_t dim = 0;
    float domainMin[3] = {0.0f, 0.0f, 0.0f};
    float domainMax[3] = {1.0f, 1.0f, 1.0f};
    std::vector<float> values;    // N^3 * 3, red, green, blue per entry
    std::vector<uint8_t> bytes;   // the same as value * 255 + 0.5, truncated
    // The first two steps of the 8-bit lookup done ahead for every input red
    // and green byte: element ((red * 256 + green) * N + b) holds red, green,
    // blue and a zero byte of the table interpolated along red and then green
    // at blue lattice index b; one spare element ends the array. Built from
    // `bytes` with the same rounding, so lookups through it give identical
    // results; only the blue step is left per pixel.
    std::vector<uint32_t> redGreenSteps;
    // `values` with a zero after each blue: N^3 * 4 floats, so the float
    // lookup reads a whole entry with one vector load.
    std::vector<float> paddedValues;
};

// The render port's table: 16-bit RGBA texels with an opaque alpha, ready to
// upload as a 3D texture.
struct KivRenderLutData {
    int32_t dim = 0;
    float domainMin[3] = {0.0f, 0.0f, 0.0f};
    float domainMax[3] = {1.0f, 1.0f, 1.0f};
    std::vector<uint16_t> texels;  // N^3 * 4
};

namespace kiv {

// Reads the whole file and appends a zero byte. False for a null or empty
// path, a file that cannot be opened, sized or read to its end (a folder),
// one over 256 MiB, or memory the process cannot have.
bool ReadWholeFile(const KivWChar* path, std::vector<char>* out);

// Both parsers take zero-terminated text and leave *out untouched on failure.
// The colour engine accepts an inverted domain; the render port needs every
// maximum above its minimum and also skips TITLE lines explicitly.
bool ParseCubeForColorEngine(const char* text, Kiv3DLutData* out);
bool ParseCubeForRender(const char* text, KivRenderLutData* out);

// Fill redGreenSteps from dim and bytes, and paddedValues from values (the
// parser does both itself).
void BuildRedGreenSteps(Kiv3DLutData* lut);
void BuildPaddedValues(Kiv3DLutData* lut);

}  // namespace kiv
