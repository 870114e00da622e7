// Colour engine port: applies a 3D lookup table with a strength and converts
// between the uncompressed pixel formats on the way.
#pragma once
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "kiv_cube_lut.h"
#include "ports/kiv_port_base.h"
#include "ports/kiv_work_pool.h"

class KivVideoColorEngine : public KivPortBase {
public:
    KivVideoColorEngine();
    ~KivVideoColorEngine() override;

    int32_t OnVideoFrame(const KivVideoFrame* frame) override;

    int32_t SetConfig(const KivVideoColorEngineConfig* config);
    int32_t GetConfig(KivVideoColorEngineConfig* out);
    int32_t LoadCubeFile(const KivWChar* path);
    int32_t ClearLut();

private:
    std::mutex settingsMutex_;
    KivVideoColorEngineConfig config_{0, 0, 0, 0, 0, 1.0f};
    // Immutable once loaded; a frame in flight keeps its own reference, so
    // swapping it never waits for the frame.
    std::shared_ptr<const Kiv3DLutData> lut_;
    struct Buffers {
        std::vector<uint8_t> plane0;
        std::vector<uint8_t> plane1;   // NV12 chroma
        std::vector<uint8_t> scratch;  // row buffers of the conversion
    };
    // Each delivery converts into buffers of its own, so upstream ports on
    // several threads may feed the engine at once.
    KivWorkPool<Buffers> buffers_;
};
