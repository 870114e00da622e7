// A stand-in for the Direct3D pipeline: records the steps the port takes and
// fails the one a test names; the draw can be held to keep the lock busy.
#pragma once
#include <condition_variable>
#include <mutex>
#include <string>

#include "render/render_gpu.h"
#include "render/render_stages.h"

namespace rendertest {

class FakeGpu : public KivRenderGpu {
public:
    struct Shared {
        std::mutex mutex;
        std::string steps;           // "device,back,textures,upload,draw," ...
        std::string failStep;        // step that returns failCode
        int32_t failCode = KIV_ERROR_FAILED;
        bool windowAlive = true;
        bool holdDraw = false;       // DrawAndPresent waits while this is set
        bool drawing = false;
        std::condition_variable changed;
        int32_t lastInterpolation = -1;
    };
    explicit FakeGpu(Shared* shared) : s_(shared) {}
    bool WindowAlive() override;
    int32_t EnsureDevice() override { return Step("device"); }
    int32_t EnsureBackBuffer() override { return Step("back"); }
    int32_t EnsureFrameTextures(int32_t, int32_t, int32_t) override { return Step("textures"); }
    int32_t Upload(const KivVideoFrame&) override { return Step("upload"); }
    int32_t DrawAndPresent(const KivRenderDrawSettings& settings) override;
    void ReleaseFinalTexture() override { Step("releaseFinal"); }
    void ReleaseAll() override { Step("releaseAll"); }

private:
    int32_t Step(const char* name);
    Shared* s_;
};

// Stages that record the port's calls into the same step list.
class RecordingStages : public KivRenderStages {
public:
    explicit RecordingStages(FakeGpu::Shared* shared) : s_(shared) {}
    void ApplyPending(KivRenderGpu&) override { Add("apply"); }
    void TearDownForCpuPipeline(KivRenderGpu&) override { Add("teardown"); }
    int32_t WriteAudio(const KivAudioFrame&) override {
        Add("audio");
        return -7;
    }

private:
    void Add(const char* name);
    FakeGpu::Shared* s_;
};

}  // namespace rendertest
