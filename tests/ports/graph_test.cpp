// KIV_Connect's pair rules, the graph functions' bad input and log lines, and
// frame delivery: order, graph changes from inside a delivery, muxes, destroy.
#include <gtest/gtest.h>

#include <cstdio>

#include "core/kiv_state.h"
#include "kivcapture.h"
#include "port_test_helpers.h"

using namespace porttest;

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

// Connects two bare ports of the given types: the result, and whether an entry was added.
std::pair<int32_t, size_t> ConnectTypes(int32_t srcType, int32_t dstType) {
    TypedPort src(srcType), dst(dstType);
    const int32_t result = KIV_Connect(&src, &dst);
    return {result, src.DownstreamCount()};
}

}  // namespace

TEST(ConnectTable, EveryPairOfPortTypesFollowsTheGrid) {
    int allowed = 0;
    for (int s = 0; s < 13; ++s) {
        for (int d = 0; d < 13; ++d) {
            const bool ok = kGrid[s][size_t(d) * 3] == 'x';
            allowed += ok;
            EXPECT_EQ(ConnectTypes(kTypes[s], kTypes[d]), std::make_pair(ok ? KIV_OK : KIV_ERROR_UNSUPPORTED, size_t(ok)))
                << kTypes[s] << " -> " << kTypes[d];
        }
    }
    EXPECT_EQ(allowed, 43);
    const std::pair<int32_t, size_t> refused(KIV_ERROR_UNSUPPORTED, 0);
    for (int32_t bad : {0, -1, 4, 12, 25, 29, 33, 1000}) {
        for (int32_t good : kTypes) {
            EXPECT_EQ(ConnectTypes(bad, good), refused) << bad << " -> " << good;
            EXPECT_EQ(ConnectTypes(good, bad), refused) << good << " -> " << bad;
        }
    }
}

namespace {

struct Probe {
    explicit Probe(Journal* j = nullptr, std::string n = {}) : journal(j), name(std::move(n)) {}
    Journal* journal;
    std::string name;
    std::function<void()> action;  // runs inside the callback
    const KivVideoFrame* lastVideo = nullptr;
    const KivAudioFrame* lastAudio = nullptr;
    int calls = 0;
    void Hit() {
        ++calls;
        if (journal) journal->Add(name);
        if (action) action();
    }
    static void KIV_CALL Video(const KivVideoFrame* f, void* user) {
        static_cast<Probe*>(user)->lastVideo = f;
        static_cast<Probe*>(user)->Hit();
    }
    static void KIV_CALL Audio(const KivAudioFrame* f, void* user) {
        static_cast<Probe*>(user)->lastAudio = f;
        static_cast<Probe*>(user)->Hit();
    }
};

std::string Format(const char* format, const void* a, const void* b = nullptr) {
    char text[256];
    std::snprintf(text, sizeof(text), format, a, b);
    return text;
}

// A port whose start and stop fail until told otherwise; reports its destruction.
class StubbornPort : public KivPortBase {
public:
    StubbornPort(bool* destroyed, int32_t type) : KivPortBase(type), destroyed_(destroyed) {}
    ~StubbornPort() override { *destroyed_ = true; }
    int32_t Stop() override { return ++stops, stopResult; }
    int32_t Start() override { return -9; }
    int32_t stopResult = -7;
    int stops = 0;

private:
    bool* destroyed_;
};

class Graph : public LibrarySuite {
protected:
    kivtest::OwnedFrame pattern{KIV_PIXEL_FORMAT_RGB32, 8, 4, 0x5A};
    Journal journal;
    void* source = KIV_CreateVideoFrameSource();
    void* mux = KIV_CreateVideoMux();
    void* audioMux = KIV_CreateAudioMux();

    void TearDown() override {
        for (void* port : {source, mux, audioMux}) EXPECT_EQ(KIV_DestroyPort(port), KIV_OK);
    }
    int32_t Push() { return KIV_PushVideoFrame(source, &pattern.frame); }
};

}  // namespace

