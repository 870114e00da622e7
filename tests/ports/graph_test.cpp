// KIV_Connect's pair rules, the graph functions' bad input and log lines, and
// frame delivery: order, graph changes from inside a delivery, muxes, destroy.
#include <gtest/gtest.h>

#include <cstdio>
#include <functional>
#include <memory>

#include "kivcapture.h"
#include "ports/kiv_port_base.h"
#include "test_support.h"

using Entries = std::vector<std::string>;

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

class TypedPort : public KivPortBase {
public:
    explicit TypedPort(int32_t type) : KivPortBase(type) {}
};

// Connects two bare ports of the given types: the result and the entries added.
std::pair<int32_t, size_t> ConnectTypes(int32_t srcType, int32_t dstType) {
    TypedPort src(srcType), dst(dstType);
    const int32_t result = KIV_Connect(&src, &dst);
    return {result, src.DownstreamCount()};
}

}  // namespace

TEST(ConnectTable, EveryPairOfPortTypesFollowsTheGrid) {
    int allowed = 0;
    for (int s = 0; s < 13; ++s)
        for (int d = 0; d < 13; ++d) {
            const bool ok = kGrid[s][size_t(d) * 3] == 'x';
            allowed += ok;
            EXPECT_EQ(ConnectTypes(kTypes[s], kTypes[d]), std::make_pair(ok ? KIV_OK : KIV_ERROR_UNSUPPORTED, size_t(ok)))
                << kTypes[s] << " -> " << kTypes[d];
        }
    EXPECT_EQ(allowed, 43);
    const std::pair<int32_t, size_t> refused(KIV_ERROR_UNSUPPORTED, 0);
    for (int32_t bad : {0, -1, 4, 12, 25, 29, 33, 1000})
        for (int32_t good : kTypes) {
            EXPECT_EQ(ConnectTypes(bad, good), refused) << bad << " -> " << good;
            EXPECT_EQ(ConnectTypes(good, bad), refused) << good << " -> " << bad;
        }
}

namespace {

// A journal of who got which frame, in order.
Entries g_journal;
Entries Take() {
    Entries taken;
    taken.swap(g_journal);
    return taken;
}

// A sink port, or a callback target through Video and Audio: journals its
// name for every frame, keeps the last records and runs an action.
struct Sink : KivPortBase {
    explicit Sink(std::string n = {}, int32_t type = KIV_PORT_VIDEO_RENDER) : KivPortBase(type), name(std::move(n)) {}
    int32_t OnVideoFrame(const KivVideoFrame* f) override { return lastVideo = f, Hit(); }
    int32_t OnAudioFrame(const KivAudioFrame* f) override { return lastAudio = f, Hit(); }
    int32_t Hit() {
        ++calls;
        if (!name.empty()) g_journal.push_back(name);
        if (action) action();
        return 0;
    }
    static void KIV_CALL Video(const KivVideoFrame* f, void* user) { static_cast<Sink*>(user)->OnVideoFrame(f); }
    static void KIV_CALL Audio(const KivAudioFrame* f, void* user) { static_cast<Sink*>(user)->OnAudioFrame(f); }
    std::string name;
    std::function<void()> action;
    const KivVideoFrame* lastVideo = nullptr;
    const KivAudioFrame* lastAudio = nullptr;
    int calls = 0;
};

// Start and stop fail until told otherwise; reports its destruction.
struct StubbornPort : KivPortBase {
    StubbornPort(bool* destroyed, int32_t type) : KivPortBase(type), destroyed(destroyed) {}
    ~StubbornPort() override { *destroyed = true; }
    int32_t Stop() override { return ++stops, stopResult; }
    int32_t Start() override { return -9; }
    bool* destroyed;
    int32_t stopResult = -7;
    int stops = 0;
};

std::string Format(const char* format, const void* a, const void* b = nullptr) {
    char text[256];
    std::snprintf(text, sizeof(text), format, a, b);
    return text;
}

class Graph : public ::testing::Test {
protected:
    // One library start-up per suite: slow under emulation on Windows.
    static void SetUpTestSuite() { library_ = std::make_unique<kivtest::LibraryScope>(); }
    static void TearDownTestSuite() { library_.reset(); }
    void TearDown() override {
        for (void* port : {source, mux, audioMux}) EXPECT_EQ(KIV_DestroyPort(port), KIV_OK);
        g_journal.clear();
    }
    int32_t Push() { return KIV_PushVideoFrame(source, &pattern.frame); }

    static inline std::unique_ptr<kivtest::LibraryScope> library_;
    kivtest::OwnedFrame pattern{KIV_PIXEL_FORMAT_RGB32, 8, 4, 0x5A};
    void* source = KIV_CreateVideoFrameSource();
    void* mux = KIV_CreateVideoMux();
    void* audioMux = KIV_CreateAudioMux();
};

}  // namespace

