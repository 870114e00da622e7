#include "kiv_video_osd.h"

#include <algorithm>
#include <chrono>
#include <thread>

#include "kiv_log.h"
#include "osd_draw.h"

using kiv::OsdItem;

namespace {

// Raised for as long as a frame is inside the port, on every way out.
class InProgress {
public:
    explicit InProgress(std::atomic<int32_t>& count) : count_(count) { count_.fetch_add(1, std::memory_order_acq_rel); }
    ~InProgress() { count_.fetch_sub(1, std::memory_order_acq_rel); }
    InProgress(const InProgress&) = delete;
    InProgress& operator=(const InProgress&) = delete;

private:
    std::atomic<int32_t>& count_;
};

std::unique_ptr<kiv::OsdRasterizer> PlatformRasterizer() {
    uint32_t status = 0;
    std::unique_ptr<kiv::OsdRasterizer> rasterizer = kiv::CreatePlatformOsdRasterizer(&status);
    if (status != 0) KIV_LOG("GdiplusStartup failed hr=0x%08X", status);
    return rasterizer;
}

}  // namespace

KivVideoOsd::KivVideoOsd() : KivVideoOsd(PlatformRasterizer()) {}

KivVideoOsd::KivVideoOsd(std::unique_ptr<kiv::OsdRasterizer> rasterizer)
    : KivPortBase(KIV_PORT_VIDEO_OSD),
      items_(std::make_shared<const ItemList>()),
      outputs_(std::make_shared<const std::vector<KivPortBase*>>()),
      rasterizer_(std::move(rasterizer)) {}

