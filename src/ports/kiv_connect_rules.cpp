#include "kiv_connect_rules.h"

#include <initializer_list>

#include "kivcapture.h"

namespace kiv {

namespace {
bool OneOf(int32_t value, std::initializer_list<int32_t> allowed) {
    for (int32_t a : allowed)
        if (a == value) return true;
    return false;
}
}  // namespace

// The gaps are deliberate: no port feeds another of its own type, an overlay
// does not feed a crop, an audio input does not feed the reserved audio sink
// and an audio mux does not feed another audio mux.
bool ConnectionAllowed(int32_t srcType, int32_t dstType) {
    switch (srcType) {
        case KIV_PORT_VIDEO_INPUT:
        case KIV_PORT_VIDEO_FRAME_SOURCE:
            return OneOf(dstType, {10, 20, 22, 23, 24, 30, 31});
        case KIV_PORT_VIDEO_COLOR_ENGINE: return OneOf(dstType, {10, 20, 22, 23, 30, 31});
        case KIV_PORT_VIDEO_MUX: return OneOf(dstType, {10, 22, 23, 24, 30, 31});
        case KIV_PORT_VIDEO_CROP: return OneOf(dstType, {10, 22, 24, 30, 31});
        case KIV_PORT_VIDEO_OSD: return OneOf(dstType, {10, 24, 30, 31});
        case KIV_PORT_AUDIO_INPUT: return OneOf(dstType, {11, 21, 30, 10});
        case KIV_PORT_AUDIO_MUX: return OneOf(dstType, {11, 30, 32, 10});
        default: return false;
    }
}

}  // namespace kiv
