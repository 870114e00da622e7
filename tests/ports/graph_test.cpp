// KIV_Connect's pair rules, the graph functions' bad input and log lines, frame delivery (order, graph changes
// from inside a delivery, muxes, destroy), and owning frame copies and size rules against images built here.
#include <gtest/gtest.h>

#include <cstdio>
#include <functional>
#include <memory>
#include <utility>

#include "ports/kiv_frame.h"
#include "ports/kiv_port_base.h"
#include "test_support.h"

using Entries = std::vector<std::string>;

namespace {

const int32_t kTypes[13] = {1, 2, 3, 10, 11, 20, 21, 22, 23, 24, 30, 31, 32};
// Row = source, column = destination, in the order of kTypes; 'x' = allowed.
const char* const kGrid[13] = {
    /* 1  video input   */ "...x.x.xxxxx.", /* 2  audio input   */ "...xx.x...x..",
    /* 3  frame source  */ "...x.x.xxxxx.", /* 10 video render  */ ".............",
    /* 11 audio render  */ ".............", /* 20 video mux     */ "...x...xxxxx.",
    /* 21 audio mux     */ "...xx.....x.x", /* 22 overlay       */ "...x.....xxx.",
    /* 23 crop          */ "...x...x.xxx.", /* 24 colour engine */ "...x.x.xx.xx.",
    /* 30 recorder      */ ".............", /* 31 video sink    */ ".............",
    /* 32 audio sink    */ ".............",
};

struct TypedPort : KivPortBase {
    explicit TypedPort(int32_t type) : KivPortBase(type) {}
};

TEST(ConnectTable, EveryPairOfPortTypesFollowsTheGrid) {
    auto connect = [](int32_t srcType, int32_t dstType) {  // the result and the entries added
        TypedPort src(srcType), dst(dstType);
        const int32_t result = KIV_Connect(&src, &dst);
        return std::make_pair(result, src.DownstreamCount());
    };
    int allowed = 0;
    for (int s = 0; s < 13; ++s)
        for (int d = 0; d < 13; ++d) {
            const bool ok = kGrid[s][d] == 'x';
            allowed += ok;
            EXPECT_EQ(connect(kTypes[s], kTypes[d]), std::make_pair(ok ? KIV_OK : KIV_ERROR_UNSUPPORTED, size_t(ok))) << kTypes[s] << " -> " << kTypes[d];
        }
    EXPECT_EQ(allowed, 43);
    for (int32_t bad : {0, -1, 4, 12, 25, 29, 33, 1000})
        for (int32_t good : kTypes) {
            EXPECT_EQ(connect(bad, good), std::make_pair(int32_t(KIV_ERROR_UNSUPPORTED), size_t(0))) << bad << " -> " << good;
            EXPECT_EQ(connect(good, bad), std::make_pair(int32_t(KIV_ERROR_UNSUPPORTED), size_t(0))) << good << " -> " << bad;
        }
}

Entries g_journal;  // who got which frame, in order
Entries Take() { return std::exchange(g_journal, {}); }

// A sink port, or a callback target through Video and Audio: journals its name, keeps the last records, runs an action.
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

// Start and stop fail until told otherwise.
struct StubbornPort : KivPortBase {
    StubbornPort() : KivPortBase(KIV_PORT_AUDIO_INPUT) {}
    int32_t Stop() override { return ++stops, stopResult; }
    int32_t Start() override { return -9; }
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
    } cases[] = {  // size, plane, then format
        {0, 2, 2, true, KIV_ERROR_INVALID_ARG},  {4, -1, 2, true, KIV_ERROR_INVALID_ARG}, {4, 2, 0, true, KIV_ERROR_INVALID_ARG},
        {4, 2, 2, false, KIV_ERROR_INVALID_ARG}, {4, 2, 7, true, KIV_ERROR_UNSUPPORTED},  {4, 2, -1, true, KIV_ERROR_UNSUPPORTED},
        {0, 2, 7, true, KIV_ERROR_INVALID_ARG},  {4, 2, 7, false, KIV_ERROR_INVALID_ARG},
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

// Also: a failing stop keeps the port alive and usable; the port's own codes pass through.
TEST_F(Graph, GraphFunctionsLogTheirLinesAndAFailingStopKeepsThePort) {
    ASSERT_EQ(KIV_EnableLog(1), KIV_OK);
    void* mux2 = KIV_CreateVideoMux();
    auto* stubborn = new StubbornPort();  // destroyed only once its stop succeeds
    KIV_Connect(nullptr, mux2);
    KIV_Connect(mux2, source);
    KIV_Connect(source, mux2);
    KIV_Start(mux2);
    KIV_Stop(source);
    EXPECT_EQ(std::vector<int>({KIV_Start(stubborn), KIV_Stop(stubborn), KIV_DestroyPort(stubborn)}), std::vector<int>({-9, -7, -7}));
    EXPECT_EQ(stubborn->stops, 2);
    Sink sink("sink"), cb("cb");
    ASSERT_EQ(KIV_SetVideoFrameCallback(stubborn, Sink::Video, &cb), KIV_OK);
    ASSERT_EQ(stubborn->AddDownstream(&sink), KIV_OK);
    stubborn->EmitVideo(&pattern.frame);
    EXPECT_EQ(Take(), (Entries{"cb", "sink"}));
    stubborn->stopResult = 0;
    EXPECT_EQ(KIV_DestroyPort(stubborn), KIV_OK);
    KIV_Disconnect(source, mux2);
    KIV_DestroyPort(mux2);
    ASSERT_EQ(KIV_EnableLog(0), KIV_OK);
    KIV_Connect(source, mux);  // logging is off again: no line

    Entries api, muxLines;
    for (const kivtest::LogMessage& m : kivtest::LogMessages(kivtest::LibraryLog())) {
        if (m.file == "kiv_api.cpp") api.push_back(m.text);
        if (m.file == "kiv_video_mux.cpp") muxLines.push_back(m.text);
    }
    EXPECT_EQ(muxLines, Entries{"Create video mux"});
    const void* s = stubborn;
    EXPECT_EQ(api, (Entries{Format("KIV_Connect invalid src=%p dst=%p", nullptr, mux2), "KIV_Connect unsupported srcType=20 dstType=3",
                            Format("KIV_Connect src=%p type=3 dst=%p type=20 result=0", source, mux2),
                            Format("KIV_Start port=%p type=20 result=0", mux2), Format("KIV_Stop port=%p type=3 result=0", source),
                            Format("KIV_Start port=%p type=2 result=-9", s), Format("KIV_Stop port=%p type=2 result=-7", s),
                            Format("KIV_DestroyPort begin port=%p type=2", s), Format("KIV_DestroyPort stopped port=%p type=2 result=-7", s),
                            Format("KIV_DestroyPort aborted port=%p type=2 stopResult=-7", s), Format("KIV_DestroyPort begin port=%p type=2", s),
                            Format("KIV_DestroyPort stopped port=%p type=2 result=0", s), Format("KIV_DestroyPort complete port=%p type=2", s),
                            Format("KIV_DestroyPort begin port=%p type=20", mux2), Format("KIV_DestroyPort stopped port=%p type=20 result=0", mux2),
                            Format("KIV_DestroyPort complete port=%p type=20", mux2)}));
    for (void* p : {source, mux, audioMux}) EXPECT_EQ(std::vector<int>({KIV_Start(p), KIV_Stop(p), KIV_Start(p)}), std::vector<int>(3, 0));
    ASSERT_EQ(KIV_Connect(source, &sink), KIV_OK);
    ASSERT_EQ(KIV_Stop(source), KIV_OK);
    ASSERT_EQ(Push(), KIV_OK);  // a stopped frame source still delivers
    EXPECT_EQ(Take(), (Entries{"sink"}));
}

TEST_F(Graph, CallbackFirstThenDownstreamInConnectionOrderAndRewiringDuringDelivery) {
    Sink a("a"), b("b"), c("c"), sourceCb("source-cb"), muxCb("mux-cb"), second, late("late");
    EXPECT_EQ(Push(), KIV_OK);  // nothing attached yet
    ASSERT_EQ(KIV_SetVideoFrameCallback(source, Sink::Video, &sourceCb), KIV_OK);
    ASSERT_EQ(KIV_SetVideoFrameCallback(mux, Sink::Video, &muxCb), KIV_OK);
    for (auto pair : {std::make_pair(source, static_cast<void*>(&c)), {source, mux}, {mux, &b}, {mux, &a}, {source, &a}, {source, &c}})
        ASSERT_EQ(KIV_Connect(pair.first, pair.second), KIV_OK);  // the last one repeated: adds nothing
    ASSERT_EQ(Push(), KIV_OK);
    EXPECT_EQ(Take(), (Entries{"source-cb", "c", "mux-cb", "b", "a", "a"}));
    for (const Sink* seen : {&sourceCb, &muxCb, &b}) EXPECT_EQ(seen->lastVideo, &pattern.frame);  // the caller's record
    ASSERT_EQ(KIV_Disconnect(source, &c), KIV_OK);  // the rest keep their order
    ASSERT_EQ(KIV_SetVideoFrameCallback(source, Sink::Video, &second), KIV_OK);  // calls and user pointer move together
    ASSERT_EQ(Push(), KIV_OK);
    EXPECT_EQ(Take(), (Entries{"mux-cb", "b", "a", "a"}));
    EXPECT_EQ(std::make_pair(sourceCb.calls, second.calls), std::make_pair(1, 1));
    ASSERT_EQ(KIV_SetVideoFrameCallback(mux, nullptr, &muxCb), KIV_OK);
    ASSERT_EQ(KIV_Disconnect(source, &a), KIV_OK);

    sourceCb.action = [&] { EXPECT_EQ(KIV_Disconnect(source, &late), KIV_OK); };
    ASSERT_EQ(KIV_SetVideoFrameCallback(source, Sink::Video, &sourceCb), KIV_OK);
    ASSERT_EQ(KIV_Connect(source, &late), KIV_OK);
    ASSERT_EQ(Push(), KIV_OK);  // the list is read after the callback: the removal counts
    EXPECT_EQ(Take(), (Entries{"source-cb", "b", "a"}));
    sourceCb.action = nullptr;
    b.action = [&] {
        EXPECT_EQ(KIV_Disconnect(mux, &a), KIV_OK);
        EXPECT_EQ(KIV_Connect(mux, &late), KIV_OK);
        EXPECT_EQ(KIV_Connect(source, &late), KIV_OK);
    };
    ASSERT_EQ(Push(), KIV_OK);  // "a" was in the mux's copy of its list; "late" joined after the copies
    EXPECT_EQ(Take(), (Entries{"source-cb", "b", "a"}));
    b.action = nullptr;
    ASSERT_EQ(Push(), KIV_OK);
    EXPECT_EQ(Take(), (Entries{"source-cb", "b", "late", "late"}));

    std::vector<std::unique_ptr<Sink>> sinks;  // wider than any fixed-size snapshot
    Entries all;
    ASSERT_EQ(KIV_SetVideoFrameCallback(source, nullptr, nullptr), KIV_OK);
    for (void* dst : {&b, &late}) ASSERT_EQ(KIV_Disconnect(mux, dst), KIV_OK);
    ASSERT_EQ(KIV_Disconnect(source, &late), KIV_OK);
    for (int i = 0; i < 40; ++i) {
        sinks.push_back(std::make_unique<Sink>(all.emplace_back("s" + std::to_string(i))));
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


uint8_t Pixel(int plane, int row, int column) { return uint8_t(plane * 101 + row * 17 + column * 3 + 1); }

// `rows` rows of `rowBytes` pattern bytes, `pitch` apart (padding 0xEE), bottom-up when asked; `top` is row 0.
struct TestPlane {
    std::vector<uint8_t> storage;
    uint8_t* top;
    TestPlane(int plane, int rows, int rowBytes, int pitch, bool bottomUp = false) : storage(size_t(rows) * pitch, 0xEE) {
        for (int r = 0; r < rows; ++r)
            for (int c = 0; c < rowBytes; ++c) storage[size_t(bottomUp ? rows - 1 - r : r) * pitch + c] = Pixel(plane, r, c);
        top = storage.data() + (bottomUp && rows ? size_t(rows - 1) * pitch : 0);
    }
};

void ExpectPlane(const uint8_t* data, int32_t stride, int plane, int rows, int rowBytes) {
    ASSERT_NE(data, nullptr);
    for (int r = 0; r < rows; ++r)
        for (int c = 0; c < rowBytes; ++c) ASSERT_EQ(data[size_t(r) * stride + c], Pixel(plane, r, c)) << plane << " " << r << " " << c;
}

KivVideoFrame MakeFrame(int32_t format, int32_t width, int32_t height, const uint8_t* plane0 = nullptr, int32_t stride0 = 0) {
    KivVideoFrame f = kivtest::FrameOver(format, width, height, plane0, stride0);
    f.timestamp = 123456789, f.frameIndex = 42;
    return f;
}

TEST(FrameSizeRules, RequiredBytesRowBytesAndPackedLayout) {
    EXPECT_EQ(kiv::RequiredFrameBytes(KIV_PIXEL_FORMAT_YUY2, 640, 480), 640 * 480 * 2);
    EXPECT_EQ(kiv::RequiredFrameBytes(KIV_PIXEL_FORMAT_NV12, 6, 5), 6 * 5 + 6 * 3);  // odd height: 3 chroma rows
    EXPECT_EQ(kiv::RequiredFrameBytes(KIV_PIXEL_FORMAT_RGB24, 3, 7), 63);
    EXPECT_EQ(kiv::RequiredFrameBytes(KIV_PIXEL_FORMAT_RGB32, 8192, 8192), int64_t(8192) * 8192 * 4);
    const bool uncompressed[] = {false, false, true, true, true, true, false, false, false};  // formats -1 to 7
    const int64_t rowBytes[] = {0, 0, 10, 5, 15, 20, 0, 0, 0};                                // of 5 pixels
    for (int32_t format = -1; format <= 7; ++format) {
        EXPECT_EQ(kiv::IsUncompressed(format), uncompressed[format + 1]) << format;
        EXPECT_EQ(kiv::PackedRowBytes(format, 5), rowBytes[format + 1]) << format;
    }
    EXPECT_EQ(kiv::PackedRowBytes(KIV_PIXEL_FORMAT_RGB32, 0), 0);
    EXPECT_EQ(kiv::PackedRowBytes(KIV_PIXEL_FORMAT_RGB32, 1 << 30), int64_t{4} << 30);
    EXPECT_TRUE(kiv::StrideHoldsRow(-15, 15) && !kiv::StrideHoldsRow(-14, 15) && !kiv::StrideHoldsRow(14, 15));
    std::vector<uint8_t> buffer(64);
    const struct {
        int32_t format, width, height, stride0, stride1;
        ptrdiff_t chroma;  // offset of plane 1, -1: none
    } cases[] = {{KIV_PIXEL_FORMAT_NV12, 6, 5, 6, 6, 30}, {KIV_PIXEL_FORMAT_RGB24, 5, 2, 15, 0, -1}, {KIV_PIXEL_FORMAT_YUY2, 5, 2, 10, 0, -1}};
    for (const auto& c : cases) {
        KivVideoFrame f = MakeFrame(c.format, c.width, c.height);
        kiv::FillPackedLayout(&f, buffer.data());
        EXPECT_EQ(std::make_pair(f.strides[0], f.strides[1]), std::make_pair(c.stride0, c.stride1)) << c.format;
        EXPECT_EQ(f.planes[1], c.chroma < 0 ? nullptr : buffer.data() + c.chroma) << c.format;
    }
}

// Copies are top-down with tight or given strides; warm buffers are reused.
TEST(FrameCopy, RowsMetadataStridesAndBufferReuse) {
    const struct {
        int32_t format, bpp, w, h, pitch, stride0;  // stride0 as given; 0 means the width
        bool bottomUp;
        int chromaRows, chromaStride;  // NV12 chroma plane when chromaRows > 0
        int32_t outStride0, outStride1;
    } cases[] = {
        {KIV_PIXEL_FORMAT_YUY2, 2, 5, 3, 17, 17, false, 0, 0, 17, 0},
        {KIV_PIXEL_FORMAT_RGB24, 3, 5, 3, 22, 22, false, 0, 0, 22, 0},
        {KIV_PIXEL_FORMAT_RGB32, 4, 5, 3, 27, 27, false, 0, 0, 27, 0},
        {KIV_PIXEL_FORMAT_RGB32, 4, 5, 3, 20, -20, true, 0, 0, 20, 0},
        {KIV_PIXEL_FORMAT_NV12, 1, 6, 5, 8, 8, false, 3, 0, 8, 6},    // odd height, zero chroma stride
        {KIV_PIXEL_FORMAT_NV12, 1, 4, 3, 4, 0, false, 2, -4, 4, 4},   // zero luma stride, bottom-up chroma
        {KIV_PIXEL_FORMAT_NV12, 1, 2, 2, 2, 2, false, 0, 0, 2, 0},    // luma only
        {KIV_PIXEL_FORMAT_NV12, 1, 8, 6, 8, 8, false, 3, 8, 8, 8},
    };
    kiv::FrameCopy copy;
    for (const auto& c : cases) {
        SCOPED_TRACE(&c - cases);
        TestPlane luma(0, c.h, c.w * c.bpp, c.pitch, c.bottomUp), chroma(1, c.chromaRows, c.w, c.w, c.chromaStride < 0);
        KivVideoFrame f = MakeFrame(c.format, c.w, c.h, luma.top, c.stride0);
        f.planes[1] = c.format != KIV_PIXEL_FORMAT_NV12 ? luma.top : c.chromaRows ? chroma.top : nullptr;  // packed: ignored
        f.strides[1] = c.chromaStride ? c.chromaStride : c.format == KIV_PIXEL_FORMAT_NV12 ? 0 : 9;
        f.planes[2] = luma.top;  // nobody's business
        ASSERT_TRUE(copy.Copy(f));
        const uint8_t* first[2] = {copy.Frame().planes[0], copy.Frame().planes[1]};
        ASSERT_TRUE(copy.Copy(f));
        const KivVideoFrame& out = copy.Frame();
        EXPECT_TRUE(out.planes[0] == first[0] && out.planes[1] == first[1] && out.planes[2] == nullptr && out.planes[0] != luma.top);
        EXPECT_EQ((std::vector<int64_t>{out.strides[0], out.strides[1], out.timestamp, int64_t(out.frameIndex), out.format}),
                  (std::vector<int64_t>{c.outStride0, c.outStride1, 123456789, 42, c.format}));
        ExpectPlane(out.planes[0], out.strides[0], 0, c.h, c.w * c.bpp);
        EXPECT_EQ(out.planes[1] != nullptr, c.chromaRows > 0);
        if (c.chromaRows) ExpectPlane(out.planes[1], out.strides[1], 1, c.chromaRows, c.w);
    }
}

TEST(FrameCopy, CompressedPayloadsAndNothingToCopy) {
    std::vector<uint8_t> payload(100);
    for (size_t i = 0; i < payload.size(); ++i) payload[i] = uint8_t(i * 7);
    kiv::FrameCopy copy;
    for (int32_t format : {KIV_PIXEL_FORMAT_MJPG, KIV_PIXEL_FORMAT_H264}) {
        KivVideoFrame f = MakeFrame(format, 1920, 1080, payload.data(), 37);  // stride 0 is the length
        ASSERT_TRUE(copy.Copy(f));
        EXPECT_EQ(std::vector<uint8_t>(copy.Frame().planes[0], copy.Frame().planes[0] + copy.Frame().strides[0]),
                  std::vector<uint8_t>(payload.begin(), payload.begin() + 37));
        for (int32_t length : {0, -5}) {
            f.strides[0] = length;
            EXPECT_FALSE(copy.Copy(f));
            EXPECT_TRUE(copy.Empty());
        }
    }
    for (const KivVideoFrame& bad : {MakeFrame(4, 0, 2, payload.data(), 8), MakeFrame(4, 2, -3, payload.data(), 8),
                                     MakeFrame(4, 2, 2, nullptr, 8), MakeFrame(4, 2, 2, payload.data(), 0)}) {
        ASSERT_TRUE(copy.Copy(MakeFrame(KIV_PIXEL_FORMAT_RGB32, 2, 2, payload.data(), 8)));
        EXPECT_FALSE(copy.Copy(bad)) << bad.width << "x" << bad.height << " " << bad.strides[0];
        EXPECT_TRUE(copy.Empty());
    }
}

}  // namespace
