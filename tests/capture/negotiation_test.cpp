// Request merge, capability scoring and the restart rule, as tables.
#include <gtest/gtest.h>

#include "../../src/capture/capture_negotiation.h"

using namespace kiv::capture;

namespace {

struct MergeCase {
    const char* name;
    std::vector<ClientRequest> requests;
    MergedRequest expected;
};

TEST(CaptureNegotiation, MergeTakesLargestAreaFastestRateAndFormatOrder) {
    const MergeCase cases[] = {
        {"no requests: defaults", {}, {1280, 720, 30, 1}},
        {"MJPG 720p and YUY2 1080p", {{nullptr, 1280, 720, 30, 5}, {nullptr, 1920, 1080, 30, 1}}, {1920, 1080, 30, 5}},
        {"equal areas keep the earlier size", {{nullptr, 1600, 900, 30, 1}, {nullptr, 900, 1600, 30, 1}},
         {1600, 900, 30, 1}},
        {"later strictly larger area wins", {{nullptr, 640, 480, 60, 2}, {nullptr, 641, 480, 15, 2}},
         {641, 480, 60, 2}},
        {"H.264 beats MJPG", {{nullptr, 640, 480, 30, 5}, {nullptr, 640, 480, 30, 6}}, {640, 480, 30, 6}},
        {"YUY2 beats NV12", {{nullptr, 640, 480, 30, 2}, {nullptr, 640, 480, 30, 1}}, {640, 480, 30, 1}},
        {"RGB24 asks RGB32", {{nullptr, 640, 480, 30, 3}}, {640, 480, 30, 4}},
        {"unknown format falls back to YUY2", {{nullptr, 640, 480, 30, 9}}, {640, 480, 30, 1}},
        {"zero size and rate take defaults", {{nullptr, 0, 0, 0, 2}}, {1280, 720, 30, 2}},
        {"area product does not overflow", {{nullptr, 70000, 70000, 1, 1}, {nullptr, 1920, 1080, 1, 1}},
         {70000, 70000, 1, 1}},
    };
    for (const MergeCase& c : cases) {
        const MergedRequest m = MergeRequests(c.requests);
        EXPECT_EQ(m.width, c.expected.width) << c.name;
        EXPECT_EQ(m.height, c.expected.height) << c.name;
        EXPECT_EQ(m.fps, c.expected.fps) << c.name;
        EXPECT_EQ(m.format, c.expected.format) << c.name;
    }
}

struct PickCase {
    const char* name;
    MergedRequest request;
    std::vector<CaptureCandidate> offered;  // width, height, fps, format
    int winner;
};

CaptureCandidate Cap(int32_t w, int32_t h, int32_t fps, int32_t fmt) {
    CaptureCandidate c;
    c.width = w;
    c.height = h;
    c.fps = fps;
    c.format = fmt;
    return c;
}

TEST(CaptureNegotiation, ChoosesTheEntryThatBestServesTheRequest) {
    const PickCase cases[] = {
        {"nearest size at or above, preferred format",
         {1920, 1080, 30, 1},
         {Cap(3840, 2160, 30, 1), Cap(1920, 1080, 30, 1), Cap(1920, 1080, 60, 5)},
         1},
        {"below the request the larger picture wins", {1920, 1080, 30, 1}, {Cap(640, 480, 30, 1), Cap(1280, 720, 30, 1)},
         1},
        {"equal scores keep the lower index", {640, 480, 30, 1}, {Cap(640, 480, 30, 1), Cap(640, 480, 30, 1)}, 0},
        {"unknown subtype never chosen", {640, 480, 30, 1}, {Cap(1920, 1080, 30, 0), Cap(320, 240, 5, 2)}, 1},
        {"nothing usable", {640, 480, 30, 1}, {Cap(0, 480, 30, 1), Cap(640, 480, 30, 7)}, -1},
        {"rate reached beats a closer size", {1280, 720, 30, 1}, {Cap(1280, 720, 15, 1), Cap(1920, 1080, 30, 1)}, 1},
        // Area and format weight share one scale: below the request YUY2 at
        // 640x480 (307,200 + 3,000,000) outweighs RGB24 at 1280x720
        // (921,600 + 900,000).
        {"format weight outweighs area below the request",
         {1920, 1080, 30, 4},
         {Cap(1280, 720, 30, 3), Cap(640, 480, 30, 1)},
         1},
        {"preferred format bonus", {640, 480, 30, 5}, {Cap(640, 480, 30, 1), Cap(640, 480, 30, 5)}, 1},
        {"faster rate breaks a tie", {640, 480, 30, 1}, {Cap(640, 480, 30, 1), Cap(640, 480, 31, 1)}, 1},
    };
    for (const PickCase& c : cases) {
        std::vector<CaptureCandidate> list = c.offered;
        EXPECT_EQ(ChooseCandidate(c.request, &list), c.winner) << c.name;
    }
}

TEST(CaptureNegotiation, ScoreTermsAndBetterMarks) {
    std::vector<CaptureCandidate> list = {Cap(1920, 1080, 30, 1), Cap(1280, 720, 60, 2), Cap(1920, 1080, 30, 99),
                                          Cap(1920, 1080, 30, 1)};
    ASSERT_EQ(ChooseCandidate({1280, 720, 30, 2}, &list), 1);
    // size reached + rate reached + closeness + preferred + weight + rate
    EXPECT_EQ(list[0].score, 1000000000000LL + 1000000000LL + (500000000LL - (2073600 - 921600)) + 3000000 + 30);
    EXPECT_EQ(list[1].score, 1000000000000LL + 1000000000LL + 500000000LL + 10000000 + 2000000 + 60);
    EXPECT_FALSE(list[2].usable);
    EXPECT_EQ(list[2].score, -1);
    const bool better[] = {true, true, false, false};
    for (size_t i = 0; i < list.size(); ++i) EXPECT_EQ(list[i].better, better[i]) << i;
    // Below the requested size the area itself counts.
    CaptureCandidate small = Cap(320, 240, 10, 6);
    ScoreCandidate({640, 480, 30, 1}, &small);
    EXPECT_EQ(small.score, 76800 + 1500000 + 10);
}

TEST(CaptureNegotiation, RateFromMediaTypeAndCapabilityRange) {
    struct Case {
        int64_t media;
        bool caps;
        int64_t minI, maxI;
        int32_t fps;
    } const cases[] = {
        {333333, false, 0, 0, 30},     {0, true, 166666, 0, 60},      {0, true, 0, 666666, 15},
        {333333, true, 166666, 0, 60}, {166666, true, 333333, 0, 60}, {0, false, 166666, 0, 30},
        {0, false, 0, 0, 30},          {400000, false, 0, 0, 25},     {10000001, false, 0, 0, 1},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(CandidateRate(c.media, c.caps, c.minI, c.maxI), c.fps) << c.media << " " << c.minI << " " << c.maxI;
    }
    EXPECT_EQ(RateFromInterval(0), 0);
    EXPECT_EQ(RateFromInterval(20000001), 0);  // rounds down below one frame a second
}

TEST(CaptureNegotiation, SourceRestartsOnlyWhenAskedForMore) {
    struct Case {
        const char* name;
        bool running;
        MergedRequest actual, wanted;
        bool satisfied;
    } const cases[] = {
        {"same request", true, {1280, 720, 30, 1}, {1280, 720, 30, 1}, true},
        {"stopped source", false, {1280, 720, 30, 1}, {1280, 720, 30, 1}, false},
        {"larger size asked", true, {1280, 720, 30, 1}, {1920, 1080, 30, 1}, false},
        {"taller only", true, {1920, 720, 30, 1}, {1280, 1080, 30, 1}, false},
        {"smaller asked", true, {1920, 1080, 30, 1}, {640, 480, 15, 1}, true},
        {"faster rate asked", true, {1280, 720, 30, 1}, {1280, 720, 60, 1}, false},
        {"unknown actual rate", true, {1280, 720, 0, 1}, {1280, 720, 60, 1}, true},
        {"MJPG asked of YUY2", true, {1280, 720, 30, 1}, {1280, 720, 30, 5}, true},
        {"YUY2 asked of MJPG", true, {1280, 720, 30, 5}, {1280, 720, 30, 1}, false},
        {"H.264 asked of YUY2", true, {1280, 720, 30, 1}, {1280, 720, 30, 6}, false},
        {"H.264 asked of H.264", true, {1280, 720, 30, 6}, {1280, 720, 30, 6}, true},
        {"RGB32 asked of NV12", true, {1280, 720, 30, 2}, {1280, 720, 30, 4}, true},
    };
    for (const Case& c : cases) EXPECT_EQ(SourceSatisfies(c.running, c.actual, c.wanted), c.satisfied) << c.name;
}

}  // namespace
