// The render port's GPU lookup table on the request side: what the
// application asked for (behind the LUT lock) and what the render side has
// made active (touched only under the render lock). No Direct3D here: the
// render side builds its 3D texture from the active table after ApplyPending
// says the old one is stale.
#pragma once
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "processing/kiv_cube_lut.h"
#include "kivcapture.h"

namespace kiv {

using LutPath = std::basic_string<KivWChar>;

class GpuLutState {
public:
    GpuLutState();

    // Application side, any thread. Strength must lie in 0..1 (else -2);
    // processor 3 stays 3 and anything else becomes 1.
    int32_t QueueConfig(const KivVideoRenderLutConfig& config);
    void QueueClear();
    // Reads and parses the file and queues it. The render lock is only
    // try-locked, after the LUT lock has been released, to look for the same
    // path already active. 0 on success or reuse, -2 for a null or empty
    // path, -1 for a file that cannot be read or parsed.
    int32_t LoadCubeFile(const KivWChar* path, std::recursive_mutex& renderLock);
    // The switch to the CPU pipeline: drops a pending cube, asks for a clear
    // and queues the idle configuration (processor 1, disabled, strength 1).
    void ResetToIdle();

    // Render side, render lock held. Returns true when the LUT texture made
    // from the previous active table must be released (a clear or a new cube,
    // even one of the same size).
    bool ApplyPending();

    const KivVideoRenderLutConfig& ActiveConfig() const { return active_; }
    const std::shared_ptr<const KivRenderLutData>& ActiveData() const { return activeData_; }
    // Enabled with a usable table: the shader stage runs.
    bool Usable() const;

private:
    std::mutex lutMutex_;
    KivVideoRenderLutConfig pendingConfig_{};
    bool configPending_ = false;
    std::shared_ptr<const KivRenderLutData> pendingData_;
    LutPath pendingPath_;
    bool cubePending_ = false;
    bool clearPending_ = false;

    // Render side.
    KivVideoRenderLutConfig active_{};
    std::shared_ptr<const KivRenderLutData> activeData_;
    LutPath activePath_;
};

}  // namespace kiv
