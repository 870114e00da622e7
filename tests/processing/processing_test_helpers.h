// The cube writer of the colour engine tests (the GPU render tests use it too).
#pragma once
#include <cstdio>
#include <string>

#include "processing/kiv_cube_lut.h"
#include "ports/kiv_port_base.h"
#include "test_support.h"

namespace proctest {

// A cube file of edge n whose entry for lattice point (r, g, b) is fn(r / (n - 1), ...).
template <class Fn>
std::string CubeText(int n, Fn fn) {
    std::string text = "TITLE \"test\"\nLUT_3D_SIZE " + std::to_string(n) + "\n";
    char line[128];
    for (int b = 0; b < n; ++b)
        for (int g = 0; g < n; ++g)
            for (int r = 0; r < n; ++r) {
                float o[3];
                fn(r / float(n - 1), g / float(n - 1), b / float(n - 1), o);
                std::snprintf(line, sizeof line, "%.6f %.6f %.6f\n", o[0], o[1], o[2]);
                text += line;
            }
    return text;
}

}  // namespace proctest
