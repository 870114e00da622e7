#include <gtest/gtest.h>

#include "kivcapture.h"

TEST(Version, ConstantsAnswerAsDocumented) {
    EXPECT_STREQ(KIV_GetVersion(), "6.0.6");
    EXPECT_EQ(KIV_GetApiVersion(), 60006);
    KivVersionInfo v{};
    EXPECT_EQ(KIV_GetVersionEx(&v), &v);
    EXPECT_EQ(v.major, 6);
    EXPECT_EQ(v.minor, 0);
    EXPECT_EQ(v.patch, 6);
    EXPECT_EQ(KIV_GetVersionEx(nullptr), nullptr);
}

TEST(Lifecycle, CreationNeedsInit) {
    EXPECT_EQ(KIV_CreateVideoMux(), nullptr);
    ASSERT_EQ(KIV_Init(), KIV_OK);
    void* mux = KIV_CreateVideoMux();
    EXPECT_NE(mux, nullptr);
    EXPECT_EQ(KIV_DestroyPort(mux), KIV_OK);
    EXPECT_EQ(KIV_Shutdown(), KIV_OK);
    EXPECT_EQ(KIV_CreateVideoMux(), nullptr);
}