KivVideoOsd::~KivVideoOsd() {
    {
        std::lock_guard<std::mutex> lock(settingsMutex_);
        items_ = std::make_shared<const ItemList>();
        outputs_ = std::make_shared<const std::vector<KivPortBase*>>();
    }
    // A frame still inside the port (its upstream was disconnected a moment
    // ago) finishes on its own snapshots; give it time before the canvas goes.
    for (int i = 0; i < 200 && FramesInProgress() > 0; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    rasterizer_.reset();  // the last live port shuts GDI+ down here
}

OsdItem KivVideoOsd::Convert(const KivVideoOsdItem& record, int32_t kind) {
    OsdItem item = kiv::OsdItemFromRecord(record, kind);
    if (item.id <= 0) item.id = nextId_.fetch_add(1, std::memory_order_relaxed);
    return item;
}

void KivVideoOsd::Publish(std::vector<OsdItem> items) {
    auto list = std::make_shared<ItemList>();
    list->items = std::move(items);
    for (const OsdItem& item : list->items) {
        if (item.visible) list->drawOrder.push_back(&item);
    }
    std::stable_sort(list->drawOrder.begin(), list->drawOrder.end(),
                     [](const OsdItem* a, const OsdItem* b) { return a->layer < b->layer; });
    items_ = std::move(list);
}

KivResult KivVideoOsd::SetItem(const KivVideoOsdItem* record, int32_t kind) {
    if (!record) return KIV_ERROR_INVALID_ARG;
    OsdItem item = Convert(*record, kind);
    std::lock_guard<std::mutex> lock(settingsMutex_);
    std::vector<OsdItem> items;
    items.reserve(items_->items.size() + 1);
    for (const OsdItem& existing : items_->items) {
        if (existing.kind != kind) items.push_back(existing);
    }
    items.push_back(std::move(item));
    Publish(std::move(items));
    return KIV_OK;
}

KivResult KivVideoOsd::AddItem(const KivVideoOsdItem* record, int32_t kind) {
    if (!record) return KIV_ERROR_INVALID_ARG;
    OsdItem item = Convert(*record, kind);
    std::lock_guard<std::mutex> lock(settingsMutex_);
    std::vector<OsdItem> items = items_->items;
    items.push_back(std::move(item));
    Publish(std::move(items));
    return KIV_OK;
}

KivResult KivVideoOsd::UpdateText(int32_t id, const KivWChar* text) {
    if (id < 1 || !text) return KIV_ERROR_INVALID_ARG;
    const kiv::OsdString newText(text);
    std::lock_guard<std::mutex> lock(settingsMutex_);
    const std::vector<OsdItem>& current = items_->items;
    auto it = std::find_if(current.begin(), current.end(),
                           [id](const OsdItem& item) { return item.id == id && item.kind == kiv::kOsdText; });
    if (it == current.end()) return KIV_ERROR_INVALID_ARG;
    std::vector<OsdItem> items = current;
    items[static_cast<size_t>(it - current.begin())].text = newText;
    Publish(std::move(items));
    return KIV_OK;
}

KivResult KivVideoOsd::RemoveItem(int32_t id) {
    std::lock_guard<std::mutex> lock(settingsMutex_);
    std::vector<OsdItem> items;
    for (const OsdItem& item : items_->items) {
        if (item.id != id) items.push_back(item);
    }
    if (items.size() == items_->items.size()) return KIV_ERROR_INVALID_ARG;
    Publish(std::move(items));
    return KIV_OK;
}

KivResult KivVideoOsd::Clear() {
    std::lock_guard<std::mutex> lock(settingsMutex_);
    Publish({});
    return KIV_OK;
}

KivResult KivVideoOsd::AddOverlayOutput(KivPortBase* dst) {
    if (!dst) return KIV_ERROR_INVALID_ARG;
    std::lock_guard<std::mutex> lock(settingsMutex_);
    if (std::find(outputs_->begin(), outputs_->end(), dst) != outputs_->end()) return KIV_OK;
    auto outputs = std::make_shared<std::vector<KivPortBase*>>(*outputs_);
    outputs->push_back(dst);
    outputs_ = std::move(outputs);
    return KIV_OK;
}

void KivVideoOsd::RemoveOverlayOutput(KivPortBase* dst) {
    std::lock_guard<std::mutex> lock(settingsMutex_);
    if (std::find(outputs_->begin(), outputs_->end(), dst) == outputs_->end()) return;
    auto outputs = std::make_shared<std::vector<KivPortBase*>>(*outputs_);
    outputs->erase(std::remove(outputs->begin(), outputs->end(), dst), outputs->end());
    outputs_ = std::move(outputs);
}

std::vector<OsdItem> KivVideoOsd::Items() {
    std::lock_guard<std::mutex> lock(settingsMutex_);
    return items_->items;
}

void KivVideoOsd::SendToOverlayOutputs(const std::vector<KivPortBase*>& outputs, const KivVideoFrame* frame) {
    for (KivPortBase* output : outputs) {
        if (output) output->OnVideoFrame(frame);
    }
}

int32_t KivVideoOsd::OnVideoFrame(const KivVideoFrame* frame) {
    InProgress inProgress(framesInProgress_);
    if (!frame) return KIV_ERROR_INVALID_ARG;
    EmitVideo(frame);

    ItemListPtr items;
    OutputListPtr outputs;
    {
        std::lock_guard<std::mutex> lock(settingsMutex_);
        items = items_;
        outputs = outputs_;
    }
    if (outputs->empty()) return KIV_OK;
    if (items->drawOrder.empty()) {
        SendToOverlayOutputs(*outputs, frame);
        return KIV_OK;
    }

    KivWorkPool<kiv::OsdCanvas>::Lease canvas = canvases_.Acquire();
    const KivResult built = canvas ? canvas->Build(*frame) : KIV_ERROR_FAILED;
    if (built == KIV_ERROR_FAILED) {
        // A frame whose rows cannot be read or that is too large to copy
        // passes untouched.
        SendToOverlayOutputs(*outputs, frame);
        return KIV_OK;
    }
    if (built != KIV_OK) return built;
    for (const OsdItem* item : items->drawOrder) kiv::OsdDrawItem(*canvas, rasterizer_.get(), *item);
    const KivVideoFrame composited = canvas->Frame(*frame);
    SendToOverlayOutputs(*outputs, &composited);
    return KIV_OK;
}
