#include "gpu_osd_items.h"

#include <algorithm>

namespace kiv {

OsdItem GpuOsdItemFromRecord(const KivVideoOsdItem& record, int32_t kind) {
    OsdItem item = OsdItemFromRecord(record, kind);
    item.opacity = record.opacity > 0.0f ? std::min(record.opacity, 1.0f) : 1.0f;
    return item;
}

void GpuOsdCommandQueue::Push(GpuOsdCommand command) {
    std::lock_guard<std::mutex> lock(mutex_);
    commands_.push_back(std::move(command));
}

void GpuOsdCommandQueue::TakeAll(std::vector<GpuOsdCommand>* out) {
    out->clear();
    std::lock_guard<std::mutex> lock(mutex_);
    out->swap(commands_);
}

void GpuOsdCommandQueue::Clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    commands_.clear();
}

bool ApplyGpuOsdCommands(const std::vector<GpuOsdCommand>& commands, std::vector<OsdItem>* items) {
    bool changed = false;
    for (const GpuOsdCommand& command : commands) {
        switch (command.kind) {
            case kGpuOsdAddText:
            case kGpuOsdAddImage:
            case kGpuOsdAddRect:
                // Ids are not checked for duplicates: two items may share one.
                items->push_back(command.item);
                changed = true;
                break;
            case kGpuOsdUpdateText:
                for (OsdItem& item : *items) {
                    if (item.id == command.id && item.kind == kOsdText) {
                        item.text = command.item.text;
                        changed = true;
                        break;
                    }
                }
                break;
            case kGpuOsdRemove: {
                const size_t before = items->size();
                items->erase(std::remove_if(items->begin(), items->end(),
                                            [&](const OsdItem& item) { return item.id == command.id; }),
                             items->end());
                changed = changed || items->size() != before;
                break;
            }
            case kGpuOsdClear:
                changed = changed || !items->empty();
                items->clear();
                break;
            default:
                break;
        }
    }
    if (changed) {
        std::stable_sort(items->begin(), items->end(),
                         [](const OsdItem& a, const OsdItem& b) { return a.layer < b.layer; });
    }
    return changed;
}

}  // namespace kiv
