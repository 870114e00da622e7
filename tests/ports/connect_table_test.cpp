// KIV_Connect's pair rules, checked for every pair of port types against a
// grid written out by hand.
#include <gtest/gtest.h>

#include "kivcapture.h"
#include "port_test_helpers.h"

namespace {

const int32_t kTypes[13] = {1, 2, 3, 10, 11, 20, 21, 22, 23, 24, 30, 31, 32};

// Row = source, column = destination, in the order of kTypes; 'x' = allowed.
//                          dst: 1  2  3  10 11 20 21 22 23 24 30 31 32
const char* const kGrid[13] = {
    /* 1  video input   */ ".  .  .  x  .  x  .  x  x  x  x  x  .",
    /* 2  audio input   */ ".  .  .  x  x  .  x  .  .  .  x  .  .",
    /* 3  frame source  */ ".  .  .  x  .  x  .  x  x  x  x  x  .",
    /* 10 video render  */ ".  .  .  .  .  .  .  .  .  .  .  .  .",
    /* 11 audio render  */ ".  .  .  .  .  .  .  .  .  .  .  .  .",
    /* 20 video mux     */ ".  .  .  x  .  .  .  x  x  x  x  x  .",
    /* 21 audio mux     */ ".  .  .  x  x  .  .  .  .  .  x  .  x",
    /* 22 overlay       */ ".  .  .  x  .  .  .  .  .  x  x  x  .",
    /* 23 crop          */ ".  .  .  x  .  .  .  x  .  x  x  x  .",
    /* 24 colour engine */ ".  .  .  x  .  x  .  x  x  .  x  x  .",
    /* 30 recorder      */ ".  .  .  .  .  .  .  .  .  .  .  .  .",
    /* 31 video sink    */ ".  .  .  .  .  .  .  .  .  .  .  .  .",
    /* 32 audio sink    */ ".  .  .  .  .  .  .  .  .  .  .  .  .",
};

bool GridAllows(int row, int column) {
    const char* cells = kGrid[row];
    int seen = 0;
    for (const char* c = cells; *c; ++c) {
        if (*c == ' ') continue;
        if (seen++ == column) return *c == 'x';
    }
    ADD_FAILURE() << "grid row " << row << " is short";
    return false;
}

int32_t ConnectTypes(int32_t srcType, int32_t dstType, size_t* entries) {
    porttest::TypedPort src(srcType);
    porttest::TypedPort dst(dstType);
    const int32_t result = KIV_Connect(&src, &dst);
    *entries = src.DownstreamCount();
    return result;
}

}  // namespace

TEST(ConnectTable, EveryPairOfPortTypesFollowsTheGrid) {
    int allowed = 0;
    for (int s = 0; s < 13; ++s) {
        for (int d = 0; d < 13; ++d) {
            size_t entries = 0;
            const int32_t result = ConnectTypes(kTypes[s], kTypes[d], &entries);
            if (GridAllows(s, d)) {
                ++allowed;
                EXPECT_EQ(result, KIV_OK) << kTypes[s] << " -> " << kTypes[d];
                EXPECT_EQ(entries, 1u) << kTypes[s] << " -> " << kTypes[d];
            } else {
                EXPECT_EQ(result, KIV_ERROR_UNSUPPORTED) << kTypes[s] << " -> " << kTypes[d];
                EXPECT_EQ(entries, 0u) << kTypes[s] << " -> " << kTypes[d];
            }
        }
    }
    EXPECT_EQ(allowed, 7 + 4 + 7 + 6 + 4 + 4 + 5 + 6);
}

TEST(ConnectTable, UnknownTypesNeitherFeedNorAreFed) {
    const int32_t unknown[] = {0, -1, 4, 12, 25, 29, 33, 1000};
    for (int32_t bad : unknown) {
        for (int32_t good : kTypes) {
            size_t entries = 0;
            EXPECT_EQ(ConnectTypes(bad, good, &entries), KIV_ERROR_UNSUPPORTED) << bad << " -> " << good;
            EXPECT_EQ(entries, 0u);
            EXPECT_EQ(ConnectTypes(good, bad, &entries), KIV_ERROR_UNSUPPORTED) << good << " -> " << bad;
            EXPECT_EQ(entries, 0u);
        }
    }
}
