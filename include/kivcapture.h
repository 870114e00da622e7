/*
 * kivcapture - video and audio capture for Windows desktop applications.
 *
 * Flat C interface. Every record is little-endian with fixed-width fields in
 * a fixed order; pointers are 32-bit in a 32-bit process and 64-bit in a
 * 64-bit one. On 32-bit Windows every function and callback is __stdcall and
 * exported under its plain name (KIV_Init, not _KIV_Init@0).
 */
#ifndef KIVCAPTURE_H
#define KIVCAPTURE_H

#include <stdint.h>
#include <stddef.h>

#if defined(_WIN32) && !defined(_WIN64)
#define KIV_CALL __stdcall
#else
#define KIV_CALL
#endif

#if defined(_WIN32)
#if defined(KIV_BUILDING_LIBRARY) && defined(__GNUC__)
/* MinGW exports what is defined and strips the @n suffix at link time. */
#define KIV_API __declspec(dllexport)
#elif defined(KIV_BUILDING_LIBRARY)
/* MSVC exports through the generated module-definition file. */
#define KIV_API
#else
#define KIV_API __declspec(dllimport)
#endif
#elif defined(KIV_BUILDING_LIBRARY)
#define KIV_API __attribute__((visibility("default")))
#else
#define KIV_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* Paths and overlay texts are UTF-16: wchar_t on Windows, 16-bit units elsewhere. */
#if defined(_WIN32)
typedef wchar_t KivWChar;
#else
typedef uint16_t KivWChar;
#endif

/* ---- result codes ---------------------------------------------------- */
typedef int32_t KivResult;
#define KIV_OK 0
#define KIV_ERROR_FAILED (-1)
#define KIV_ERROR_INVALID_ARG (-2)
#define KIV_ERROR_NOT_INITIALIZED (-3)
#define KIV_ERROR_UNSUPPORTED (-4)

/* ---- port types ------------------------------------------------------ */
typedef int32_t KivPortType;
#define KIV_PORT_VIDEO_INPUT 1
#define KIV_PORT_AUDIO_INPUT 2
#define KIV_PORT_VIDEO_FRAME_SOURCE 3
#define KIV_PORT_VIDEO_RENDER 10
#define KIV_PORT_AUDIO_RENDER 11
#define KIV_PORT_VIDEO_MUX 20
#define KIV_PORT_AUDIO_MUX 21
#define KIV_PORT_VIDEO_OSD 22
#define KIV_PORT_VIDEO_CROP 23
#define KIV_PORT_VIDEO_COLOR_ENGINE 24
#define KIV_PORT_RECORDER 30
#define KIV_PORT_VIDEO_SINK_RESERVED 31
#define KIV_PORT_AUDIO_SINK_RESERVED 32

/* ---- pixel formats --------------------------------------------------- */
typedef int32_t KivPixelFormat;
#define KIV_PIXEL_FORMAT_NONE 0
#define KIV_PIXEL_FORMAT_YUY2 1
#define KIV_PIXEL_FORMAT_NV12 2
#define KIV_PIXEL_FORMAT_RGB24 3
#define KIV_PIXEL_FORMAT_RGB32 4
#define KIV_PIXEL_FORMAT_MJPG 5
#define KIV_PIXEL_FORMAT_H264 6

/* ---- colour space and range (capture config, colour engine, render) -- */
#define KIV_COLOR_SPACE_AUTO 0
#define KIV_COLOR_SPACE_BT601 1
#define KIV_COLOR_SPACE_BT709 2
#define KIV_COLOR_SPACE_BT2020 3
#define KIV_COLOR_RANGE_AUTO 0
#define KIV_COLOR_RANGE_FULL 1
#define KIV_COLOR_RANGE_LIMITED 2

/* ---- pipeline mode --------------------------------------------------- */
typedef int32_t KivPipelineMode;
#define KIV_PIPELINE_CPU 0
#define KIV_PIPELINE_GPU 1

