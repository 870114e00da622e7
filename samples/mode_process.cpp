// kivsample process [out-folder] [cube-file]
//
// Pushes a synthetic YUY2 test pattern through a chain of ports:
//   frame source -> crop -> colour engine (warm grade from example.cube) -> callback
//                                        -> overlay (caption, frame line, picture) -> callback
// and writes the first frame that leaves the crop, the first graded frame and
// the first overlaid frame as 32-bit BMP files, so the effect of each step can
// be looked at.
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "kivcapture.h"
#include "kivsample.h"

namespace {

constexpr int32_t kWidth = 1280;
constexpr int32_t kHeight = 720;

std::basic_string<KivWChar> ToWide(const std::string& utf8) {
    std::basic_string<KivWChar> out;
    for (size_t i = 0; i < utf8.size();) {
        const unsigned char c = static_cast<unsigned char>(utf8[i]);
        uint32_t cp = c;
        int extra = c >= 0xF0 ? 3 : c >= 0xE0 ? 2 : c >= 0xC0 ? 1 : 0;
        if (extra) cp = c & (0x3F >> extra);
        ++i;
        for (; extra > 0 && i < utf8.size(); --extra, ++i) cp = (cp << 6) | (static_cast<unsigned char>(utf8[i]) & 0x3F);
        if (cp >= 0x10000) {
            cp -= 0x10000;
            out.push_back(static_cast<KivWChar>(0xD800 + (cp >> 10)));
            out.push_back(static_cast<KivWChar>(0xDC00 + (cp & 0x3FF)));
        } else {
            out.push_back(static_cast<KivWChar>(cp));
        }
    }
    return out;
}

std::string FolderOf(const std::string& path) {
    const size_t cut = path.find_last_of("/\\");
    return cut == std::string::npos ? std::string() : path.substr(0, cut + 1);
}

bool FileExists(const std::string& path) {
    std::FILE* f = std::fopen(path.c_str(), "rb");
    if (!f) return false;
    std::fclose(f);
    return true;
}

// example.cube beside the executable, in the working folder or in the source
// tree's samples folder seen from a build folder.
std::string FindExampleCube(const char* argv0) {
    const std::string exeDir = FolderOf(argv0 ? argv0 : "");
    const char* candidates[] = {"example.cube", "samples/example.cube", "../samples/example.cube",
                                "../../samples/example.cube", "../../../samples/example.cube"};
    for (const char* c : candidates) {
        if (FileExists(exeDir + c)) return exeDir + c;
        if (FileExists(c)) return c;
    }
    return std::string();
}

// Colour bars over a grey ramp and a hue sweep, as YUY2 (BT.709, limited).
std::vector<uint8_t> MakePattern() {
    std::vector<uint8_t> yuy2(static_cast<size_t>(kWidth) * kHeight * 2);
    const float bars[8][3] = {{0.75f, 0.75f, 0.75f}, {0.75f, 0.75f, 0}, {0, 0.75f, 0.75f}, {0, 0.75f, 0},
                              {0.75f, 0, 0.75f},     {0.75f, 0, 0},     {0, 0, 0.75f},     {0.1f, 0.1f, 0.1f}};
    auto colourAt = [&](int x, int y, float rgb[3]) {
        if (y < kHeight / 2) {
            const float* bar = bars[x * 8 / kWidth];
            rgb[0] = bar[0], rgb[1] = bar[1], rgb[2] = bar[2];
        } else if (y < kHeight * 3 / 4) {
            rgb[0] = rgb[1] = rgb[2] = static_cast<float>(x) / (kWidth - 1);
        } else {
            const float h = 6.0f * static_cast<float>(x) / kWidth;
            for (int c = 0; c < 3; ++c) {
                const float d = std::fabs(std::fmod(h + 4.0f * static_cast<float>(2 - c) / 2.0f * 1.0f, 6.0f) - 3.0f);
                rgb[c] = std::fmin(1.0f, std::fmax(0.0f, d - 1.0f)) * 0.9f + 0.05f;
            }
        }
    };
    for (int y = 0; y < kHeight; ++y) {
        for (int x = 0; x < kWidth; x += 2) {
            float yv[2], cb = 0, cr = 0;
            for (int k = 0; k < 2; ++k) {
                float rgb[3];
                colourAt(x + k, y, rgb);
                const float luma = 0.2126f * rgb[0] + 0.7152f * rgb[1] + 0.0722f * rgb[2];
                yv[k] = luma;
                cb += (rgb[2] - luma) / 1.8556f / 2.0f;
                cr += (rgb[0] - luma) / 1.5748f / 2.0f;
            }
            uint8_t* group = yuy2.data() + (static_cast<size_t>(y) * kWidth + x) * 2;
            group[0] = static_cast<uint8_t>(16.0f + 219.0f * yv[0] + 0.5f);
            group[1] = static_cast<uint8_t>(128.0f + 224.0f * cb + 0.5f);
            group[2] = static_cast<uint8_t>(16.0f + 219.0f * yv[1] + 0.5f);
            group[3] = static_cast<uint8_t>(128.0f + 224.0f * cr + 0.5f);
        }
    }
    return yuy2;
}

void PutLe(std::vector<uint8_t>& out, uint32_t value, int bytes) {
    for (int i = 0; i < bytes; ++i) out.push_back(static_cast<uint8_t>(value >> (8 * i)));
}

// A 32-bit BI_RGB bitmap, rows bottom-up as the format wants them.
bool WriteBmp32(const std::string& path, const uint8_t* bgra, int32_t stride, int32_t width, int32_t height) {
    const uint32_t imageBytes = static_cast<uint32_t>(width) * 4u * static_cast<uint32_t>(height);
    std::vector<uint8_t> file;
    file.push_back('B');
    file.push_back('M');
    PutLe(file, 54 + imageBytes, 4);
    PutLe(file, 0, 4);
    PutLe(file, 54, 4);
    PutLe(file, 40, 4);  // BITMAPINFOHEADER
    PutLe(file, static_cast<uint32_t>(width), 4);
    PutLe(file, static_cast<uint32_t>(height), 4);  // positive: bottom-up
    PutLe(file, 1, 2);
    PutLe(file, 32, 2);
    PutLe(file, 0, 4);  // BI_RGB
    PutLe(file, imageBytes, 4);
    PutLe(file, 2835, 4);
    PutLe(file, 2835, 4);
    PutLe(file, 0, 4);
    PutLe(file, 0, 4);
    for (int32_t y = height - 1; y >= 0; --y) {
        const uint8_t* row = bgra + static_cast<ptrdiff_t>(stride) * y;
        file.insert(file.end(), row, row + static_cast<size_t>(width) * 4);
    }
    std::FILE* f = std::fopen(path.c_str(), "wb");
    if (!f) return false;
    const bool ok = std::fwrite(file.data(), 1, file.size(), f) == file.size();
    return std::fclose(f) == 0 && ok;
}

// Saves the first RGB32 frame a port hands to its callback.
struct FirstFrameWriter {
    std::string path;
    bool written = false;

