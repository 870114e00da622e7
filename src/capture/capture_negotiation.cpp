#include "capture_negotiation.h"

#include "kivcapture.h"

namespace kiv::capture {

MergedRequest MergeRequests(const std::vector<ClientRequest>& requests) {
    MergedRequest merged{0, 0, 0, 0};
    int64_t bestArea = -1;
    bool asked[7] = {};
    bool askedRgb = false;
    for (const ClientRequest& r : requests) {
        const int64_t area = static_cast<int64_t>(r.width) * r.height;
        if (area > bestArea) {
            bestArea = area;
            merged.width = r.width;
            merged.height = r.height;
        }
        if (r.fps > merged.fps) merged.fps = r.fps;
        if (r.format >= 1 && r.format <= 6) asked[r.format] = true;
        if (r.format == KIV_PIXEL_FORMAT_RGB24 || r.format == KIV_PIXEL_FORMAT_RGB32) askedRgb = true;
    }
    if (asked[KIV_PIXEL_FORMAT_H264]) {
        merged.format = KIV_PIXEL_FORMAT_H264;
    } else if (asked[KIV_PIXEL_FORMAT_MJPG]) {
        merged.format = KIV_PIXEL_FORMAT_MJPG;
    } else if (asked[KIV_PIXEL_FORMAT_YUY2]) {
        merged.format = KIV_PIXEL_FORMAT_YUY2;
    } else if (asked[KIV_PIXEL_FORMAT_NV12]) {
        merged.format = KIV_PIXEL_FORMAT_NV12;
    } else if (askedRgb) {
        merged.format = KIV_PIXEL_FORMAT_RGB32;
    } else {
        merged.format = KIV_PIXEL_FORMAT_YUY2;
    }
    if (merged.width < 1) merged.width = 1280;
    if (merged.height < 1) merged.height = 720;
    if (merged.fps < 1) merged.fps = 30;
    return merged;
}

int32_t FormatWeight(int32_t format) {
    switch (format) {
        case KIV_PIXEL_FORMAT_YUY2: return 300;
        case KIV_PIXEL_FORMAT_NV12: return 200;
        case KIV_PIXEL_FORMAT_MJPG: return 160;
        case KIV_PIXEL_FORMAT_H264: return 150;
        case KIV_PIXEL_FORMAT_RGB32: return 100;
        case KIV_PIXEL_FORMAT_RGB24: return 90;
        default: return 0;
    }
}

int32_t RateFromInterval(int64_t interval) {
    if (interval <= 0) return 0;
    return static_cast<int32_t>((10000000 + interval / 2) / interval);
}

int32_t CandidateRate(int64_t mediaInterval, bool haveCapsRange, int64_t minInterval, int64_t maxInterval) {
    const int32_t fromMedia = RateFromInterval(mediaInterval);
    int32_t fromCaps = 0;
    if (haveCapsRange) fromCaps = RateFromInterval(minInterval > 0 ? minInterval : maxInterval);
    const int32_t rate = fromMedia > fromCaps ? fromMedia : fromCaps;
    return rate > 0 ? rate : 30;
}

void ScoreCandidate(const MergedRequest& request, CaptureCandidate* c) {
    c->usable = c->width > 0 && c->height > 0 && c->format >= 1 && c->format <= 6;
    if (!c->usable) {
        c->score = -1;
        return;
    }
    const int64_t area = static_cast<int64_t>(c->width) * c->height;
    const int64_t wanted = static_cast<int64_t>(request.width) * request.height;
    int64_t score = 0;
    if (area >= wanted) {
        score += 1000000000000LL;
        score += 500000000LL - (area - wanted);
    } else {
        score += area;
    }
    if (c->fps >= request.fps) score += 1000000000LL;
    if (c->format == request.format) score += 10000000LL;
    score += static_cast<int64_t>(FormatWeight(c->format)) * 10000;
    score += c->fps;
    c->score = score;
}

int ChooseCandidate(const MergedRequest& request, std::vector<CaptureCandidate>* candidates) {
    int best = -1;
    int64_t bestScore = -1;
    for (size_t i = 0; i < candidates->size(); ++i) {
        CaptureCandidate& c = (*candidates)[i];
        ScoreCandidate(request, &c);
        c.better = c.score > bestScore;
        if (c.better) {
            bestScore = c.score;
            best = static_cast<int>(i);
        }
    }
    return best;
}

bool SourceSatisfies(bool running, const MergedRequest& actual, const MergedRequest& request) {
    const bool formatOk = request.format == KIV_PIXEL_FORMAT_H264
                              ? actual.format == KIV_PIXEL_FORMAT_H264
                              : FormatWeight(actual.format) >= FormatWeight(request.format);
    const bool tooSlow = actual.fps >= 1 && request.fps >= 1 && actual.fps < request.fps;
    return running && actual.width >= request.width && actual.height >= request.height && !tooSlow && formatOk;
}

}  // namespace kiv::capture
