// Exported functions of the library core: version, default pipeline mode,
// device lists, the graph operations, callbacks and the frame source.
#include <algorithm>
#include <cstring>

#include "../core/kiv_log.h"
#include "../core/kiv_state.h"
#include "../ports/kiv_connect_rules.h"
#include "../ports/kiv_port_base.h"
#include "../ports/kiv_video_mux.h"
#include "kiv_api_hooks.h"

using kiv::LibraryInitialized;

namespace {

KivResult DeviceInfo(const std::vector<KivDeviceInfo>& list, int32_t index, KivDeviceInfo* out) {
    if (!LibraryInitialized()) return KIV_ERROR_NOT_INITIALIZED;
    if (!out || index < 0 || index >= static_cast<int32_t>(list.size())) return KIV_ERROR_INVALID_ARG;
    *out = list[static_cast<size_t>(index)];
    return KIV_OK;
}

template <class Port>
void* CreateIfInitialized() {
    if (!LibraryInitialized()) return nullptr;
    return static_cast<KivPortBase*>(new Port());
}

KivPortBase* AsPort(void* handle) { return static_cast<KivPortBase*>(handle); }

}  // namespace

extern "C" {

const char* KIV_CALL KIV_GetVersion(void) { return "6.0.6"; }

KivVersionInfo* KIV_CALL KIV_GetVersionEx(KivVersionInfo* out) {
    if (!out) return nullptr;
    out->major = 6;
    out->minor = 0;
    out->patch = 6;
    return out;
}

int32_t KIV_CALL KIV_GetApiVersion(void) { return 60006; }

KivResult KIV_CALL KIV_SetDefaultPipelineMode(int32_t mode) {
    if (mode != 0 && mode != 1) return KIV_ERROR_INVALID_ARG;
    kiv::StoreDefaultPipelineMode(mode);
    KIV_LOG("Set default SDK pipeline mode=%d", mode);
    return KIV_OK;
}

int32_t KIV_CALL KIV_GetDefaultPipelineMode(void) { return kiv::DefaultPipelineMode(); }

int32_t KIV_CALL KIV_GetVideoDeviceCount(void) {
    return LibraryInitialized() ? static_cast<int32_t>(kiv::VideoDevices().size()) : 0;
}

KivResult KIV_CALL KIV_GetVideoDeviceInfo(int32_t index, KivDeviceInfo* out) {
    return DeviceInfo(kiv::VideoDevices(), index, out);
}

int32_t KIV_CALL KIV_GetAudioInputDeviceCount(void) {
    return LibraryInitialized() ? static_cast<int32_t>(kiv::AudioInputDevices().size()) : 0;
}

KivResult KIV_CALL KIV_GetAudioInputDeviceInfo(int32_t index, KivDeviceInfo* out) {
    return DeviceInfo(kiv::AudioInputDevices(), index, out);
}

void* KIV_CALL KIV_CreateVideoFrameSource(void) { return CreateIfInitialized<KivVideoFrameSource>(); }
void* KIV_CALL KIV_CreateVideoMux(void) { return CreateIfInitialized<KivVideoMux>(); }
void* KIV_CALL KIV_CreateAudioMux(void) { return CreateIfInitialized<KivAudioMux>(); }

KivResult KIV_CALL KIV_Connect(void* src, void* dst) {
    if (!src || !dst) {
        KIV_LOG("KIV_Connect invalid src=%p dst=%p", src, dst);
        return KIV_ERROR_INVALID_ARG;
    }
    const int32_t srcType = AsPort(src)->Type();
    const int32_t dstType = AsPort(dst)->Type();
    if (!kiv::ConnectionAllowed(srcType, dstType)) {
        KIV_LOG("KIV_Connect unsupported srcType=%d dstType=%d", srcType, dstType);
        return KIV_ERROR_UNSUPPORTED;
    }
    const int32_t result = AsPort(src)->AddDownstream(AsPort(dst));
    KIV_LOG("KIV_Connect src=%p type=%d dst=%p type=%d result=%d", src, srcType, dst, dstType, result);
    return result;
}

KivResult KIV_CALL KIV_Disconnect(void* src, void* dst) {
    if (!src || !dst) return KIV_ERROR_INVALID_ARG;
    kiv::DisconnectOverlayOutput(AsPort(src), AsPort(dst));
    AsPort(src)->RemoveDownstream(AsPort(dst));
    return KIV_OK;
}

KivResult KIV_CALL KIV_Start(void* port) {
    if (!port) return KIV_ERROR_INVALID_ARG;
    const int32_t result = AsPort(port)->Start();
    KIV_LOG("KIV_Start port=%p type=%d result=%d", port, AsPort(port)->Type(), result);
    return result;
}

KivResult KIV_CALL KIV_Stop(void* port) {
    if (!port) return KIV_ERROR_INVALID_ARG;
    const int32_t result = AsPort(port)->Stop();
    KIV_LOG("KIV_Stop port=%p type=%d result=%d", port, AsPort(port)->Type(), result);
    return result;
}

KivResult KIV_CALL KIV_DestroyPort(void* port) {
    if (!port) return KIV_ERROR_INVALID_ARG;
    KivPortBase* p = AsPort(port);
    const int32_t type = p->Type();
    KIV_LOG("KIV_DestroyPort begin port=%p type=%d", port, type);
    const int32_t stopResult = p->Stop();
    KIV_LOG("KIV_DestroyPort stopped port=%p type=%d result=%d", port, type, stopResult);
    if (stopResult != 0) {
        KIV_LOG("KIV_DestroyPort aborted port=%p type=%d stopResult=%d", port, type, stopResult);
        return stopResult;
    }
    delete p;
    KIV_LOG("KIV_DestroyPort complete port=%p type=%d", port, type);
    return KIV_OK;
}

KivResult KIV_CALL KIV_SetVideoFrameCallback(void* port, KivVideoFrameCallback fn, void* userData) {
    if (!port) return KIV_ERROR_INVALID_ARG;
    return AsPort(port)->SetVideoFrameCallback(fn, userData);
}

KivResult KIV_CALL KIV_SetAudioFrameCallback(void* port, KivAudioFrameCallback fn, void* userData) {
    if (!port) return KIV_ERROR_INVALID_ARG;
    return AsPort(port)->SetAudioFrameCallback(fn, userData);
}

KivResult KIV_CALL KIV_PushVideoFrame(void* frameSource, const KivVideoFrame* frame) {
    KivVideoFrameSource* source = KivPortCast<KivVideoFrameSource>(frameSource);
    if (!source) return KIV_ERROR_INVALID_ARG;
    return source->Push(frame);
}

}  // extern "C"
