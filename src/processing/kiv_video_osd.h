// The CPU overlay port: keeps a list of text, picture and rectangle items and
// draws them onto every frame it hands to its overlay outputs. Its ordinary
// outputs (the base downstream list) receive the frames untouched.
#pragma once
#include <atomic>
#include <memory>
#include <mutex>
#include <vector>

#include "osd_canvas.h"
#include "osd_item.h"
#include "osd_rasterizer.h"
#include "ports/kiv_port_base.h"
#include "ports/kiv_work_pool.h"

class KivVideoOsd : public KivPortBase {
public:
    // Uses the platform rasteriser (none on Linux: text and pictures are skipped).
    KivVideoOsd();
    // Draws text and pictures through `rasterizer`, which may be null.
    explicit KivVideoOsd(std::unique_ptr<kiv::OsdRasterizer> rasterizer);
    ~KivVideoOsd() override;

    int32_t OnVideoFrame(const KivVideoFrame* frame) override;

    // Set replaces every item of the kind (text or picture); Add appends.
    KivResult SetItem(const KivVideoOsdItem* record, int32_t kind);
    KivResult AddItem(const KivVideoOsdItem* record, int32_t kind);
    KivResult UpdateText(int32_t id, const KivWChar* text);
    KivResult RemoveItem(int32_t id);
    KivResult Clear();

    // The overlay outputs receive the composited frames.
    KivResult AddOverlayOutput(KivPortBase* dst);
    void RemoveOverlayOutput(KivPortBase* dst);
    // Frames inside OnVideoFrame right now; KIV_Disconnect waits on it.
    int32_t FramesInProgress() const { return framesInProgress_.load(std::memory_order_acquire); }

    // A copy of the item list in list order.
    std::vector<kiv::OsdItem> Items();

private:
    // Commands never edit a list a frame may be reading: they build a new one
    // and swap the pointer, so the frame path takes its snapshot by copying
    // two shared pointers.
    struct ItemList {
        ItemList() = default;
        ItemList(const ItemList&) = delete;  // drawOrder points into items
        ItemList& operator=(const ItemList&) = delete;
        std::vector<kiv::OsdItem> items;
        std::vector<const kiv::OsdItem*> drawOrder;  // visible items, stable by layer
    };
    using ItemListPtr = std::shared_ptr<const ItemList>;
    using OutputListPtr = std::shared_ptr<const std::vector<KivPortBase*>>;

    kiv::OsdItem Convert(const KivVideoOsdItem& record, int32_t kind);
    void Publish(std::vector<kiv::OsdItem> items);  // caller holds settingsMutex_
    void SendToOverlayOutputs(const std::vector<KivPortBase*>& outputs, const KivVideoFrame* frame);

    std::mutex settingsMutex_;  // guards items_ and outputs_
    ItemListPtr items_;
    OutputListPtr outputs_;
    std::atomic<int32_t> nextId_{1};
    std::atomic<int32_t> framesInProgress_{0};

    // Each delivery draws on a canvas of its own, so upstream ports on
    // several threads may feed the overlay at once.
    KivWorkPool<kiv::OsdCanvas> canvases_;
    std::unique_ptr<kiv::OsdRasterizer> rasterizer_;
};