    static void KIV_CALL OnFrame(const KivVideoFrame* frame, void* user) {
        FirstFrameWriter* self = static_cast<FirstFrameWriter*>(user);
        if (self->written || frame->format != KIV_PIXEL_FORMAT_RGB32) return;
        self->written = WriteBmp32(self->path, frame->planes[0], frame->strides[0], frame->width, frame->height);
        std::printf("%s %s (%dx%d)\n", self->written ? "wrote" : "could not write", self->path.c_str(), frame->width,
                    frame->height);
    }
};

template <size_t N>
void CopyWide(KivWChar (&field)[N], const std::basic_string<KivWChar>& text) {
    const size_t n = text.size() < N - 1 ? text.size() : N - 1;
    for (size_t i = 0; i < n; ++i) field[i] = text[i];
    field[n] = 0;
}

// A caption, a frame line and a small picture (written here as a BMP; text and
// pictures are drawn where the platform has a rasteriser, i.e. on Windows).
void AddOverlayItems(void* osd, const std::string& outDir) {
    KivVideoOsdItem caption{};
    caption.id = 1;
    caption.visible = 1;
    caption.x = 24;
    caption.y = 24;
    caption.opacity = 1.0f;
    caption.size = 40;
    CopyWide(caption.text, ToWide("kivcapture process sample"));
    // A family Wine finds through fontconfig; where it is missing the overlay
    // falls back to its default font.
    CopyWide(caption.fontName, ToWide("DejaVu Sans"));
    KIV_SetVideoOsdText(osd, &caption);

    KivVideoOsdItem line{};
    line.visible = 1;
    line.x = 8;
    line.y = 8;
    line.width = 1024 - 17;
    line.height = 576 - 17;
    line.opacity = 0.8f;
    line.color = 0xFFFFC000u;
    line.size = 4;
    KIV_AddVideoOsdRect(osd, &line);

    std::vector<uint8_t> logo(64 * 64 * 4);
    for (int y = 0; y < 64; ++y) {
        for (int x = 0; x < 64; ++x) {
            uint8_t* p = &logo[(y * 64 + x) * 4];
            const bool light = ((x / 16) + (y / 16)) % 2 == 0;
            p[0] = light ? 240 : 40, p[1] = light ? 200 : 40, p[2] = light ? 40 : 200, p[3] = 255;
        }
    }
    const std::string logoPath = outDir + "process_logo.bmp";
    if (WriteBmp32(logoPath, logo.data(), 64 * 4, 64, 64)) {
        KivVideoOsdItem picture{};
        picture.visible = 1;
        picture.x = 1024 - 64 - 24;
        picture.y = 24;
        picture.opacity = 0.9f;
        CopyWide(picture.imagePath, ToWide(logoPath));
        KIV_SetVideoOsdImage(osd, &picture);
    }
}

}  // namespace

