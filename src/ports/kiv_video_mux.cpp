#include "kiv_video_mux.h"

#include "kiv_log.h"

KivVideoMux::KivVideoMux() : KivPortBase(KIV_PORT_VIDEO_MUX) { KIV_LOG("Create video mux"); }

int32_t KivVideoMux::OnVideoFrame(const KivVideoFrame* frame) {
    if (!frame) return KIV_ERROR_INVALID_ARG;
    EmitVideo(frame);
    return KIV_OK;
}

KivAudioMux::KivAudioMux() : KivPortBase(KIV_PORT_AUDIO_MUX) {}

int32_t KivAudioMux::OnAudioFrame(const KivAudioFrame* frame) {
    EmitAudio(frame);
    return KIV_OK;
}

KivVideoFrameSource::KivVideoFrameSource() : KivPortBase(KIV_PORT_VIDEO_FRAME_SOURCE) {}

int32_t KivVideoFrameSource::Push(const KivVideoFrame* frame) {
    if (!frame) return KIV_ERROR_INVALID_ARG;
    if (frame->width < 1 || frame->height < 1) return KIV_ERROR_INVALID_ARG;
    if (frame->format == KIV_PIXEL_FORMAT_NONE || !frame->planes[0]) return KIV_ERROR_INVALID_ARG;
    if (frame->format < KIV_PIXEL_FORMAT_YUY2 || frame->format > KIV_PIXEL_FORMAT_H264) return KIV_ERROR_UNSUPPORTED;
    EmitVideo(frame);
    return KIV_OK;
}