/* ---- recorder input modes and split modes ---------------------------- */
#define KIV_RECORD_INPUT_AUTO 0
#define KIV_RECORD_INPUT_ENCODE 1
#define KIV_RECORD_INPUT_DIRECT_H264 2
#define KIV_RECORD_SPLIT_NONE 0
#define KIV_RECORD_SPLIT_SIZE 1
#define KIV_RECORD_SPLIT_TIME 2

/* ---- records --------------------------------------------------------- */
typedef struct KivVersionInfo {
    int32_t major;
    int32_t minor;
    int32_t patch;
} KivVersionInfo;

typedef struct KivVideoFrame {
    uint8_t* planes[4];
    int32_t strides[4]; /* MJPG/H264: strides[0] is the payload length */
    int32_t width;
    int32_t height;
    int32_t format; /* KivPixelFormat */
    int32_t reserved;
    int64_t timestamp;   /* 100 ns units of the steady clock */
    uint64_t frameIndex; /* frames the producer emitted before this one */
} KivVideoFrame;

typedef struct KivAudioFrame {
    uint8_t* data; /* interleaved signed 16-bit PCM */
    uint32_t bytes;
    int32_t sampleRate;
    int32_t channels;
    int32_t bitsPerSample;
    int32_t reserved;
    int64_t timestamp; /* 100 ns units since the port started */
} KivAudioFrame;

typedef struct KivDeviceInfo {
    int32_t index;
    char name[256]; /* UTF-8 */
    char path[512]; /* UTF-8 */
} KivDeviceInfo;

typedef struct KivVideoCapability {
    int32_t width;
    int32_t height;
    int32_t fps;
    int32_t valid;
    int32_t format; /* KivPixelFormat */
} KivVideoCapability;

typedef struct KivVideoInputConfig {
    int32_t deviceIndex;
    int32_t width;
    int32_t height;
    int32_t fps;
    int32_t pixelFormat;
    int32_t colorSpace;
    int32_t colorRange;
    int32_t bufferCount;
} KivVideoInputConfig;

typedef struct KivVideoCropRect {
    int32_t x;
    int32_t y;
    int32_t w; /* 0 or less: up to the right edge */
    int32_t h; /* 0 or less: up to the bottom edge */
} KivVideoCropRect;

typedef struct KivVideoColorEngineConfig {
    int32_t processor; /* 0 and 2: CPU; 1 and 3: left to the render port */
    int32_t enable;
    int32_t outFmt; /* 0 same as input, or 1..4 */
    int32_t cs;
    int32_t range;
    float strength; /* 0.0 .. 1.0 */
} KivVideoColorEngineConfig;

typedef struct KivVideoRenderConfig {
    int32_t targetWidth;
    int32_t targetHeight;
    int32_t targetFormat;
} KivVideoRenderConfig;

typedef struct KivVideoRenderLutConfig {
    int32_t processor;
    int32_t enable;
    int32_t reserved;
    int32_t cs;
    int32_t range;
    float strength;
} KivVideoRenderLutConfig;

typedef struct KivVideoOsdItem {
    int32_t id; /* 0 or less: the port allocates one */
    int32_t visible;
    int32_t reserved;
    int32_t layer;
    int32_t x;
    int32_t y;
    int32_t width;
    int32_t height;
    float opacity;
    uint32_t color;     /* 0xAARRGGBB */
    uint32_t backColor; /* 0xAARRGGBB */
    int32_t transparent;
    int32_t size;
    KivWChar text[512];
    KivWChar fontName[128];
    KivWChar imagePath[260];
} KivVideoOsdItem;

typedef struct KivGpuRecordConfig {
    KivWChar file[260];
    int32_t reserved0;
    int32_t reserved1;
    int32_t fps;
    int32_t bitrate;
    int32_t audio;
    int32_t sampleRate;
    int32_t channels;
    int32_t audioBitrate;
} KivGpuRecordConfig;

