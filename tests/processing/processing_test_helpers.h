// Shared pieces of the crop and colour engine tests.
#pragma once
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "kiv_state.h"
#include "kivcapture.h"
#include "ports/kiv_port_base.h"
#include "test_support.h"

namespace proctest {

// A frame received by a callback, with its planes copied row by row.
struct CaughtFrame {
    KivVideoFrame meta{};
    const uint8_t* originalPlane0 = nullptr;
    std::vector<uint8_t> plane0;  // height rows of strides[0] bytes
    std::vector<uint8_t> plane1;  // NV12 chroma: (height + 1) / 2 rows of strides[1] bytes
};

class FrameCatcher {
public:
    explicit FrameCatcher(KivPortBase* port) {
        port->SetVideoFrameCallback(&FrameCatcher::OnFrame, this);
    }
    std::vector<CaughtFrame> frames;

private:
    static void KIV_CALL OnFrame(const KivVideoFrame* f, void* user) {
        CaughtFrame c;
        c.meta = *f;
        c.originalPlane0 = f->planes[0];
        const bool packed = f->format >= KIV_PIXEL_FORMAT_YUY2 && f->format <= KIV_PIXEL_FORMAT_RGB32;
        if (packed && f->planes[0] && f->strides[0] > 0) {
            c.plane0.assign(f->planes[0], f->planes[0] + static_cast<size_t>(f->strides[0]) * static_cast<size_t>(f->height));
        }
        if (f->format == KIV_PIXEL_FORMAT_NV12 && f->planes[1] && f->strides[1] > 0) {
            c.plane1.assign(f->planes[1],
                            f->planes[1] + static_cast<size_t>(f->strides[1]) * static_cast<size_t>((f->height + 1) / 2));
        }
        static_cast<FrameCatcher*>(user)->frames.push_back(std::move(c));
    }
};

inline void WriteTextFile(const std::string& utf8Path, const std::string& text) {
    std::ofstream out(std::filesystem::u8path(utf8Path), std::ios::binary);
    out << text;
}

// The log's text so far (the log must have been enabled by the test).
inline std::string LogText() { return kivtest::ReadFile(kiv::LogFilePath()); }

inline size_t CountOccurrences(const std::string& text, const std::string& what) {
    size_t count = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++count;
    return count;
}

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
