// The GPU overlay's requests and item list. Application threads only queue
// commands; the render side applies them in order and keeps the items.
#pragma once
#include <cstdint>
#include <mutex>
#include <vector>

#include "kivcapture.h"
#include "processing/osd_item.h"

namespace kiv {

enum GpuOsdCommandKind : int32_t {
    kGpuOsdAddText = 1,
    kGpuOsdAddImage = 2,
    kGpuOsdAddRect = 3,
    kGpuOsdUpdateText = 4,
    kGpuOsdRemove = 5,
    kGpuOsdClear = 6,
};

struct GpuOsdCommand {
    int32_t kind = 0;
    int32_t id = 0;
    OsdItem item;  // adds: the whole item; update: only its text is used
};

// The record as the GPU overlay reads it: like the CPU overlay's item, except
// that an opacity of 0 or less (or not a number) means fully opaque.
OsdItem GpuOsdItemFromRecord(const KivVideoOsdItem& record, int32_t kind);

class GpuOsdCommandQueue {
public:
    void Push(GpuOsdCommand command);
    // Empties the queue into *out (swapped, so both buffers are reused).
    void TakeAll(std::vector<GpuOsdCommand>* out);
    void Clear();

private:
    std::mutex mutex_;
    std::vector<GpuOsdCommand> commands_;
};

// Applies commands in order; true when the list changed, and then the list is
// sorted by ascending layer.
bool ApplyGpuOsdCommands(const std::vector<GpuOsdCommand>& commands, std::vector<OsdItem>* items);

}  // namespace kiv
