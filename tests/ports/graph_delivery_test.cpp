// Frame delivery through the graph: order, re-entrant graph changes from
// inside a delivery, the muxes, and destruction.
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "kivcapture.h"
#include "port_test_helpers.h"
#include "ports/kiv_video_mux.h"
#include "test_support.h"

using porttest::Journal;
using porttest::RecordingSink;
using Entries = std::vector<std::string>;

namespace {

struct CallbackProbe {
    explicit CallbackProbe(Journal* j = nullptr, std::string n = {}) : journal(j), name(std::move(n)) {}
    Journal* journal;
    std::string name;
    std::function<void()> action;  // runs inside the callback
    const KivVideoFrame* lastVideo = nullptr;
    const KivAudioFrame* lastAudio = nullptr;
    int calls = 0;
};

void KIV_CALL ProbeVideo(const KivVideoFrame* frame, void* user) {
    auto* probe = static_cast<CallbackProbe*>(user);
    probe->lastVideo = frame;
    ++probe->calls;
    if (probe->journal) probe->journal->Add(probe->name);
    if (probe->action) probe->action();
}

void KIV_CALL ProbeAudio(const KivAudioFrame* frame, void* user) {
    auto* probe = static_cast<CallbackProbe*>(user);
    probe->lastAudio = frame;
    ++probe->calls;
    if (probe->journal) probe->journal->Add(probe->name);
}

// A sink that runs an action on each frame, for graph changes from inside
// downstream delivery.
class ActingSink : public RecordingSink {
public:
    using RecordingSink::RecordingSink;
    std::function<void()> action;
    int32_t OnVideoFrame(const KivVideoFrame* frame) override {
        RecordingSink::OnVideoFrame(frame);
        if (action) action();
        return 0;
    }
};

class GraphDelivery : public porttest::LibrarySuite {
protected:
    kivtest::OwnedFrame pattern{KIV_PIXEL_FORMAT_RGB32, 8, 4, 0x5A};
    Journal journal;

    void* source = KIV_CreateVideoFrameSource();
    void* mux = KIV_CreateVideoMux();

    void TearDown() override {
        EXPECT_EQ(KIV_DestroyPort(source), KIV_OK);
        EXPECT_EQ(KIV_DestroyPort(mux), KIV_OK);
    }
    int32_t Push() { return KIV_PushVideoFrame(source, &pattern.frame); }
};

}  // namespace

TEST_F(GraphDelivery, CallbackFirstThenDownstreamInConnectionOrder) {
    RecordingSink a(&journal, "a"), b(&journal, "b"), c(&journal, "c");
    CallbackProbe sourceProbe(&journal, "source-callback");
    CallbackProbe muxProbe(&journal, "mux-callback");
    ASSERT_EQ(KIV_SetVideoFrameCallback(source, ProbeVideo, &sourceProbe), KIV_OK);
    ASSERT_EQ(KIV_SetVideoFrameCallback(mux, ProbeVideo, &muxProbe), KIV_OK);
    ASSERT_EQ(KIV_Connect(source, &c), KIV_OK);
    ASSERT_EQ(KIV_Connect(source, mux), KIV_OK);
    ASSERT_EQ(KIV_Connect(mux, &b), KIV_OK);
    ASSERT_EQ(KIV_Connect(mux, &a), KIV_OK);
    ASSERT_EQ(KIV_Connect(source, &a), KIV_OK);
    ASSERT_EQ(KIV_Connect(source, &c), KIV_OK);  // repeated: adds nothing

    ASSERT_EQ(Push(), KIV_OK);
    EXPECT_EQ(journal.Take(), (Entries{"source-callback", "c", "mux-callback", "b", "a", "a"}));

    // Everyone sees the application's own record, unchanged and uncopied.
    EXPECT_EQ(sourceProbe.lastVideo, &pattern.frame);
    EXPECT_EQ(muxProbe.lastVideo, &pattern.frame);
    EXPECT_EQ(b.lastVideo, &pattern.frame);

    // Removing one keeps the order of the rest.
    ASSERT_EQ(KIV_Disconnect(source, mux), KIV_OK);
    ASSERT_EQ(Push(), KIV_OK);
    EXPECT_EQ(journal.Take(), (Entries{"source-callback", "c", "a"}));
}

