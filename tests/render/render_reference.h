// Shared by the render tests: frames of a known pattern, two independent
// references (the CPU conversion rules pixel by pixel, and the window's
// picture by the pixel shader's sampling and floating-point colour rules),
// and a stand-in for the Direct3D steps.
#pragma once
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "kivcapture.h"
#include "render/render_gpu.h"
#include "render/render_stages.h"

namespace rendertest {

// A pattern that changes from pixel to pixel, so a sample taken from the
// wrong place shows; YUV luma stays inside the limited range's span.
struct PatternFrame {
    std::vector<uint8_t> bytes;
    KivVideoFrame frame{};
    PatternFrame(int32_t format, int32_t width, int32_t height, bool nv12ChromaPointer = true);
};

struct Bgr {
    int b, g, r;
};
// BGR of source pixel (x, y) by the integer BT.601 limited-range rules,
// written out with floating floor division instead of shifts.
Bgr ReferencePixel(const KivVideoFrame& frame, int x, int y);
// The converted frame's planes: tight rows (YUY2 rows of whole pairs, NV12 chroma rows of whole pairs).
struct ReferencePlanes {
    std::vector<uint8_t> plane0, plane1;
    int stride0 = 0, stride1 = 0;
};
ReferencePlanes ReferenceConvert(const KivVideoFrame& frame, int width, int height, int format);

struct ColourCase {
    int32_t colorSpace;  // 1 BT.601, 2 BT.709, 3 BT.2020
    int32_t colorRange;  // 1 full, 2 limited
};
// Expected BGR (tight rows of 3 bytes) of a window showing the frame with
// nearest sampling at pixel centres, nudged by `nudge` texture units: where a
// centre falls on a texel edge the rasteriser may land on either side.
std::vector<uint8_t> ExpectedWindow(const KivVideoFrame& frame, int windowWidth, int windowHeight,
                                    const ColourCase& colour, double nudge = 0.0);

// Records the Direct3D steps the port takes ("device,back,...,draw,") and
// fails the one a test names; the draw can be held to keep the lock busy.
class FakeGpu : public KivRenderGpu {
public:
    struct Shared {
        std::mutex mutex;
        std::string steps, failStep;
        int32_t failCode = KIV_ERROR_FAILED;
        bool windowAlive = true, holdDraw = false, drawing = false;
        std::condition_variable changed;
        int32_t lastInterpolation = -1;
        int32_t Step(const char* name) {
            std::lock_guard<std::mutex> lock(mutex);
            steps = steps + name + ",";
            return failStep == name ? failCode : KIV_OK;
        }
    };
    explicit FakeGpu(Shared* shared) : s_(shared) {}
    bool WindowAlive() override {
        std::lock_guard<std::mutex> lock(s_->mutex);
        return s_->windowAlive;
    }
    int32_t EnsureDevice() override { return s_->Step("device"); }
    int32_t EnsureBackBuffer() override { return s_->Step("back"); }
    int32_t EnsureFrameTextures(int32_t, int32_t, int32_t) override { return s_->Step("textures"); }
    int32_t Upload(const KivVideoFrame&) override { return s_->Step("upload"); }
    int32_t DrawAndPresent(const KivRenderDrawSettings& settings) override {
        {
            std::unique_lock<std::mutex> lock(s_->mutex);
            s_->lastInterpolation = settings.interpolation;
            s_->drawing = true;
            s_->changed.notify_all();
            s_->changed.wait(lock, [&] { return !s_->holdDraw; });
            s_->drawing = false;
        }
        return s_->Step("draw");
    }
    void ReleaseFinalTexture() override { s_->Step("releaseFinal"); }
    void ReleaseAll() override { s_->Step("releaseAll"); }

private:
    Shared* s_;
};

// Stages that record the port's calls into the same step list.
class RecordingStages : public KivRenderStages {
public:
    explicit RecordingStages(FakeGpu::Shared* shared) : s_(shared) {}
    void ApplyPending(KivRenderGpu&) override { s_->Step("apply"); }
    void TearDownForCpuPipeline(KivRenderGpu&) override { s_->Step("teardown"); }
    int32_t WriteAudio(const KivAudioFrame&) override {
        s_->Step("audio");
        return -7;
    }

private:
    FakeGpu::Shared* s_;
};

}  // namespace rendertest