typedef struct KivRecorderConfig {
    KivWChar filePath[260];
    int32_t reserved0;
    int32_t reserved1;
    int32_t width;
    int32_t height;
    int32_t inputFps;
    int32_t recordFps;
    int32_t bitrate;
    int32_t audio;
    int32_t inputMode;
    int32_t split;
    uint32_t maxBytesLow;  /* segment size limit, low 32 bits */
    uint32_t maxBytesHigh; /* segment size limit, high 32 bits */
    int32_t seconds;
} KivRecorderConfig;

typedef struct KivRecorderStats {
    int64_t inputFrames;
    int64_t encodedFrames;
    int64_t droppedFrames;
    int64_t duplicatedFrames;
    int64_t videoPackets;
    int64_t audioPackets;
    int32_t fps;
    int32_t width;
    int32_t height;
    int32_t reserved;
} KivRecorderStats;

typedef struct KivEncodedVideoPacket {
    const uint8_t* data;
    int32_t size;
    int32_t kind; /* 1 our MP4 writer, 2 the sink writer */
    int32_t reserved0;
    int64_t pts;
    int64_t dts;
    int64_t frameIndex;
    int32_t key;
    int32_t width;
    int32_t height;
    int32_t reserved1;
} KivEncodedVideoPacket;

typedef struct KivEncodedAudioPacket {
    const uint8_t* data;
    int32_t size;
    int32_t codec; /* 1: raw AAC */
    int32_t reserved0;
    int64_t time;
    int32_t sampleRate;
    int32_t channels;
    int32_t bitsPerSample;
    int32_t reserved1;
} KivEncodedAudioPacket;

/* ---- callbacks ------------------------------------------------------- */
typedef void(KIV_CALL* KivVideoFrameCallback)(const KivVideoFrame* frame, void* userData);
typedef void(KIV_CALL* KivAudioFrameCallback)(const KivAudioFrame* frame, void* userData);
typedef void(KIV_CALL* KivEncodedVideoCallback)(const KivEncodedVideoPacket* packet, void* userData);
typedef void(KIV_CALL* KivEncodedAudioCallback)(const KivEncodedAudioPacket* packet, void* userData);

/* ---- library, version and log ---------------------------------------- */
KIV_API const char* KIV_CALL KIV_GetVersion(void);
KIV_API KivVersionInfo* KIV_CALL KIV_GetVersionEx(KivVersionInfo* out);
KIV_API int32_t KIV_CALL KIV_GetApiVersion(void);
KIV_API KivResult KIV_CALL KIV_EnableLog(int32_t enable);
KIV_API KivResult KIV_CALL KIV_SetDefaultPipelineMode(int32_t mode);
KIV_API int32_t KIV_CALL KIV_GetDefaultPipelineMode(void);
KIV_API KivResult KIV_CALL KIV_Init(void);
KIV_API KivResult KIV_CALL KIV_Shutdown(void);
KIV_API KivResult KIV_CALL KIV_RefreshDeviceList(void);

/* ---- device discovery ------------------------------------------------ */
KIV_API int32_t KIV_CALL KIV_GetVideoDeviceCount(void);
KIV_API KivResult KIV_CALL KIV_GetVideoDeviceInfo(int32_t index, KivDeviceInfo* out);
KIV_API int32_t KIV_CALL KIV_GetAudioInputDeviceCount(void);
KIV_API KivResult KIV_CALL KIV_GetAudioInputDeviceInfo(int32_t index, KivDeviceInfo* out);
KIV_API int32_t KIV_CALL KIV_GetVideoCapabilityCount(int32_t deviceIndex);
KIV_API KivResult KIV_CALL KIV_GetVideoCapability(int32_t deviceIndex, int32_t index, KivVideoCapability* out);
KIV_API int32_t KIV_CALL KIV_GetVideoFormatCount(int32_t deviceIndex);
KIV_API KivResult KIV_CALL KIV_GetVideoFormatInfo(int32_t deviceIndex, int32_t index, KivVideoCapability* out);
KIV_API KivResult KIV_CALL KIV_ShowVideoDevicePropertyPage(int32_t deviceIndex, void* parentWindow);
KIV_API KivResult KIV_CALL KIV_ShowVideoCrossbarPropertyPage(int32_t deviceIndex, void* parentWindow);