TEST_F(GraphDelivery, NullCallbackStopsCallsFromTheNextFrame) {
    EXPECT_EQ(Push(), KIV_OK);  // nothing attached yet
    CallbackProbe probe;
    ASSERT_EQ(KIV_SetVideoFrameCallback(source, ProbeVideo, &probe), KIV_OK);
    ASSERT_EQ(Push(), KIV_OK);
    ASSERT_EQ(KIV_SetVideoFrameCallback(source, nullptr, &probe), KIV_OK);
    ASSERT_EQ(Push(), KIV_OK);
    EXPECT_EQ(probe.calls, 1);

    // Replacing a callback moves the calls and the user pointer together.
    CallbackProbe second;
    ASSERT_EQ(KIV_SetVideoFrameCallback(source, ProbeVideo, &probe), KIV_OK);
    ASSERT_EQ(KIV_SetVideoFrameCallback(source, ProbeVideo, &second), KIV_OK);
    ASSERT_EQ(Push(), KIV_OK);
    EXPECT_EQ(probe.calls, 1);
    EXPECT_EQ(second.calls, 1);
}

TEST_F(GraphDelivery, CallbackMayDisconnectItsOwnPortWithoutDeadlock) {
    RecordingSink a(&journal, "a");
    CallbackProbe probe(&journal, "callback");
    probe.action = [&] { EXPECT_EQ(KIV_Disconnect(source, &a), KIV_OK); };
    ASSERT_EQ(KIV_SetVideoFrameCallback(source, ProbeVideo, &probe), KIV_OK);
    ASSERT_EQ(KIV_Connect(source, &a), KIV_OK);
    ASSERT_EQ(Push(), KIV_OK);
    // The list is read after the callback, so the removal already counts.
    EXPECT_EQ(journal.Take(), (Entries{"callback"}));
}

TEST_F(GraphDelivery, DownstreamMayRewireTheGraphDuringDelivery) {
    ActingSink first(&journal, "first");
    RecordingSink second(&journal, "second"), late(&journal, "late");
    first.action = [&] {
        EXPECT_EQ(KIV_Disconnect(mux, &second), KIV_OK);
        EXPECT_EQ(KIV_Connect(mux, &late), KIV_OK);
        EXPECT_EQ(KIV_Connect(source, &late), KIV_OK);
    };
    ASSERT_EQ(KIV_Connect(source, mux), KIV_OK);
    ASSERT_EQ(KIV_Connect(mux, &first), KIV_OK);
    ASSERT_EQ(KIV_Connect(mux, &second), KIV_OK);

    ASSERT_EQ(Push(), KIV_OK);
    // "second" was in the mux's copy of its list, so it still gets this
    // frame; "late" joined both lists after their copies were taken.
    EXPECT_EQ(journal.Take(), (Entries{"first", "second"}));

    first.action = nullptr;
    ASSERT_EQ(Push(), KIV_OK);
    EXPECT_EQ(journal.Take(), (Entries{"first", "late", "late"}));
}

TEST_F(GraphDelivery, WideFanOutKeepsOrderAndSurvivesRewiring) {
    constexpr int kSinks = 40;  // wider than any fixed-size snapshot
    std::vector<std::unique_ptr<ActingSink>> sinks;
    Entries expected;
    for (int i = 0; i < kSinks; ++i) {
        sinks.push_back(std::make_unique<ActingSink>(&journal, "s" + std::to_string(i)));
        ASSERT_EQ(KIV_Connect(mux, sinks.back().get()), KIV_OK);
        expected.push_back("s" + std::to_string(i));
    }
    ASSERT_EQ(KIV_Connect(source, mux), KIV_OK);
    ASSERT_EQ(Push(), KIV_OK);
    EXPECT_EQ(journal.Take(), expected);

    // The first sink shrinks the list below the stack snapshot's size while
    // the wide copy is being delivered: every sink still gets this frame.
    sinks[0]->action = [&] {
        for (int i = 1; i < kSinks; ++i) EXPECT_EQ(KIV_Disconnect(mux, sinks[i].get()), KIV_OK);
    };
    ASSERT_EQ(Push(), KIV_OK);
    EXPECT_EQ(journal.Take(), expected);
    sinks[0]->action = nullptr;
    ASSERT_EQ(Push(), KIV_OK);
    EXPECT_EQ(journal.Take(), (Entries{"s0"}));
}

