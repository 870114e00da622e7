// Exported functions of the CPU overlay port, and the overlay's part of
// KIV_Disconnect.
#include <chrono>
#include <thread>

#include "../core/kiv_state.h"
#include "../processing/kiv_video_osd.h"
#include "kiv_api_hooks.h"

namespace {

KivVideoOsd* Osd(void* handle) { return KivPortCast<KivVideoOsd>(handle); }

KivResult SetItem(void* osd, const KivVideoOsdItem* item, int32_t kind) {
    KivVideoOsd* port = Osd(osd);
    return port ? port->SetItem(item, kind) : KIV_ERROR_INVALID_ARG;
}

KivResult AddItem(void* osd, const KivVideoOsdItem* item, int32_t kind) {
    KivVideoOsd* port = Osd(osd);
    return port ? port->AddItem(item, kind) : KIV_ERROR_INVALID_ARG;
}

}  // namespace

namespace kiv {

void DisconnectOverlayOutput(KivPortBase* src, KivPortBase* dst) {
    KivVideoOsd* osd = dynamic_cast<KivVideoOsd*>(src);
    if (!osd) return;
    osd->RemoveOverlayOutput(dst);
    // A frame already on its way to dst may still be delivered; wait for it
    // briefly, but never hang the caller.
    for (int i = 0; i < 200 && osd->FramesInProgress() >= 1; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

}  // namespace kiv

extern "C" {

void* KIV_CALL KIV_CreateVideoOsd(void) {
    if (!kiv::LibraryInitialized()) return nullptr;
    return static_cast<KivPortBase*>(new KivVideoOsd());
}

KivResult KIV_CALL KIV_SetVideoOsdText(void* osd, const KivVideoOsdItem* item) {
    return SetItem(osd, item, kiv::kOsdText);
}

KivResult KIV_CALL KIV_SetVideoOsdImage(void* osd, const KivVideoOsdItem* item) {
    return SetItem(osd, item, kiv::kOsdPicture);
}

KivResult KIV_CALL KIV_AddVideoOsdText(void* osd, const KivVideoOsdItem* item) {
    return AddItem(osd, item, kiv::kOsdText);
}

KivResult KIV_CALL KIV_AddVideoOsdImage(void* osd, const KivVideoOsdItem* item) {
    return AddItem(osd, item, kiv::kOsdPicture);
}

KivResult KIV_CALL KIV_AddVideoOsdRect(void* osd, const KivVideoOsdItem* item) {
    return AddItem(osd, item, kiv::kOsdRect);
}

KivResult KIV_CALL KIV_UpdateVideoOsdText(void* osd, int32_t id, const KivWChar* text) {
    KivVideoOsd* port = Osd(osd);
    return port ? port->UpdateText(id, text) : KIV_ERROR_INVALID_ARG;
}

KivResult KIV_CALL KIV_RemoveVideoOsdItem(void* osd, int32_t id) {
    KivVideoOsd* port = Osd(osd);
    return port ? port->RemoveItem(id) : KIV_ERROR_INVALID_ARG;
}

KivResult KIV_CALL KIV_ClearVideoOsd(void* osd) {
    KivVideoOsd* port = Osd(osd);
    return port ? port->Clear() : KIV_ERROR_INVALID_ARG;
}

KivResult KIV_CALL KIV_ConnectVideoOsdOutput(void* osd, int32_t output, void* dst) {
    KivVideoOsd* port = Osd(osd);
    if (!port || !dst) return KIV_ERROR_INVALID_ARG;
    KivPortBase* destination = static_cast<KivPortBase*>(dst);
    if (output == 0) return port->AddDownstream(destination);
    if (output == 1) return port->AddOverlayOutput(destination);
    return KIV_ERROR_INVALID_ARG;
}

}  // extern "C"
