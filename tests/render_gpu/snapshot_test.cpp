#include <gtest/gtest.h>

#include "render/snapshot_image.h"
#include "test_support.h"

namespace {

TEST(SnapshotImage, RowsArePackedToTightBgrDroppingAlphaAndPadding) {
    // Two rows of three pixels with a stride of 16 bytes (4 bytes of padding).
    std::vector<uint8_t> bgra(32, 0xEE);
    for (int i = 0; i < 12; ++i) bgra[i] = static_cast<uint8_t>(i + 1), bgra[16 + i] = static_cast<uint8_t>(101 + i);
    std::vector<uint8_t> rows;
    kiv::PackBgr24Rows(bgra.data(), 3, 2, 16, &rows);
    EXPECT_EQ(rows, (std::vector<uint8_t>{1, 2, 3, 5, 6, 7, 9, 10, 11, 101, 102, 103, 105, 106, 107, 109, 110, 111}));
}

TEST(SnapshotImage, BadArgumentsAreRefusedBeforeAnyFileIsTouched) {
    const auto path = kivtest::Wide("never_written.bmp");
    const KivWChar empty[1] = {0};
    const uint8_t pixel[4] = {1, 2, 3, 4};
    const struct {
        const KivWChar* path;
        int32_t format;
        const uint8_t* pixels;
        int32_t w, h, stride;
    } cases[] = {
        {nullptr, 1, pixel, 1, 1, 4}, {empty, 1, pixel, 1, 1, 4},        {path.c_str(), 3, pixel, 1, 1, 4},
        {path.c_str(), 0, pixel, 1, 1, 4}, {path.c_str(), 1, nullptr, 1, 1, 4}, {path.c_str(), 2, pixel, 0, 1, 4},
        {path.c_str(), 2, pixel, 1, -1, 4}, {path.c_str(), 2, pixel, 1, 1, 0},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(kiv::SaveSnapshotImage(c.path, c.format, c.pixels, c.w, c.h, c.stride), KIV_ERROR_INVALID_ARG);
    }
    EXPECT_TRUE(kivtest::ReadFile("never_written.bmp").empty());
}

}  // namespace