int RunProcessMode(int argc, char** argv) {
    std::string outDir = argc > 2 ? argv[2] : ".";
    if (!outDir.empty() && outDir.back() != '/' && outDir.back() != '\\') outDir += '/';
    const std::string cubePath = argc > 3 ? argv[3] : FindExampleCube(argv[0]);

    KIV_EnableLog(1);
    if (KIV_Init() != KIV_OK) {
        std::printf("KIV_Init failed\n");
        return 1;
    }
    void* source = KIV_CreateVideoFrameSource();
    void* crop = KIV_CreateVideoCrop();
    void* color = KIV_CreateVideoColorEngine();

    // The chain, in the order frames pass through it. A further processing
    // port goes into this list where it should sit.
    std::vector<void*> chain = {source, crop, color};
    int result = 0;
    for (size_t i = 0; i + 1 < chain.size(); ++i) {
        if (KIV_Connect(chain[i], chain[i + 1]) != KIV_OK) {
            std::printf("could not connect step %zu\n", i);
            result = 1;
        }
    }

    // Crop a centred 1024x576 window and show it as RGB32 before grading.
    const KivVideoCropRect rect{128, 72, 1024, 576};
    KIV_SetVideoCropRect(crop, &rect);
    KIV_EnableVideoCrop(crop, 1);

    // The engine converts to RGB32 and applies the warm grade at 80 %.
    const KivVideoColorEngineConfig config{0, 1, KIV_PIXEL_FORMAT_RGB32, KIV_COLOR_SPACE_BT709,
                                           KIV_COLOR_RANGE_LIMITED, 0.8f};
    KIV_SetVideoColorEngineConfig(color, &config);
    if (cubePath.empty() || KIV_LoadVideoColorEngineCubeFile(color, ToWide(cubePath).c_str()) != KIV_OK) {
        std::printf("could not load the cube file '%s'; the frame is converted without grading\n", cubePath.c_str());
    } else {
        std::printf("grading with %s\n", cubePath.c_str());
    }

    // A second engine on the crop's output only converts, for comparison.
    void* plain = KIV_CreateVideoColorEngine();
    const KivVideoColorEngineConfig convertOnly{0, 0, KIV_PIXEL_FORMAT_RGB32, KIV_COLOR_SPACE_BT709,
                                                KIV_COLOR_RANGE_LIMITED, 1.0f};
    KIV_SetVideoColorEngineConfig(plain, &convertOnly);
    KIV_Connect(crop, plain);

    FirstFrameWriter graded{outDir + "process_graded.bmp"};
    FirstFrameWriter ungraded{outDir + "process_cropped.bmp"};
    KIV_SetVideoFrameCallback(chain.back(), &FirstFrameWriter::OnFrame, &graded);
    KIV_SetVideoFrameCallback(plain, &FirstFrameWriter::OnFrame, &ungraded);

    // The overlay draws onto the graded frames; its overlay output (1) feeds a
    // mux whose callback saves them, while its own callback would see them plain.
    void* osd = KIV_CreateVideoOsd();
    void* overlaid = KIV_CreateVideoMux();
    KIV_Connect(color, osd);
    KIV_ConnectVideoOsdOutput(osd, 1, overlaid);
    AddOverlayItems(osd, outDir);
    FirstFrameWriter withOverlay{outDir + "process_overlay.bmp"};
    KIV_SetVideoFrameCallback(overlaid, &FirstFrameWriter::OnFrame, &withOverlay);

    std::vector<uint8_t> pattern = MakePattern();
    KivVideoFrame frame{};
    frame.planes[0] = pattern.data();
    frame.strides[0] = kWidth * 2;
    frame.width = kWidth;
    frame.height = kHeight;
    frame.format = KIV_PIXEL_FORMAT_YUY2;
    for (int i = 0; i < 3; ++i) {
        if (KIV_PushVideoFrame(source, &frame) != KIV_OK) result = 1;
    }
    if (!graded.written || !ungraded.written || !withOverlay.written) result = 1;

    KIV_Disconnect(osd, overlaid);
    KIV_Disconnect(color, osd);
    KIV_DestroyPort(overlaid);
    KIV_DestroyPort(osd);
    KIV_Disconnect(crop, plain);
    for (size_t i = chain.size() - 1; i > 0; --i) KIV_Disconnect(chain[i - 1], chain[i]);
    KIV_DestroyPort(plain);
    for (void* port : chain) KIV_DestroyPort(port);
    KIV_Shutdown();
    return result;
}
