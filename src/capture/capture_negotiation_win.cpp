// Reads the capture pin's capability list into candidates, lets the portable
// scorer choose, and sets the winner as the pin's output format.
#include <cstring>
#include <vector>

#include "capture_dshow_win.h"
// After the DirectShow headers, which it needs.
#include <dvdmedia.h>

#include "capture_log.h"
#include "capture_registry.h"
#include "ports/kiv_frame.h"

namespace kiv::capture {

GUID FourccSubtype(uint32_t fourcc) {
    GUID g = {fourcc, 0x0000, 0x0010, {0x80, 0x00, 0x00, 0xaa, 0x00, 0x38, 0x9b, 0x71}};
    return g;
}

int32_t FormatOfSubtype(const GUID& subtype) {
    Guid g;
    std::memcpy(&g, &subtype, sizeof g);
    return PixelFormatFromSubtype(g);
}

void FreeMediaTypeContents(AM_MEDIA_TYPE& type) {
    if (type.cbFormat != 0 || type.pbFormat) CoTaskMemFree(type.pbFormat);
    type.cbFormat = 0;
    type.pbFormat = nullptr;
    if (type.pUnk) type.pUnk->Release();
    type.pUnk = nullptr;
}

void DeleteMediaType(AM_MEDIA_TYPE* type) {
    if (!type) return;
    FreeMediaTypeContents(*type);
    CoTaskMemFree(type);
}

VideoHeaderView ViewVideoHeader(const AM_MEDIA_TYPE& type) {
    VideoHeaderView view;
    if (!type.pbFormat) return view;
    if (type.formattype == FORMAT_VideoInfo && type.cbFormat >= 88) {
        auto* vih = reinterpret_cast<VIDEOINFOHEADER*>(type.pbFormat);
        view.bitmap = &vih->bmiHeader;
        view.frameInterval = &vih->AvgTimePerFrame;
    } else if ((type.formattype == FORMAT_VideoInfo2 && type.cbFormat >= 112) ||
               (type.formattype == FORMAT_MPEG2Video && type.cbFormat >= 136)) {
        auto* vih2 = reinterpret_cast<VIDEOINFOHEADER2*>(type.pbFormat);
        view.bitmap = &vih2->bmiHeader;
        view.frameInterval = &vih2->AvgTimePerFrame;
    }
    return view;
}

void NegotiateCaptureFormat(ICaptureGraphBuilder2* builder, IBaseFilter* capture, int32_t device,
                            MergedRequest* actual) {
    IAMStreamConfig* config = nullptr;
    HRESULT hr = builder->FindInterface(&PIN_CATEGORY_CAPTURE, &MEDIATYPE_Video, capture, IID_IAMStreamConfig,
                                        reinterpret_cast<void**>(&config));
    if (FAILED(hr) || !config) {
        KIV_VIN_LOG("IAMStreamConfig not available hr=0x%08X", static_cast<unsigned>(hr));
        return;
    }
    int count = 0, size = 0;
    hr = config->GetNumberOfCapabilities(&count, &size);
    if (FAILED(hr) || count < 1 || size < 1) {
        KIV_VIN_LOG("GetNumberOfCapabilities failed hr=0x%08X count=%d size=%d", static_cast<unsigned>(hr), count,
                    size);
        config->Release();
        return;
    }
    const MergedRequest request = MergeDeviceRequests(device);
    KIV_VIN_LOG("Capture format negotiation device=%d requested=%dx%d fps=%d preferredFmt=%d", device, request.width,
                request.height, request.fps, request.format);

    // One buffer for every entry's capability structure, not cleared between
    // entries: a driver that writes less leaves the previous entry's tail.
    std::vector<BYTE> caps(static_cast<size_t>(size), 0);
    AM_MEDIA_TYPE* best = nullptr;
    int64_t bestScore = -1;
    CaptureCandidate chosen;
    for (int i = 0; i < count; ++i) {
        AM_MEDIA_TYPE* type = nullptr;
        if (FAILED(config->GetStreamCaps(i, &type, caps.data())) || !type) continue;
        CaptureCandidate c;
        const VideoHeaderView view = ViewVideoHeader(*type);
        if (view.bitmap) {
            c.width = view.bitmap->biWidth;
            c.height = view.bitmap->biHeight < 0 ? -view.bitmap->biHeight : view.bitmap->biHeight;
            c.format = FormatOfSubtype(type->subtype);
            const bool fullCaps = size >= static_cast<int>(sizeof(VIDEO_STREAM_CONFIG_CAPS));
            const auto* range = reinterpret_cast<const VIDEO_STREAM_CONFIG_CAPS*>(caps.data());
            c.fps = CandidateRate(*view.frameInterval, fullCaps, fullCaps ? range->MinFrameInterval : 0,
                                  fullCaps ? range->MaxFrameInterval : 0);
        }
        ScoreCandidate(request, &c);
        if (!c.usable) c.width = c.height = c.fps = c.format = 0;
        const bool better = c.score > bestScore;
        KIV_VIN_LOG("Caps[%d] %dx%d fps=%d subtypeFmt=%d usable=%d score=%lld better=%d", i, c.width, c.height, c.fps,
                    c.format, c.usable ? 1 : 0, static_cast<long long>(c.score), better ? 1 : 0);
        if (better) {
            DeleteMediaType(best);
            best = type;
            bestScore = c.score;
            chosen = c;
        } else {
            DeleteMediaType(type);
        }
    }
    if (!best) {
        KIV_VIN_LOG("%s", "No preferred capture format found. DirectShow will choose the nearest format.");
    } else {
        const VideoHeaderView view = ViewVideoHeader(*best);
        // Asking for the rate itself makes a device that advertises a faster
        // minimum interval deliver that faster rate.
        if (view.frameInterval && chosen.fps > 0) *view.frameInterval = 10000000 / chosen.fps;
        hr = config->SetFormat(best);
        KIV_VIN_LOG("Preferred capture format set hr=0x%08X requested=%dx%d fps=%d selected=%dx%d fps=%d fmt=%d "
                    "policy=request-max,H264,MJPG,YUY2,NV12,RGB",
                    static_cast<unsigned>(hr), request.width, request.height, request.fps, chosen.width,
                    chosen.height, chosen.fps, chosen.format);
        if (SUCCEEDED(hr)) *actual = MergedRequest{chosen.width, chosen.height, chosen.fps, chosen.format};
        DeleteMediaType(best);
    }
    config->Release();
}

}  // namespace kiv::capture