/* ---- port creation (null until KIV_Init has succeeded) ---------------- */
KIV_API void* KIV_CALL KIV_CreateVideoInput(void);
KIV_API void* KIV_CALL KIV_CreateAudioInput(void);
KIV_API void* KIV_CALL KIV_CreateVideoFrameSource(void);
KIV_API void* KIV_CALL KIV_CreateVideoRender(void* window);
KIV_API void* KIV_CALL KIV_CreateAudioRender(void);
KIV_API void* KIV_CALL KIV_CreateVideoMux(void);
KIV_API void* KIV_CALL KIV_CreateAudioMux(void);
KIV_API void* KIV_CALL KIV_CreateVideoOsd(void);
KIV_API void* KIV_CALL KIV_CreateVideoCrop(void);
KIV_API void* KIV_CALL KIV_CreateVideoColorEngine(void);
KIV_API void* KIV_CALL KIV_CreateRecorder(const char* text);

/* ---- graph and generic port operations -------------------------------- */
KIV_API KivResult KIV_CALL KIV_Connect(void* src, void* dst);
KIV_API KivResult KIV_CALL KIV_ConnectVideoOsdOutput(void* osd, int32_t output, void* dst);
KIV_API KivResult KIV_CALL KIV_Disconnect(void* src, void* dst);
KIV_API KivResult KIV_CALL KIV_Start(void* port);
KIV_API KivResult KIV_CALL KIV_Stop(void* port);
KIV_API KivResult KIV_CALL KIV_DestroyPort(void* port);
KIV_API KivResult KIV_CALL KIV_SetVideoFrameCallback(void* port, KivVideoFrameCallback fn, void* userData);
KIV_API KivResult KIV_CALL KIV_SetAudioFrameCallback(void* port, KivAudioFrameCallback fn, void* userData);
KIV_API KivResult KIV_CALL KIV_PushVideoFrame(void* frameSource, const KivVideoFrame* frame);

/* ---- capture and audio settings ---------------------------------------- */
KIV_API KivResult KIV_CALL KIV_SetVideoInputDevice(void* input, int32_t deviceIndex);
KIV_API KivResult KIV_CALL KIV_SetVideoInputFormat(void* input, int32_t width, int32_t height, int32_t fps, int32_t pixelFormat);
KIV_API KivResult KIV_CALL KIV_SetVideoInputConfig(void* input, const KivVideoInputConfig* config);
KIV_API KivResult KIV_CALL KIV_SetAudioInputDevice(void* input, int32_t deviceIndex);
KIV_API KivResult KIV_CALL KIV_SetAudioInputPCM(void* input, int32_t sampleRate, int32_t channels, int32_t bitsPerSample);
KIV_API KivResult KIV_CALL KIV_SetAudioRenderDefaultDevice(void* render);

