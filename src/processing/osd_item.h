// The overlay's stored item: a value copy of the application's record with
// every default already applied.
#pragma once
#include <cstdint>
#include <string>

#include "kivcapture.h"

namespace kiv {

enum OsdItemKind : int32_t { kOsdText = 1, kOsdPicture = 2, kOsdRect = 3 };

using OsdString = std::basic_string<KivWChar>;

struct OsdItem {
    int32_t id = 0;
    bool visible = false;
    int32_t kind = kOsdText;
    int32_t layer = 0;
    int32_t x = 0;
    int32_t y = 0;
    int32_t width = 0;
    int32_t height = 0;
    float opacity = 0.0f;
    uint32_t color = 0;
    uint32_t backColor = 0;
    bool transparent = false;
    int32_t size = 0;
    OsdString text;
    OsdString fontName;
    OsdString imagePath;
};

// The font used when the record names none, and the fallback for a family
// that cannot be created.
const OsdString& OsdDefaultFontName();

// Converts a record into an item of the given kind. The id is copied as it
// is; allocating one for ids of 0 or less is the port's business.
OsdItem OsdItemFromRecord(const KivVideoOsdItem& record, int32_t kind);

// Alpha of an ARGB colour: plain 0x00RRGGBB values count as opaque.
inline uint8_t OsdAlpha(uint32_t argb) { return argb > 0x00FFFFFFu ? static_cast<uint8_t>(argb >> 24) : 255; }

// The colour with its alpha byte made explicit by the rule above.
inline uint32_t OsdEffectiveArgb(uint32_t argb) {
    return (static_cast<uint32_t>(OsdAlpha(argb)) << 24) | (argb & 0x00FFFFFFu);
}

}  // namespace kiv
