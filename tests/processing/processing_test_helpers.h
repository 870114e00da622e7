// Shared pieces of the crop and colour engine tests.
#pragma once
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "kivcapture.h"
#include "ports/kiv_port_base.h"
#include "test_support.h"

namespace proctest {

using kivtest::CaughtFrame;
using kivtest::FrameCatcher;

// A cube file body of edge n whose entry for lattice point (r, g, b) is
// fn(r / (n - 1), g / (n - 1), b / (n - 1)).
template <class Fn>
std::string CubeText(int n, Fn fn, bool withSize = true) {
    std::string text = "TITLE \"test\"\n";
    if (withSize) text += "LUT_3D_SIZE " + std::to_string(n) + "\n";
    char line[128];
    for (int b = 0; b < n; ++b) {
        for (int g = 0; g < n; ++g) {
            for (int r = 0; r < n; ++r) {
                float out[3];
                fn(r / float(n - 1), g / float(n - 1), b / float(n - 1), out);
                std::snprintf(line, sizeof line, "%.6f %.6f %.6f\n", out[0], out[1], out[2]);
                text += line;
            }
        }
    }
    return text;
}

}  // namespace proctest