TEST_F(Graph, BadHandlesAndFramesAreRejectedInOrder) {
    Probe probe;
    const std::vector<int> rejected = {
        KIV_Connect(nullptr, mux), KIV_Connect(mux, nullptr), KIV_Disconnect(nullptr, mux), KIV_Disconnect(mux, nullptr),
        KIV_Start(nullptr), KIV_Stop(nullptr), KIV_DestroyPort(nullptr), KIV_SetVideoFrameCallback(nullptr, Probe::Video, nullptr),
        KIV_SetAudioFrameCallback(nullptr, Probe::Audio, nullptr), static_cast<KivPortBase*>(mux)->AddDownstream(nullptr)};
    EXPECT_EQ(rejected, std::vector<int>(rejected.size(), KIV_ERROR_INVALID_ARG));
    EXPECT_EQ(static_cast<KivPortBase*>(mux)->DownstreamCount(), 0u);
    EXPECT_EQ(KIV_Disconnect(source, mux), KIV_OK);  // never connected: not an error

    TypedPort lookalike(KIV_PORT_VIDEO_FRAME_SOURCE);  // right type value, wrong class
    ASSERT_EQ(KIV_SetVideoFrameCallback(source, Probe::Video, &probe), KIV_OK);
    kivtest::OwnedFrame good(KIV_PIXEL_FORMAT_NV12, 4, 2);
    for (void* port : {static_cast<void*>(nullptr), mux, audioMux, static_cast<void*>(&lookalike)})
        EXPECT_EQ(KIV_PushVideoFrame(port, &good.frame), KIV_ERROR_INVALID_ARG);
    EXPECT_EQ(KIV_PushVideoFrame(source, nullptr), KIV_ERROR_INVALID_ARG);
    const struct {
        int32_t width, height, format;
        bool plane0;
        KivResult expected;
    } cases[] = {
        {0, 2, 2, true, KIV_ERROR_INVALID_ARG},  {4, -1, 2, true, KIV_ERROR_INVALID_ARG},
        {4, 2, 0, true, KIV_ERROR_INVALID_ARG},  {4, 2, 2, false, KIV_ERROR_INVALID_ARG},
        {4, 2, 7, true, KIV_ERROR_UNSUPPORTED},  {4, 2, -1, true, KIV_ERROR_UNSUPPORTED},
        {0, 2, 7, true, KIV_ERROR_INVALID_ARG},  {4, 2, 7, false, KIV_ERROR_INVALID_ARG},  // size, plane, then format
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
        frame.format = format;
        frame.strides[0] = -12345;
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
    EXPECT_EQ(api, (Entries{
                       Format("KIV_Connect invalid src=%p dst=%p", nullptr, mux2),
                       "KIV_Connect unsupported srcType=20 dstType=3",
                       Format("KIV_Connect src=%p type=3 dst=%p type=20 result=0", source, mux2),
                       Format("KIV_Start port=%p type=20 result=0", mux2),
                       Format("KIV_Stop port=%p type=3 result=0", source),
                       Format("KIV_DestroyPort begin port=%p type=2", s),
                       Format("KIV_DestroyPort stopped port=%p type=2 result=-5", s),
                       Format("KIV_DestroyPort aborted port=%p type=2 stopResult=-5", s),
                       Format("KIV_DestroyPort begin port=%p type=2", s),
                       Format("KIV_DestroyPort stopped port=%p type=2 result=0", s),
                       Format("KIV_DestroyPort complete port=%p type=2", s),
                       Format("KIV_DestroyPort begin port=%p type=20", mux2),
                       Format("KIV_DestroyPort stopped port=%p type=20 result=0", mux2),
                       Format("KIV_DestroyPort complete port=%p type=20", mux2),
                   }));
}

TEST_F(Graph, CallbackFirstThenDownstreamInConnectionOrder) {
    RecordingSink a(&journal, "a"), b(&journal, "b"), c(&journal, "c");
    Probe sourceProbe(&journal, "source-cb"), muxProbe(&journal, "mux-cb");
    EXPECT_EQ(Push(), KIV_OK);  // nothing attached yet
    ASSERT_EQ(KIV_SetVideoFrameCallback(source, Probe::Video, &sourceProbe), KIV_OK);
    ASSERT_EQ(KIV_SetVideoFrameCallback(mux, Probe::Video, &muxProbe), KIV_OK);
    for (auto pair : {std::make_pair(source, static_cast<void*>(&c)), {source, mux}, {mux, &b}, {mux, &a},
                      {source, &a}, {source, &c}})  // the last one repeated: adds nothing
        ASSERT_EQ(KIV_Connect(pair.first, pair.second), KIV_OK);
    ASSERT_EQ(Push(), KIV_OK);
    EXPECT_EQ(journal.Take(), (Entries{"source-cb", "c", "mux-cb", "b", "a", "a"}));
    // Everyone sees the application's own record, uncopied.
    EXPECT_EQ(sourceProbe.lastVideo, &pattern.frame);
    EXPECT_EQ(muxProbe.lastVideo, &pattern.frame);
    EXPECT_EQ(b.lastVideo, &pattern.frame);

    ASSERT_EQ(KIV_Disconnect(source, mux), KIV_OK);  // the rest keep their order
    ASSERT_EQ(KIV_SetVideoFrameCallback(source, nullptr, &sourceProbe), KIV_OK);
    ASSERT_EQ(Push(), KIV_OK);
    EXPECT_EQ(journal.Take(), (Entries{"c", "a"}));
    // Replacing a callback moves the calls and the user pointer together.
    Probe second;
    ASSERT_EQ(KIV_SetVideoFrameCallback(source, Probe::Video, &sourceProbe), KIV_OK);
    ASSERT_EQ(KIV_SetVideoFrameCallback(source, Probe::Video, &second), KIV_OK);
    ASSERT_EQ(Push(), KIV_OK);
    EXPECT_EQ(sourceProbe.calls, 1);
    EXPECT_EQ(second.calls, 1);
}

TEST_F(Graph, CallbacksAndSinksMayRewireTheGraphDuringDelivery) {
    RecordingSink first(&journal, "first"), second(&journal, "second"), late(&journal, "late");
    Probe probe(&journal, "cb");
    probe.action = [&] { EXPECT_EQ(KIV_Disconnect(source, &late), KIV_OK); };
    ASSERT_EQ(KIV_SetVideoFrameCallback(source, Probe::Video, &probe), KIV_OK);
    ASSERT_EQ(KIV_Connect(source, &late), KIV_OK);
    ASSERT_EQ(Push(), KIV_OK);  // the list is read after the callback: the removal counts
    EXPECT_EQ(journal.Take(), (Entries{"cb"}));
    probe.action = nullptr;

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
    EXPECT_EQ(journal.Take(), (Entries{"cb", "first", "second"}));
    first.action = nullptr;
    ASSERT_EQ(Push(), KIV_OK);
    EXPECT_EQ(journal.Take(), (Entries{"cb", "first", "late", "late"}));
}

TEST_F(Graph, WideFanOutKeepsOrderAndSurvivesRewiring) {
    constexpr int kSinks = 40;  // wider than any fixed-size snapshot
    std::vector<std::unique_ptr<RecordingSink>> sinks;
    Entries all;
    for (int i = 0; i < kSinks; ++i) {
        all.push_back("s" + std::to_string(i));
        sinks.push_back(std::make_unique<RecordingSink>(&journal, all.back()));
        ASSERT_EQ(KIV_Connect(mux, sinks.back().get()), KIV_OK);
    }
    ASSERT_EQ(KIV_Connect(source, mux), KIV_OK);
    ASSERT_EQ(Push(), KIV_OK);
    EXPECT_EQ(journal.Take(), all);
    // Shrinking the list while the wide copy is delivered: everyone still gets this frame.
    sinks[0]->action = [&] {
        for (int i = 1; i < kSinks; ++i) EXPECT_EQ(KIV_Disconnect(mux, sinks[i].get()), KIV_OK);
    };
    ASSERT_EQ(Push(), KIV_OK);
    EXPECT_EQ(journal.Take(), all);
    sinks[0]->action = nullptr;
    ASSERT_EQ(Push(), KIV_OK);
    EXPECT_EQ(journal.Take(), (Entries{"s0"}));
}

TEST_F(Graph, VideoMuxRejectsNullButAudioMuxPassesItOn) {
    RecordingSink videoSink(&journal, "video"), audioSink(&journal, "audio", KIV_PORT_AUDIO_RENDER);
    auto* video = static_cast<KivPortBase*>(mux);
    auto* audio = static_cast<KivPortBase*>(audioMux);
    Probe videoProbe(&journal, "video-cb"), audioProbe(&journal, "audio-cb");
    ASSERT_EQ(KIV_SetVideoFrameCallback(mux, Probe::Video, &videoProbe), KIV_OK);
    ASSERT_EQ(KIV_SetAudioFrameCallback(audioMux, Probe::Audio, &audioProbe), KIV_OK);
    ASSERT_EQ(KIV_Connect(mux, &videoSink), KIV_OK);
    ASSERT_EQ(KIV_Connect(audioMux, &audioSink), KIV_OK);
    EXPECT_EQ(video->OnVideoFrame(nullptr), KIV_ERROR_INVALID_ARG);
    EXPECT_TRUE(journal.Take().empty());
    audioSink.lastAudio = reinterpret_cast<const KivAudioFrame*>(&journal);  // poison
    EXPECT_EQ(audio->OnAudioFrame(nullptr), KIV_OK);
    EXPECT_EQ(journal.Take(), (Entries{"audio-cb", "audio"}));
    EXPECT_EQ(audioSink.lastAudio, nullptr);

    int16_t samples[4] = {1, -1, 2, -2};  // each mux forwards only its own kind
    KivAudioFrame packet{reinterpret_cast<uint8_t*>(samples), sizeof(samples), 48000, 2, 16, 0, 0};
    EXPECT_EQ(video->OnAudioFrame(&packet), KIV_OK);
    EXPECT_EQ(audio->OnVideoFrame(&pattern.frame), KIV_OK);
    EXPECT_TRUE(journal.Take().empty());
    EXPECT_EQ(audio->OnAudioFrame(&packet), KIV_OK);
    EXPECT_EQ(journal.Take(), (Entries{"audio-cb", "audio"}));
    EXPECT_EQ(audioProbe.lastAudio, &packet);
}

TEST_F(Graph, FailingStopKeepsThePortAliveAndOthersStartAsNoOps) {
    bool destroyed = false;
    auto* port = new StubbornPort(&destroyed, KIV_PORT_RECORDER);
    EXPECT_EQ(KIV_Start(port), -9);  // the port's own codes pass through
    EXPECT_EQ(KIV_Stop(port), -7);
    EXPECT_EQ(KIV_DestroyPort(port), -7);
    EXPECT_FALSE(destroyed);
    EXPECT_EQ(port->stops, 2);
    RecordingSink sink(&journal, "sink");  // still fully usable
    Probe probe(&journal, "cb");
    ASSERT_EQ(KIV_SetVideoFrameCallback(port, Probe::Video, &probe), KIV_OK);
    ASSERT_EQ(port->AddDownstream(&sink), KIV_OK);
    port->EmitVideo(&pattern.frame);
    EXPECT_EQ(journal.Take(), (Entries{"cb", "sink"}));
    port->stopResult = 0;
    EXPECT_EQ(KIV_DestroyPort(port), KIV_OK);
    EXPECT_TRUE(destroyed);

    for (void* p : {source, mux, audioMux}) {
        EXPECT_EQ(KIV_Start(p), KIV_OK);
        EXPECT_EQ(KIV_Stop(p), KIV_OK);
        EXPECT_EQ(KIV_Start(p), KIV_OK);
    }
    ASSERT_EQ(KIV_Connect(source, &sink), KIV_OK);
    ASSERT_EQ(KIV_Stop(source), KIV_OK);
    ASSERT_EQ(Push(), KIV_OK);  // a stopped frame source still delivers
    EXPECT_EQ(journal.Take(), (Entries{"sink"}));
}
