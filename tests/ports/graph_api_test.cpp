// The graph, callback and push functions driven as an application would:
// bad input, the checks of KIV_PushVideoFrame in order, and their log lines.
#include <gtest/gtest.h>

#include <cstdarg>
#include <cstdio>
#include <string>
#include <vector>

#include "core/kiv_state.h"
#include "kivcapture.h"
#include "port_test_helpers.h"
#include "test_support.h"

namespace {

int g_videoCalls = 0;
void KIV_CALL CountVideo(const KivVideoFrame*, void*) { ++g_videoCalls; }
void KIV_CALL IgnoreAudio(const KivAudioFrame*, void*) {}

class GraphApi : public porttest::LibrarySuite {
protected:
    void SetUp() override { g_videoCalls = 0; }
};

}  // namespace

TEST_F(GraphApi, NullHandlesAreRejected) {
    void* mux = KIV_CreateVideoMux();
    ASSERT_NE(mux, nullptr);
    EXPECT_EQ(KIV_Connect(nullptr, mux), KIV_ERROR_INVALID_ARG);
    EXPECT_EQ(KIV_Connect(mux, nullptr), KIV_ERROR_INVALID_ARG);
    EXPECT_EQ(KIV_Connect(nullptr, nullptr), KIV_ERROR_INVALID_ARG);
    EXPECT_EQ(KIV_Disconnect(nullptr, mux), KIV_ERROR_INVALID_ARG);
    EXPECT_EQ(KIV_Disconnect(mux, nullptr), KIV_ERROR_INVALID_ARG);
    EXPECT_EQ(KIV_Start(nullptr), KIV_ERROR_INVALID_ARG);
    EXPECT_EQ(KIV_Stop(nullptr), KIV_ERROR_INVALID_ARG);
    EXPECT_EQ(KIV_DestroyPort(nullptr), KIV_ERROR_INVALID_ARG);
    EXPECT_EQ(KIV_SetVideoFrameCallback(nullptr, CountVideo, nullptr), KIV_ERROR_INVALID_ARG);
    EXPECT_EQ(KIV_SetAudioFrameCallback(nullptr, IgnoreAudio, nullptr), KIV_ERROR_INVALID_ARG);
    EXPECT_EQ(static_cast<KivPortBase*>(mux)->AddDownstream(nullptr), KIV_ERROR_INVALID_ARG);
    EXPECT_EQ(static_cast<KivPortBase*>(mux)->DownstreamCount(), 0u);

    // Disconnecting a pair that was never connected is not an error.
    void* source = KIV_CreateVideoFrameSource();
    EXPECT_EQ(KIV_Disconnect(source, mux), KIV_OK);
    EXPECT_EQ(KIV_Disconnect(mux, source), KIV_OK);
    EXPECT_EQ(KIV_DestroyPort(source), KIV_OK);
    EXPECT_EQ(KIV_DestroyPort(mux), KIV_OK);
}

TEST_F(GraphApi, PushChecksItsArgumentsInOrder) {
    void* source = KIV_CreateVideoFrameSource();
    void* videoMux = KIV_CreateVideoMux();
    void* audioMux = KIV_CreateAudioMux();
    porttest::TypedPort lookalike(KIV_PORT_VIDEO_FRAME_SOURCE);  // right type value, wrong class
    ASSERT_EQ(KIV_SetVideoFrameCallback(source, CountVideo, nullptr), KIV_OK);
    kivtest::OwnedFrame good(KIV_PIXEL_FORMAT_NV12, 4, 2);

    EXPECT_EQ(KIV_PushVideoFrame(nullptr, &good.frame), KIV_ERROR_INVALID_ARG);
    EXPECT_EQ(KIV_PushVideoFrame(videoMux, &good.frame), KIV_ERROR_INVALID_ARG);
    EXPECT_EQ(KIV_PushVideoFrame(audioMux, &good.frame), KIV_ERROR_INVALID_ARG);
    EXPECT_EQ(KIV_PushVideoFrame(&lookalike, &good.frame), KIV_ERROR_INVALID_ARG);
    EXPECT_EQ(KIV_PushVideoFrame(source, nullptr), KIV_ERROR_INVALID_ARG);

    struct Case {
        const char* what;
        int32_t width, height, format;
        bool plane0;
        KivResult expected;
    };
    const Case cases[] = {
        {"zero width", 0, 2, 2, true, KIV_ERROR_INVALID_ARG},
        {"negative height", 4, -1, 2, true, KIV_ERROR_INVALID_ARG},
        {"format none", 4, 2, 0, true, KIV_ERROR_INVALID_ARG},
        {"no plane 0", 4, 2, 2, false, KIV_ERROR_INVALID_ARG},
        {"format 7", 4, 2, 7, true, KIV_ERROR_UNSUPPORTED},
        {"format -1", 4, 2, -1, true, KIV_ERROR_UNSUPPORTED},
        // Size comes before format, and plane 0 before the format range.
        {"zero width and format 7", 0, 2, 7, true, KIV_ERROR_INVALID_ARG},
        {"no plane 0 and format 7", 4, 2, 7, false, KIV_ERROR_INVALID_ARG},
    };
    for (const Case& c : cases) {
        KivVideoFrame frame = good.frame;
        frame.width = c.width;
        frame.height = c.height;
        frame.format = c.format;
        if (!c.plane0) frame.planes[0] = nullptr;
        EXPECT_EQ(KIV_PushVideoFrame(source, &frame), c.expected) << c.what;
    }
    EXPECT_EQ(g_videoCalls, 0);

    // Every valid format goes through, strides unchecked.
    for (int32_t format = 1; format <= 6; ++format) {
        KivVideoFrame frame = good.frame;
        frame.format = format;
        frame.strides[0] = -12345;
        EXPECT_EQ(KIV_PushVideoFrame(source, &frame), KIV_OK) << format;
    }
    EXPECT_EQ(g_videoCalls, 6);

    for (void* port : {source, videoMux, audioMux}) EXPECT_EQ(KIV_DestroyPort(port), KIV_OK);
}

