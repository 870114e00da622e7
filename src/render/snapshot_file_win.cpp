// Snapshot files through the Windows Imaging Component.
#include <windows.h>

#include <wincodec.h>

#include "gpu_com_win.h"
#include "kiv_log.h"
#include "processing/kiv_wide_path.h"
#include "snapshot_image.h"

namespace kiv {

namespace {

HRESULT Encode(IWICImagingFactory* factory, const KivWChar* path, int32_t format, const uint8_t* bgr24,
               int32_t width, int32_t height) {
    IWICStream* stream = nullptr;
    IWICBitmapEncoder* encoder = nullptr;
    IWICBitmapFrameEncode* frame = nullptr;
    IPropertyBag2* properties = nullptr;
    HRESULT hr = factory->CreateStream(&stream);
    if (SUCCEEDED(hr)) hr = stream->InitializeFromFilename(reinterpret_cast<const wchar_t*>(path), GENERIC_WRITE);
    if (SUCCEEDED(hr)) {
        hr = factory->CreateEncoder(format == kSnapshotBmp ? GUID_ContainerFormatBmp : GUID_ContainerFormatJpeg,
                                    nullptr, &encoder);
    }
    if (SUCCEEDED(hr)) hr = encoder->Initialize(stream, WICBitmapEncoderNoCache);
    if (SUCCEEDED(hr)) hr = encoder->CreateNewFrame(&frame, &properties);
    if (SUCCEEDED(hr)) hr = frame->Initialize(properties);
    if (SUCCEEDED(hr)) hr = frame->SetSize(static_cast<UINT>(width), static_cast<UINT>(height));
    WICPixelFormatGUID pixelFormat = GUID_WICPixelFormat24bppBGR;
    if (SUCCEEDED(hr)) hr = frame->SetPixelFormat(&pixelFormat);
    // The encoder may offer another format; the rows we hand over are 24-bit.
    if (SUCCEEDED(hr) && !IsEqualGUID(pixelFormat, GUID_WICPixelFormat24bppBGR)) hr = WINCODEC_ERR_UNSUPPORTEDPIXELFORMAT;
    if (SUCCEEDED(hr)) {
        const UINT stride = static_cast<UINT>(width) * 3;
        hr = frame->WritePixels(static_cast<UINT>(height), stride, stride * static_cast<UINT>(height),
                                const_cast<BYTE*>(bgr24));
    }
    if (SUCCEEDED(hr)) hr = frame->Commit();
    if (SUCCEEDED(hr)) hr = encoder->Commit();
    ReleaseCom(properties);
    ReleaseCom(frame);
    ReleaseCom(encoder);
    ReleaseCom(stream);
    return hr;
}

}  // namespace

int32_t WriteSnapshotFile(const KivWChar* path, int32_t format, const uint8_t* bgr24, int32_t width, int32_t height) {
    const HRESULT init = CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    if (FAILED(init) && init != RPC_E_CHANGED_MODE) {
        KIV_LOG("Snapshot CoInitializeEx failed hr=0x%08X", static_cast<unsigned>(init));
        return KIV_ERROR_FAILED;
    }
    IWICImagingFactory* factory = nullptr;
    HRESULT hr = CoCreateInstance(CLSID_WICImagingFactory2, nullptr, CLSCTX_INPROC_SERVER, IID_IWICImagingFactory,
                                  reinterpret_cast<void**>(&factory));
    if (SUCCEEDED(hr)) hr = Encode(factory, path, format, bgr24, width, height);
    ReleaseCom(factory);
    if (SUCCEEDED(init)) CoUninitialize();
    const std::string logPath = Utf16ToUtf8(path);
    if (FAILED(hr)) {
        KIV_LOG("Snapshot save failed hr=0x%08X path=%s", static_cast<unsigned>(hr), logPath.c_str());
        return KIV_ERROR_FAILED;
    }
    KIV_LOG("Snapshot saved path=%s size=%dx%d fmt=%d", logPath.c_str(), width, height, format);
    return KIV_OK;
}

}  // namespace kiv
