// Configuration of one test camera instance, read from the text the test
// stores beside the camera's registry entry:
//   cap=SUBTYPE:WIDTH:HEIGHT:BLOCK:AVG:MIN:MAX   one capability (repeatable)
//   page=1       the filter offers a property page
//   nocfg=1      the capture pin has no IAMStreamConfig (capability probes fail)
//   record=PATH  file the camera rewrites with what it was asked
//   h264=PATH    Annex-B file streamed one access unit per sample
// Entries are separated by ';'. SUBTYPE is YUY2, NV12, RGB24, RGB32, MJPG,
// H264 or P010 (a 10-bit format the library does not know); a negative
// HEIGHT is a bottom-up picture; BLOCK is vih (VIDEOINFOHEADER) or vih2
// (VIDEOINFOHEADER2); AVG, MIN and MAX are frame intervals in 100 ns.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

namespace testcam {

struct CamCap {
    std::string subtype;
    int width = 0;
    int height = 0;  // negative: bottom-up
    bool vih2 = false;
    int64_t avg = 0, min = 0, max = 0;
};

struct CamConfig {
    std::vector<CamCap> caps;
    bool page = false;
    bool noStreamConfig = false;
    std::wstring recordPath;
    std::wstring h264Path;
};

CamConfig ParseConfig(const std::wstring& text);

}  // namespace testcam
