// Compile-time checks of the public records: applications in C, C#, Delphi
// and VB lay them out by hand, so sizes and offsets must never drift.
#include <cstddef>

#include "kivcapture.h"

namespace {
constexpr size_t P = sizeof(void*);
constexpr bool k64 = P == 8;

static_assert(sizeof(KivWChar) == 2, "paths and texts are UTF-16");

static_assert(offsetof(KivVideoFrame, strides) == 4 * P, "");
static_assert(offsetof(KivVideoFrame, width) == 4 * P + 16, "");
static_assert(offsetof(KivVideoFrame, format) == 4 * P + 24, "");
static_assert(offsetof(KivVideoFrame, reserved) == 4 * P + 28, "");
static_assert(offsetof(KivVideoFrame, timestamp) == 4 * P + 32, "");
static_assert(offsetof(KivVideoFrame, frameIndex) == 4 * P + 40, "");
static_assert(sizeof(KivVideoFrame) == (k64 ? 80 : 64), "");

static_assert(offsetof(KivAudioFrame, bytes) == P, "");
static_assert(offsetof(KivAudioFrame, reserved) == P + 16, "");
static_assert(offsetof(KivAudioFrame, timestamp) == (k64 ? 32 : 24), "");
static_assert(sizeof(KivAudioFrame) == (k64 ? 40 : 32), "");

static_assert(sizeof(KivVersionInfo) == 12, "");
static_assert(offsetof(KivDeviceInfo, name) == 4 && offsetof(KivDeviceInfo, path) == 260, "");
static_assert(sizeof(KivDeviceInfo) == 772, "");
static_assert(sizeof(KivVideoCapability) == 20, "");
static_assert(sizeof(KivVideoInputConfig) == 32, "");
static_assert(sizeof(KivVideoCropRect) == 16, "");
static_assert(offsetof(KivVideoColorEngineConfig, strength) == 20 && sizeof(KivVideoColorEngineConfig) == 24, "");
static_assert(sizeof(KivVideoRenderConfig) == 12, "");
static_assert(offsetof(KivVideoRenderLutConfig, strength) == 20 && sizeof(KivVideoRenderLutConfig) == 24, "");

static_assert(offsetof(KivVideoOsdItem, opacity) == 32, "");
static_assert(offsetof(KivVideoOsdItem, size) == 48, "");
static_assert(offsetof(KivVideoOsdItem, text) == 52, "");
static_assert(offsetof(KivVideoOsdItem, fontName) == 1076, "");
static_assert(offsetof(KivVideoOsdItem, imagePath) == 1332, "");
static_assert(sizeof(KivVideoOsdItem) == 1852, "");

static_assert(offsetof(KivGpuRecordConfig, fps) == 528 && sizeof(KivGpuRecordConfig) == 552, "");

static_assert(offsetof(KivRecorderConfig, reserved0) == 520, "");
static_assert(offsetof(KivRecorderConfig, width) == 528, "");
static_assert(offsetof(KivRecorderConfig, inputMode) == 552, "");
static_assert(offsetof(KivRecorderConfig, maxBytesLow) == 560, "");
static_assert(offsetof(KivRecorderConfig, seconds) == 568 && sizeof(KivRecorderConfig) == 572, "");

static_assert(offsetof(KivRecorderStats, fps) == 48 && sizeof(KivRecorderStats) == 64, "");

static_assert(offsetof(KivEncodedVideoPacket, size) == P, "");
static_assert(offsetof(KivEncodedVideoPacket, pts) == (k64 ? 24 : 16), "");
static_assert(offsetof(KivEncodedVideoPacket, key) == (k64 ? 48 : 40), "");
static_assert(sizeof(KivEncodedVideoPacket) == (k64 ? 64 : 56), "");

static_assert(offsetof(KivEncodedAudioPacket, time) == (k64 ? 24 : 16), "");
static_assert(offsetof(KivEncodedAudioPacket, sampleRate) == (k64 ? 32 : 24), "");
static_assert(sizeof(KivEncodedAudioPacket) == (k64 ? 48 : 40), "");
}  // namespace