TEST_F(Graph, BadHandlesAndFramesAreRejectedInOrder) {
    const std::vector<int> rejected = {
        KIV_Connect(nullptr, mux), KIV_Connect(mux, nullptr), KIV_Disconnect(nullptr, mux), KIV_Disconnect(mux, nullptr),
        KIV_Start(nullptr), KIV_Stop(nullptr), KIV_DestroyPort(nullptr), KIV_SetVideoFrameCallback(nullptr, Sink::Video, nullptr),
        KIV_SetAudioFrameCallback(nullptr, Sink::Audio, nullptr), static_cast<KivPortBase*>(mux)->AddDownstream(nullptr)};
    EXPECT_EQ(rejected, std::vector<int>(rejected.size(), KIV_ERROR_INVALID_ARG));
    EXPECT_EQ(static_cast<KivPortBase*>(mux)->DownstreamCount(), 0u);
    EXPECT_EQ(KIV_Disconnect(source, mux), KIV_OK);  // never connected: not an error

    Sink probe;
    TypedPort lookalike(KIV_PORT_VIDEO_FRAME_SOURCE);  // right type value, wrong class
    ASSERT_EQ(KIV_SetVideoFrameCallback(source, Sink::Video, &probe), KIV_OK);
    kivtest::OwnedFrame good(KIV_PIXEL_FORMAT_NV12, 4, 2);
    for (void* port : {static_cast<void*>(nullptr), mux, audioMux, static_cast<void*>(&lookalike)})
        EXPECT_EQ(KIV_PushVideoFrame(port, &good.frame), KIV_ERROR_INVALID_ARG);
    EXPECT_EQ(KIV_PushVideoFrame(source, nullptr), KIV_ERROR_INVALID_ARG);
    const struct {
        int32_t width, height, format;
        bool plane0;
        KivResult expected;
    } cases[] = {
        {0, 2, 2, true, KIV_ERROR_INVALID_ARG}, {4, -1, 2, true, KIV_ERROR_INVALID_ARG}, {4, 2, 0, true, KIV_ERROR_INVALID_ARG},
        {4, 2, 2, false, KIV_ERROR_INVALID_ARG}, {4, 2, 7, true, KIV_ERROR_UNSUPPORTED}, {4, 2, -1, true, KIV_ERROR_UNSUPPORTED},
        {0, 2, 7, true, KIV_ERROR_INVALID_ARG}, {4, 2, 7, false, KIV_ERROR_INVALID_ARG},  // size, plane, then format
    };
    for (const auto& c : cases) {
        KivVideoFrame frame = good.frame;
        frame.width = c.width, frame.height = c.height, frame.format = c.format;
        if (!c.plane0) frame.planes[0] = nullptr;
        EXPECT_EQ(KIV_PushVideoFrame(source, &frame), c.expected) << c.width << "x" << c.height << " " << c.format;
    }
    EXPECT_EQ(probe.calls, 0);
    for (int32_t format = 1; format <= 6; ++format) {  // every valid format goes through, strides unchecked
        KivVideoFrame frame = good.frame;
        frame.format = format, frame.strides[0] = -12345;
        EXPECT_EQ(KIV_PushVideoFrame(source, &frame), KIV_OK) << format;
    }
    EXPECT_EQ(probe.calls, 6);
}

TEST_F(Graph, GraphFunctionsLogTheirLines) {
    ASSERT_EQ(KIV_EnableLog(1), KIV_OK);
    void* mux2 = KIV_CreateVideoMux();
    bool destroyed = false;
    auto* stubborn = new StubbornPort(&destroyed, KIV_PORT_AUDIO_INPUT);
    stubborn->stopResult = -5;
    KIV_Connect(nullptr, mux2);
    KIV_Connect(mux2, source);
    KIV_Connect(source, mux2);
    KIV_Start(mux2);
    KIV_Stop(source);
    KIV_DestroyPort(stubborn);
    stubborn->stopResult = 0;
    KIV_DestroyPort(stubborn);
    KIV_Disconnect(source, mux2);
    KIV_DestroyPort(mux2);
    ASSERT_EQ(KIV_EnableLog(0), KIV_OK);
    KIV_Connect(source, mux);  // logging is off again: no line

    std::vector<std::string> api, muxLines;
    for (const kivtest::LogMessage& m : kivtest::LogMessages(kivtest::LibraryLog())) {
        if (m.file == "kiv_api.cpp") api.push_back(m.text);
        if (m.file == "kiv_video_mux.cpp") muxLines.push_back(m.text);
    }
    EXPECT_EQ(muxLines, Entries{"Create video mux"});
    const void* s = stubborn;
    EXPECT_EQ(api, (Entries{Format("KIV_Connect invalid src=%p dst=%p", nullptr, mux2),
                            "KIV_Connect unsupported srcType=20 dstType=3",
                            Format("KIV_Connect src=%p type=3 dst=%p type=20 result=0", source, mux2),
                            Format("KIV_Start port=%p type=20 result=0", mux2), Format("KIV_Stop port=%p type=3 result=0", source),
                            Format("KIV_DestroyPort begin port=%p type=2", s),
                            Format("KIV_DestroyPort stopped port=%p type=2 result=-5", s),
                            Format("KIV_DestroyPort aborted port=%p type=2 stopResult=-5", s),
                            Format("KIV_DestroyPort begin port=%p type=2", s),
                            Format("KIV_DestroyPort stopped port=%p type=2 result=0", s),
                            Format("KIV_DestroyPort complete port=%p type=2", s),
                            Format("KIV_DestroyPort begin port=%p type=20", mux2),
                            Format("KIV_DestroyPort stopped port=%p type=20 result=0", mux2),
                            Format("KIV_DestroyPort complete port=%p type=20", mux2)}));
}