/* ---- video render -------------------------------------------------------- */
KIV_API KivResult KIV_CALL KIV_SetVideoRenderConfig(void* render, const KivVideoRenderConfig* config);
KIV_API KivResult KIV_CALL KIV_SetVideoRenderInterpolationMode(void* render, int32_t mode);
KIV_API KivResult KIV_CALL KIV_SetVideoRenderPipelineMode(void* render, int32_t mode);
KIV_API int32_t KIV_CALL KIV_GetVideoRenderPipelineMode(void* render);
KIV_API KivResult KIV_CALL KIV_SetVideoRenderLutConfig(void* render, const KivVideoRenderLutConfig* config);
KIV_API KivResult KIV_CALL KIV_LoadVideoRenderCubeFile(void* render, const KivWChar* path);
KIV_API KivResult KIV_CALL KIV_ClearVideoRenderLut(void* render);
KIV_API KivResult KIV_CALL KIV_SaveVideoRenderSnapshot(void* render, const KivWChar* path, int32_t option);
KIV_API KivResult KIV_CALL KIV_AddVideoRenderGpuOsdText(void* render, const KivVideoOsdItem* item);
KIV_API KivResult KIV_CALL KIV_AddVideoRenderGpuOsdImage(void* render, const KivVideoOsdItem* item);
KIV_API KivResult KIV_CALL KIV_AddVideoRenderGpuOsdRect(void* render, const KivVideoOsdItem* item);
KIV_API KivResult KIV_CALL KIV_UpdateVideoRenderGpuOsdText(void* render, int32_t id, const KivWChar* text);
KIV_API KivResult KIV_CALL KIV_RemoveVideoRenderGpuOsdItem(void* render, int32_t id);
KIV_API KivResult KIV_CALL KIV_ClearVideoRenderGpuOsd(void* render);
KIV_API KivResult KIV_CALL KIV_StartVideoRenderGpuRecord(void* render, const KivGpuRecordConfig* request);
KIV_API KivResult KIV_CALL KIV_StopVideoRenderGpuRecord(void* render);
KIV_API int32_t KIV_CALL KIV_IsVideoRenderGpuRecording(void* render);

/* ---- crop and colour engine ---------------------------------------------- */
KIV_API KivResult KIV_CALL KIV_SetVideoCropRect(void* crop, const KivVideoCropRect* rect);
KIV_API KivResult KIV_CALL KIV_EnableVideoCrop(void* crop, int32_t enable);
KIV_API KivResult KIV_CALL KIV_SetVideoColorEngineConfig(void* engine, const KivVideoColorEngineConfig* config);
KIV_API KivResult KIV_CALL KIV_GetVideoColorEngineConfig(void* engine, KivVideoColorEngineConfig* out);
KIV_API KivResult KIV_CALL KIV_LoadVideoColorEngineCubeFile(void* engine, const KivWChar* path);
KIV_API KivResult KIV_CALL KIV_ClearVideoColorEngineLut(void* engine);

/* ---- CPU overlay ----------------------------------------------------------- */
KIV_API KivResult KIV_CALL KIV_SetVideoOsdText(void* osd, const KivVideoOsdItem* item);
KIV_API KivResult KIV_CALL KIV_SetVideoOsdImage(void* osd, const KivVideoOsdItem* item);
KIV_API KivResult KIV_CALL KIV_AddVideoOsdText(void* osd, const KivVideoOsdItem* item);
KIV_API KivResult KIV_CALL KIV_AddVideoOsdImage(void* osd, const KivVideoOsdItem* item);
KIV_API KivResult KIV_CALL KIV_AddVideoOsdRect(void* osd, const KivVideoOsdItem* item);
KIV_API KivResult KIV_CALL KIV_UpdateVideoOsdText(void* osd, int32_t id, const KivWChar* text);
KIV_API KivResult KIV_CALL KIV_RemoveVideoOsdItem(void* osd, int32_t id);
KIV_API KivResult KIV_CALL KIV_ClearVideoOsd(void* osd);

/* ---- recorder ---------------------------------------------------------------- */
KIV_API KivResult KIV_CALL KIV_SetRecorderConfig(void* recorder, const KivRecorderConfig* config);
KIV_API KivResult KIV_CALL KIV_GetRecorderStats(void* recorder, KivRecorderStats* out);
KIV_API KivResult KIV_CALL KIV_SetRecorderVideoCallback(void* recorder, KivEncodedVideoCallback fn, void* userData);
KIV_API KivResult KIV_CALL KIV_SetRecorderAudioCallback(void* recorder, KivEncodedAudioCallback fn, void* userData);

#ifdef __cplusplus
}
#endif

#endif /* KIVCAPTURE_H */
