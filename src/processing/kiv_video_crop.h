// Crop port: cuts a rectangle out of each frame into buffers of its own.
#pragma once
#include <cstdint>
#include <mutex>
#include <vector>

#include "ports/kiv_port_base.h"

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
    std::vector<uint8_t> plane0_;
    std::vector<uint8_t> plane1_;
};