TEST_F(Graph, CallbackFirstThenDownstreamInConnectionOrder) {
    Sink a("a"), b("b"), c("c"), sourceCb("source-cb"), muxCb("mux-cb"), second;
    EXPECT_EQ(Push(), KIV_OK);  // nothing attached yet
    ASSERT_EQ(KIV_SetVideoFrameCallback(source, Sink::Video, &sourceCb), KIV_OK);
    ASSERT_EQ(KIV_SetVideoFrameCallback(mux, Sink::Video, &muxCb), KIV_OK);
    for (auto pair : {std::make_pair(source, static_cast<void*>(&c)), {source, mux}, {mux, &b}, {mux, &a}, {source, &a},
                      {source, &c}})  // the last one repeated: adds nothing
        ASSERT_EQ(KIV_Connect(pair.first, pair.second), KIV_OK);
    ASSERT_EQ(Push(), KIV_OK);
    EXPECT_EQ(Take(), (Entries{"source-cb", "c", "mux-cb", "b", "a", "a"}));
    for (const Sink* seen : {&sourceCb, &muxCb, &b}) EXPECT_EQ(seen->lastVideo, &pattern.frame);  // the caller's record

    ASSERT_EQ(KIV_Disconnect(source, mux), KIV_OK);  // the rest keep their order
    ASSERT_EQ(KIV_SetVideoFrameCallback(source, nullptr, &sourceCb), KIV_OK);
    ASSERT_EQ(Push(), KIV_OK);
    EXPECT_EQ(Take(), (Entries{"c", "a"}));
    ASSERT_EQ(KIV_SetVideoFrameCallback(source, Sink::Video, &sourceCb), KIV_OK);
    ASSERT_EQ(KIV_SetVideoFrameCallback(source, Sink::Video, &second), KIV_OK);  // calls and user pointer move together
    ASSERT_EQ(Push(), KIV_OK);
    EXPECT_EQ(sourceCb.calls, 1);
    EXPECT_EQ(second.calls, 1);
}

TEST_F(Graph, CallbacksAndSinksMayRewireTheGraphDuringDelivery) {
    Sink first("first"), second("second"), late("late"), cb("cb");
    cb.action = [&] { EXPECT_EQ(KIV_Disconnect(source, &late), KIV_OK); };
    ASSERT_EQ(KIV_SetVideoFrameCallback(source, Sink::Video, &cb), KIV_OK);
    ASSERT_EQ(KIV_Connect(source, &late), KIV_OK);
    ASSERT_EQ(Push(), KIV_OK);  // the list is read after the callback: the removal counts
    EXPECT_EQ(Take(), (Entries{"cb"}));
    cb.action = nullptr;
    first.action = [&] {
        EXPECT_EQ(KIV_Disconnect(mux, &second), KIV_OK);
        EXPECT_EQ(KIV_Connect(mux, &late), KIV_OK);
        EXPECT_EQ(KIV_Connect(source, &late), KIV_OK);
    };
    ASSERT_EQ(KIV_Connect(source, mux), KIV_OK);
    ASSERT_EQ(KIV_Connect(mux, &first), KIV_OK);
    ASSERT_EQ(KIV_Connect(mux, &second), KIV_OK);
    ASSERT_EQ(Push(), KIV_OK);
    // "second" was in the mux's copy of its list; "late" joined after the copies.
    EXPECT_EQ(Take(), (Entries{"cb", "first", "second"}));
    first.action = nullptr;
    ASSERT_EQ(Push(), KIV_OK);
    EXPECT_EQ(Take(), (Entries{"cb", "first", "late", "late"}));

    std::vector<std::unique_ptr<Sink>> sinks;  // wider than any fixed-size snapshot
    Entries all;
    ASSERT_EQ(KIV_Disconnect(source, &late), KIV_OK);
    ASSERT_EQ(KIV_SetVideoFrameCallback(source, nullptr, nullptr), KIV_OK);
    for (void* dst : {&first, &second, &late}) ASSERT_EQ(KIV_Disconnect(mux, dst), KIV_OK);
    for (int i = 0; i < 40; ++i) {
        all.push_back("s" + std::to_string(i));
        sinks.push_back(std::make_unique<Sink>(all.back()));
        ASSERT_EQ(KIV_Connect(mux, sinks.back().get()), KIV_OK);
    }
    ASSERT_EQ(Push(), KIV_OK);
    EXPECT_EQ(Take(), all);
    sinks[0]->action = [&] {  // shrinks the list while the wide copy is delivered: everyone still gets this frame
        for (int i = 1; i < 40; ++i) EXPECT_EQ(KIV_Disconnect(mux, sinks[i].get()), KIV_OK);
    };
    ASSERT_EQ(Push(), KIV_OK);
    EXPECT_EQ(Take(), all);
    sinks[0]->action = nullptr;
    ASSERT_EQ(Push(), KIV_OK);
    EXPECT_EQ(Take(), (Entries{"s0"}));
}

