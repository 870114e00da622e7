// kivsample: shows what the library does, one mode at a time.
//   kivsample             enable the log, initialise, print version and devices
//   kivsample graph       push a synthetic pattern through a mux into a callback
//   kivsample process     crop, colour-grade and overlay a test pattern, write BMPs
//   kivsample record FILE.h264 OUT.mp4 [split-seconds]   record an H.264 stream
//   kivsample capture [OUT.mp4] [seconds]   first camera through crop and overlay into a recorder
//   kivsample audio [seconds] [name-part]   capture a microphone and play it back
//   kivsample render [seconds]   show a moving pattern in a window, capture it to render.bmp
//   kivsample devices     every camera with its capability table, every microphone
#include <cstdio>
#include <cstring>

#include "kivsample.h"

int main(int argc, char** argv) {
    const char* mode = argc > 1 ? argv[1] : "info";
    if (std::strcmp(mode, "info") == 0) return RunInfoMode(argc, argv);
    if (std::strcmp(mode, "graph") == 0) return RunGraphMode(argc, argv);
    if (std::strcmp(mode, "process") == 0) return RunProcessMode(argc, argv);
    if (std::strcmp(mode, "record") == 0) return RunRecordMode(argc, argv);
    if (std::strcmp(mode, "capture") == 0) return RunCaptureMode(argc, argv);
    if (std::strcmp(mode, "audio") == 0) return RunAudioMode(argc, argv);
    if (std::strcmp(mode, "render") == 0) return RunRenderMode(argc, argv);
    if (std::strcmp(mode, "devices") == 0) return RunDevicesMode(argc, argv);
    std::fprintf(stderr, "unknown mode '%s' (info, graph, process, record, capture, audio, render, devices)\n", mode);
    return 2;
}