TEST_F(GraphDelivery, VideoMuxRejectsNullButAudioMuxPassesItOn) {
    RecordingSink videoSink(&journal, "video"), audioSink(&journal, "audio", KIV_PORT_AUDIO_RENDER);
    auto* videoMux = static_cast<KivPortBase*>(mux);
    void* audioMux = KIV_CreateAudioMux();
    ASSERT_NE(audioMux, nullptr);
    CallbackProbe videoProbe(&journal, "video-callback"), audioProbe(&journal, "audio-callback");
    ASSERT_EQ(KIV_SetVideoFrameCallback(mux, ProbeVideo, &videoProbe), KIV_OK);
    ASSERT_EQ(KIV_SetAudioFrameCallback(audioMux, ProbeAudio, &audioProbe), KIV_OK);
    ASSERT_EQ(KIV_Connect(mux, &videoSink), KIV_OK);
    ASSERT_EQ(KIV_Connect(audioMux, &audioSink), KIV_OK);

    EXPECT_EQ(videoMux->OnVideoFrame(nullptr), KIV_ERROR_INVALID_ARG);
    EXPECT_TRUE(journal.Take().empty());

    audioSink.lastAudio = reinterpret_cast<const KivAudioFrame*>(&journal);  // poison
    EXPECT_EQ(static_cast<KivPortBase*>(audioMux)->OnAudioFrame(nullptr), KIV_OK);
    EXPECT_EQ(journal.Take(), (Entries{"audio-callback", "audio"}));
    EXPECT_EQ(audioSink.lastAudio, nullptr);

    // Each mux forwards only its own kind.
    int16_t samples[4] = {1, -1, 2, -2};
    KivAudioFrame audio{reinterpret_cast<uint8_t*>(samples), sizeof(samples), 48000, 2, 16, 0, 0};
    EXPECT_EQ(videoMux->OnAudioFrame(&audio), KIV_OK);
    EXPECT_EQ(static_cast<KivPortBase*>(audioMux)->OnVideoFrame(&pattern.frame), KIV_OK);
    EXPECT_TRUE(journal.Take().empty());
    EXPECT_EQ(static_cast<KivPortBase*>(audioMux)->OnAudioFrame(&audio), KIV_OK);
    EXPECT_EQ(journal.Take(), (Entries{"audio-callback", "audio"}));
    EXPECT_EQ(audioProbe.lastAudio, &audio);
    EXPECT_EQ(KIV_DestroyPort(audioMux), KIV_OK);
}

namespace {

// A port whose stop can be made to fail, and which reports its destruction.
class StubbornPort : public KivPortBase {
public:
    StubbornPort(bool* destroyed) : KivPortBase(KIV_PORT_RECORDER), destroyed_(destroyed) {}
    ~StubbornPort() override { *destroyed_ = true; }
    int32_t Stop() override {
        ++stops;
        return stopResult;
    }
    int32_t Start() override { return startResult; }
    int32_t stopResult = -7;
    int32_t startResult = -9;
    int stops = 0;

private:
    bool* destroyed_;
};

}  // namespace

TEST_F(GraphDelivery, FailingStopKeepsThePortAlive) {
    bool destroyed = false;
    auto* port = new StubbornPort(&destroyed);
    RecordingSink sink(&journal, "sink");
    CallbackProbe probe(&journal, "callback");

    EXPECT_EQ(KIV_Start(port), -9);  // the port's own codes pass through
    EXPECT_EQ(KIV_Stop(port), -7);
    EXPECT_EQ(KIV_DestroyPort(port), -7);
    EXPECT_FALSE(destroyed);
    EXPECT_EQ(port->stops, 2);

    // Still fully usable.
    ASSERT_EQ(KIV_SetVideoFrameCallback(port, ProbeVideo, &probe), KIV_OK);
    ASSERT_EQ(port->AddDownstream(&sink), KIV_OK);
    port->EmitVideo(&pattern.frame);
    EXPECT_EQ(journal.Take(), (Entries{"callback", "sink"}));

    port->stopResult = 0;
    EXPECT_EQ(KIV_DestroyPort(port), KIV_OK);
    EXPECT_TRUE(destroyed);
}

TEST_F(GraphDelivery, PortsWithoutALifeStartAndStopAsNoOps) {
    void* audioMux = KIV_CreateAudioMux();
    for (void* port : {source, mux, audioMux}) {
        EXPECT_EQ(KIV_Start(port), KIV_OK);
        EXPECT_EQ(KIV_Stop(port), KIV_OK);
        EXPECT_EQ(KIV_Start(port), KIV_OK);  // no state to get wrong
    }
    RecordingSink sink(&journal, "sink");
    ASSERT_EQ(KIV_Connect(source, &sink), KIV_OK);
    ASSERT_EQ(KIV_Stop(source), KIV_OK);
    ASSERT_EQ(Push(), KIV_OK);  // a stopped frame source still delivers
    EXPECT_EQ(journal.Take(), (Entries{"sink"}));
    EXPECT_EQ(KIV_DestroyPort(audioMux), KIV_OK);
}
