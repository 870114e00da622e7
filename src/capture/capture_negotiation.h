// Choosing a capture format: the requests of every port on a device are
// merged into one, and each capability the device offers is scored against it.
#pragma once
#include <cstdint>
#include <vector>

namespace kiv::capture {

// What one port asked for (pixel format as KivPixelFormat).
struct ClientRequest {
    const void* port = nullptr;
    int32_t width = 0, height = 0, fps = 0, format = 0;
};

// The request a shared device is opened with.
struct MergedRequest {
    int32_t width = 1280, height = 720, fps = 30, format = 1;
};

// Largest-area size (ties keep the earlier request), fastest rate, and the
// format by the order H.264, MJPG, YUY2, NV12, RGB.
MergedRequest MergeRequests(const std::vector<ClientRequest>& requests);

// One capability of the device as the scorer sees it.
struct CaptureCandidate {
    int32_t width = 0, height = 0, fps = 0, format = 0;
    bool usable = false;
    int64_t score = -1;
    bool better = false;  // beat every earlier entry
};

// Preference of a pixel format among the ones a device may offer; 0 unknown.
int32_t FormatWeight(int32_t format);

// Rounded frames per second of a frame interval in 100 ns units; 0 for none.
int32_t RateFromInterval(int64_t interval);

// The rate a capability stands for: the faster of the media type's interval
// and (with a full capability structure) its minimum, else maximum, interval;
// 30 when neither gives one.
int32_t CandidateRate(int64_t mediaInterval, bool haveCapsRange, int64_t minInterval, int64_t maxInterval);

// Fills usable and score (−1 when unusable). The area and format terms share
// one scale, so below the requested size a preferred format can outweigh a
// bigger picture.
void ScoreCandidate(const MergedRequest& request, CaptureCandidate* candidate);

// Scores every entry and marks the ones that beat all before them; returns
// the index of the winner (the first of equal scores) or −1 when none is usable.
int ChooseCandidate(const MergedRequest& request, std::vector<CaptureCandidate>* candidates);

// True when a source delivering `actual` serves `request` without a restart.
bool SourceSatisfies(bool running, const MergedRequest& actual, const MergedRequest& request);

}  // namespace kiv::capture
