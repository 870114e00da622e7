// DirectShow pieces shared by the capture graph and the format negotiation.
// The sample grabber's interfaces are declared here because current Windows
// SDKs no longer ship their header.
#pragma once
#include <windows.h>
#include <dshow.h>

#include <cstdint>

#include "capture_negotiation.h"

namespace kiv::capture {

// {C1F400A0-3F08-11D3-9F0B-006008039E37}
const GUID kClsidSampleGrabber = {0xc1f400a0, 0x3f08, 0x11d3, {0x9f, 0x0b, 0x00, 0x60, 0x08, 0x03, 0x9e, 0x37}};
// {C1F400A4-3F08-11D3-9F0B-006008039E37}
const GUID kClsidNullRenderer = {0xc1f400a4, 0x3f08, 0x11d3, {0x9f, 0x0b, 0x00, 0x60, 0x08, 0x03, 0x9e, 0x37}};
// {6B652FFF-11FE-4FCE-92AD-0266B5D7C78F}
const GUID kIidSampleGrabber = {0x6b652fff, 0x11fe, 0x4fce, {0x92, 0xad, 0x02, 0x66, 0xb5, 0xd7, 0xc7, 0x8f}};
// {0579154A-2B53-4994-B0D0-E773148EFF85}
const GUID kIidSampleGrabberCB = {0x0579154a, 0x2b53, 0x4994, {0xb0, 0xd0, 0xe7, 0x73, 0x14, 0x8e, 0xff, 0x85}};

struct KivISampleGrabberCB : public IUnknown {
    virtual HRESULT STDMETHODCALLTYPE SampleCB(double sampleTime, IMediaSample* sample) = 0;
    virtual HRESULT STDMETHODCALLTYPE BufferCB(double sampleTime, BYTE* buffer, long length) = 0;
};

struct KivISampleGrabber : public IUnknown {
    virtual HRESULT STDMETHODCALLTYPE SetOneShot(BOOL oneShot) = 0;
    virtual HRESULT STDMETHODCALLTYPE SetMediaType(const AM_MEDIA_TYPE* type) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetConnectedMediaType(AM_MEDIA_TYPE* type) = 0;
    virtual HRESULT STDMETHODCALLTYPE SetBufferSamples(BOOL bufferThem) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetCurrentBuffer(long* size, long* buffer) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetCurrentSample(IMediaSample** sample) = 0;
    virtual HRESULT STDMETHODCALLTYPE SetCallback(KivISampleGrabberCB* callback, long whichMethod) = 0;
};

// FOURCC video subtype ({fourcc-0000-0010-8000-00AA00389B71}).
GUID FourccSubtype(uint32_t fourcc);

// Pixel format of a media subtype, 0 when the capture path does not know it.
int32_t FormatOfSubtype(const GUID& subtype);

// Frees a media type's format block and unknown interface (the structure
// itself stays), and the same plus the structure for a task-allocated one.
void FreeMediaTypeContents(AM_MEDIA_TYPE& type);
void DeleteMediaType(AM_MEDIA_TYPE* type);

// The video header of a VIDEOINFOHEADER, VIDEOINFOHEADER2 or MPEG-2 video
// format block with enough bytes; null for any other block.
struct VideoHeaderView {
    BITMAPINFOHEADER* bitmap = nullptr;
    REFERENCE_TIME* frameInterval = nullptr;
};
VideoHeaderView ViewVideoHeader(const AM_MEDIA_TYPE& type);

// Picks and sets the capture pin's output format for the merged request of
// the device; stores the choice in *actual when the device accepts it.
void NegotiateCaptureFormat(ICaptureGraphBuilder2* builder, IBaseFilter* capture, int32_t device,
                            MergedRequest* actual);

}  // namespace kiv::capture