namespace {

std::string Format(const char* format, ...) {
    char text[512];
    va_list args;
    va_start(args, format);
    std::vsnprintf(text, sizeof(text), format, args);
    va_end(args);
    return text;
}

// The messages of the log lines whose file column is `file`.
std::vector<std::string> Messages(const std::string& log, const std::string& file) {
    std::vector<std::string> out;
    for (const kivtest::LogMessage& m : kivtest::LogMessages(log))
        if (m.file == file) out.push_back(m.text);
    return out;
}

class FailingStop : public KivPortBase {
public:
    FailingStop() : KivPortBase(KIV_PORT_AUDIO_INPUT) {}
    int32_t Stop() override { return failing ? -5 : 0; }
    bool failing = true;
};

}  // namespace

TEST_F(GraphApi, GraphFunctionsLogTheirLines) {
    ASSERT_EQ(KIV_EnableLog(1), KIV_OK);
    void* source = KIV_CreateVideoFrameSource();
    void* mux = KIV_CreateVideoMux();
    void* audioMux = KIV_CreateAudioMux();
    auto* stubborn = new FailingStop();

    KIV_Connect(nullptr, mux);
    KIV_Connect(mux, source);
    KIV_Connect(source, mux);
    KIV_Start(mux);
    KIV_Stop(source);
    KIV_DestroyPort(stubborn);
    stubborn->failing = false;
    KIV_DestroyPort(stubborn);
    KIV_Disconnect(source, mux);
    KIV_DestroyPort(mux);
    ASSERT_EQ(KIV_EnableLog(0), KIV_OK);
    KIV_DestroyPort(source);  // logging is off again: no line
    KIV_DestroyPort(audioMux);

    const std::string log = kivtest::LibraryLog();
    ASSERT_FALSE(log.empty()) << kiv::LogFilePath();
    EXPECT_EQ(Messages(log, "kiv_video_mux.cpp"), std::vector<std::string>{"Create video mux"});
    const std::vector<std::string> expected = {
        Format("KIV_Connect invalid src=%p dst=%p", static_cast<void*>(nullptr), mux),
        "KIV_Connect unsupported srcType=20 dstType=3",
        Format("KIV_Connect src=%p type=3 dst=%p type=20 result=0", source, mux),
        Format("KIV_Start port=%p type=20 result=0", mux),
        Format("KIV_Stop port=%p type=3 result=0", source),
        Format("KIV_DestroyPort begin port=%p type=2", static_cast<void*>(stubborn)),
        Format("KIV_DestroyPort stopped port=%p type=2 result=-5", static_cast<void*>(stubborn)),
        Format("KIV_DestroyPort aborted port=%p type=2 stopResult=-5", static_cast<void*>(stubborn)),
        Format("KIV_DestroyPort begin port=%p type=2", static_cast<void*>(stubborn)),
        Format("KIV_DestroyPort stopped port=%p type=2 result=0", static_cast<void*>(stubborn)),
        Format("KIV_DestroyPort complete port=%p type=2", static_cast<void*>(stubborn)),
        Format("KIV_DestroyPort begin port=%p type=20", mux),
        Format("KIV_DestroyPort stopped port=%p type=20 result=0", mux),
        Format("KIV_DestroyPort complete port=%p type=20", mux),
    };
    EXPECT_EQ(Messages(log, "kiv_api.cpp"), expected);
}
