// Without the platform layer there is no image encoder: every save fails the
// way a missing component does on Windows.
#include "kiv_log.h"
#include "processing/kiv_wide_path.h"
#include "snapshot_image.h"

namespace kiv {

int32_t WriteSnapshotFile(const KivWChar* path, int32_t, const uint8_t*, int32_t, int32_t) {
    KIV_LOG("Snapshot save failed hr=0x%08X path=%s", 0x80004001u, Utf16ToUtf8(path).c_str());
    return KIV_ERROR_FAILED;
}

}  // namespace kiv
