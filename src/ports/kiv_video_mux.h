// Fan-out ports and the application's frame source: they only emit.
#pragma once
#include "kiv_port_base.h"

class KivVideoMux : public KivPortBase {
public:
    KivVideoMux();
    int32_t OnVideoFrame(const KivVideoFrame* frame) override;
};

class KivAudioMux : public KivPortBase {
public:
    KivAudioMux();
    // Deliberately no null check, unlike the video mux.
    int32_t OnAudioFrame(const KivAudioFrame* frame) override;
};

class KivVideoFrameSource : public KivPortBase {
public:
    KivVideoFrameSource();
    // Checks a pushed frame and emits it on the calling thread.
    int32_t Push(const KivVideoFrame* frame);
};
