#include "osd_item.h"

namespace kiv {

namespace {

template <size_t N>
OsdString CopyUpToNul(const KivWChar (&chars)[N]) {
    size_t n = 0;
    while (n < N && chars[n] != 0) ++n;
    return OsdString(chars, n);
}

OsdString Widen(const char* ascii) {
    OsdString out;
    for (; *ascii; ++ascii) out.push_back(static_cast<KivWChar>(*ascii));
    return out;
}

}  // namespace

const OsdString& OsdDefaultFontName() {
    static const OsdString name = Widen("Microsoft YaHei UI");
    return name;
}

OsdItem OsdItemFromRecord(const KivVideoOsdItem& record, int32_t kind) {
    OsdItem item;
    item.id = record.id;
    item.visible = record.visible != 0;
    item.kind = kind;
    item.layer = record.layer;
    item.x = record.x;
    item.y = record.y;
    item.width = record.width;
    item.height = record.height;
    // NaN is neither below 0 nor above 1; it is treated as fully transparent.
    float opacity = record.opacity;
    if (!(opacity >= 0.0f)) opacity = 0.0f;
    if (opacity > 1.0f) opacity = 1.0f;
    item.opacity = opacity;
    item.color = record.color == 0 ? 0xFFFFFFFFu : record.color;
    item.backColor = record.backColor == 0 ? 0x80000000u : record.backColor;
    item.transparent = record.transparent != 0;
    item.size = record.size >= 1 ? record.size : (kind == kOsdRect ? 3 : 36);
    item.text = CopyUpToNul(record.text);
    item.fontName = CopyUpToNul(record.fontName);
    if (item.fontName.empty()) item.fontName = OsdDefaultFontName();
    item.imagePath = CopyUpToNul(record.imagePath);
    return item;
}

}  // namespace kiv
