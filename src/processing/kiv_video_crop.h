// Crop port: cuts a rectangle out of each frame into buffers of its own.
#pragma once
#include <cstdint>
#include <mutex>
#include <vector>

#include "ports/kiv_port_base.h"
#include "ports/kiv_work_pool.h"

class KivVideoCrop : public KivPortBase {
public:
    KivVideoCrop();
    ~KivVideoCrop() override;

    int32_t OnVideoFrame(const KivVideoFrame* frame) override;

    void SetRect(const KivVideoCropRect& rect);
    void Enable(int32_t enable);

private:
    std::mutex settingsMutex_;
    KivVideoCropRect rect_{0, 0, 0, 0};
    uint8_t enabled_ = 0;
    struct Buffers {
        std::vector<uint8_t> plane0;
        std::vector<uint8_t> plane1;  // NV12 chroma
    };
    // Each delivery copies into buffers of its own, so upstream ports on
    // several threads may feed the crop at once.
    KivWorkPool<Buffers> buffers_;
};