TEST_F(Graph, VideoMuxRejectsNullButAudioMuxPassesItOn) {
    Sink videoSink("video"), audioSink("audio", KIV_PORT_AUDIO_RENDER), videoCb("video-cb"), audioCb("audio-cb");
    auto* video = static_cast<KivPortBase*>(mux);
    auto* audio = static_cast<KivPortBase*>(audioMux);
    ASSERT_EQ(KIV_SetVideoFrameCallback(mux, Sink::Video, &videoCb), KIV_OK);
    ASSERT_EQ(KIV_SetAudioFrameCallback(audioMux, Sink::Audio, &audioCb), KIV_OK);
    ASSERT_EQ(KIV_Connect(mux, &videoSink), KIV_OK);
    ASSERT_EQ(KIV_Connect(audioMux, &audioSink), KIV_OK);
    EXPECT_EQ(video->OnVideoFrame(nullptr), KIV_ERROR_INVALID_ARG);
    EXPECT_EQ(Take(), Entries{});
    audioSink.lastAudio = reinterpret_cast<const KivAudioFrame*>(&g_journal);  // poison
    EXPECT_EQ(audio->OnAudioFrame(nullptr), KIV_OK);
    EXPECT_EQ(Take(), (Entries{"audio-cb", "audio"}));
    EXPECT_EQ(audioSink.lastAudio, nullptr);

    int16_t samples[4] = {1, -1, 2, -2};  // each mux forwards only its own kind
    KivAudioFrame packet{reinterpret_cast<uint8_t*>(samples), sizeof(samples), 48000, 2, 16, 0, 0};
    EXPECT_EQ(video->OnAudioFrame(&packet), KIV_OK);
    EXPECT_EQ(audio->OnVideoFrame(&pattern.frame), KIV_OK);
    EXPECT_EQ(Take(), Entries{});
    EXPECT_EQ(audio->OnAudioFrame(&packet), KIV_OK);
    EXPECT_EQ(Take(), (Entries{"audio-cb", "audio"}));
    EXPECT_EQ(audioCb.lastAudio, &packet);
}

TEST_F(Graph, FailingStopKeepsThePortAliveAndOthersStartAsNoOps) {
    bool destroyed = false;
    auto* port = new StubbornPort(&destroyed, KIV_PORT_RECORDER);
    EXPECT_EQ(KIV_Start(port), -9);  // the port's own codes pass through
    EXPECT_EQ(KIV_Stop(port), -7);
    EXPECT_EQ(KIV_DestroyPort(port), -7);
    EXPECT_FALSE(destroyed);
    EXPECT_EQ(port->stops, 2);
    Sink sink("sink"), cb("cb");  // still fully usable
    ASSERT_EQ(KIV_SetVideoFrameCallback(port, Sink::Video, &cb), KIV_OK);
    ASSERT_EQ(port->AddDownstream(&sink), KIV_OK);
    port->EmitVideo(&pattern.frame);
    EXPECT_EQ(Take(), (Entries{"cb", "sink"}));
    port->stopResult = 0;
    EXPECT_EQ(KIV_DestroyPort(port), KIV_OK);
    EXPECT_TRUE(destroyed);

    for (void* p : {source, mux, audioMux}) EXPECT_EQ(std::vector<int>({KIV_Start(p), KIV_Stop(p), KIV_Start(p)}), std::vector<int>(3, 0));
    ASSERT_EQ(KIV_Connect(source, &sink), KIV_OK);
    ASSERT_EQ(KIV_Stop(source), KIV_OK);
    ASSERT_EQ(Push(), KIV_OK);  // a stopped frame source still delivers
    EXPECT_EQ(Take(), (Entries{"sink"}));
}
