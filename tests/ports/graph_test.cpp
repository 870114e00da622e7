// KIV_Connect's pair rules, the graph functions' bad input, frame delivery (order, graph changes from inside a
// delivery, muxes, failing stops), and owning frame copies and size rules against images built here.
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <utility>

#include "ports/kiv_frame.h"
#include "ports/kiv_port_base.h"
#include "test_support.h"

using Entries = std::vector<std::string>;

namespace {

const int32_t kTypes[21] = {1, 2, 3, 10, 11, 20, 21, 22, 23, 24, 30, 31, 32, 0, -1, 4, 12, 25, 29, 33, 1000};  // then no port's
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
    int32_t stopResult = -7, stops = 0;
};

TEST(ConnectTable, EveryPairOfPortTypesFollowsTheGrid) {
    for (int s = 0; s < 21; ++s)
        for (int d = 0; d < 21; ++d) {
            Sink src({}, kTypes[s]), dst({}, kTypes[d]);
            const bool ok = s < 13 && d < 13 && kGrid[s][d] == 'x';
            EXPECT_EQ(KIV_Connect(&src, &dst), ok ? KIV_OK : KIV_ERROR_UNSUPPORTED) << kTypes[s] << " -> " << kTypes[d];
            EXPECT_EQ(src.DownstreamCount(), size_t(ok));
        }
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
    Entries Deliver() {
        EXPECT_EQ(Push(), KIV_OK);
        return Take();
    }

    static inline std::unique_ptr<kivtest::LibraryScope> library_;
    kivtest::OwnedFrame pattern{KIV_PIXEL_FORMAT_RGB32, 8, 4, 0x5A};
    void *source = KIV_CreateVideoFrameSource(), *mux = KIV_CreateVideoMux(), *audioMux = KIV_CreateAudioMux();
};

TEST_F(Graph, BadHandlesAndFramesAreRejectedInOrder) {
    const std::vector<int> rejected = {
        KIV_Connect(nullptr, mux), KIV_Connect(mux, nullptr), KIV_Disconnect(nullptr, mux), KIV_Disconnect(mux, nullptr),
        KIV_Start(nullptr), KIV_Stop(nullptr), KIV_DestroyPort(nullptr), KIV_SetVideoFrameCallback(nullptr, Sink::Video, nullptr),
        KIV_SetAudioFrameCallback(nullptr, Sink::Audio, nullptr), static_cast<KivPortBase*>(mux)->AddDownstream(nullptr)};
    EXPECT_EQ(rejected, std::vector<int>(rejected.size(), KIV_ERROR_INVALID_ARG));
    EXPECT_EQ(static_cast<KivPortBase*>(mux)->DownstreamCount(), 0u);
    EXPECT_EQ(KIV_Disconnect(source, mux), KIV_OK);  // never connected: not an error
    Sink probe, lookalike({}, KIV_PORT_VIDEO_FRAME_SOURCE);  // lookalike: right type value, wrong class
    ASSERT_EQ(KIV_SetVideoFrameCallback(source, Sink::Video, &probe), KIV_OK);
    kivtest::OwnedFrame good(KIV_PIXEL_FORMAT_NV12, 4, 2);
    for (void* port : {static_cast<void*>(nullptr), mux, audioMux, static_cast<void*>(&lookalike)})
        EXPECT_EQ(KIV_PushVideoFrame(port, &good.frame), KIV_ERROR_INVALID_ARG);
    EXPECT_EQ(KIV_PushVideoFrame(source, nullptr), KIV_ERROR_INVALID_ARG);
    const int32_t bad = KIV_ERROR_INVALID_ARG, unsupported = KIV_ERROR_UNSUPPORTED;
    const int32_t cases[][5] = {  // width, height, format, plane 0 given, result: size, plane, then format; strides unchecked
        {0, 2, 2, 1, bad}, {4, -1, 2, 1, bad}, {4, 2, 0, 1, bad}, {4, 2, 2, 0, bad}, {4, 2, 7, 1, unsupported}, {4, 2, -1, 1, unsupported},
        {0, 2, 7, 1, bad}, {4, 2, 7, 0, bad},  {4, 2, 1, 1, 0},   {4, 2, 2, 1, 0},   {4, 2, 3, 1, 0},           {4, 2, 4, 1, 0},
        {4, 2, 5, 1, 0},   {4, 2, 6, 1, 0}};
    for (const auto& c : cases) {
        KivVideoFrame frame = good.frame;
        frame.width = c[0], frame.height = c[1], frame.format = c[2], frame.strides[0] = -12345;
        if (!c[3]) frame.planes[0] = nullptr;
        EXPECT_EQ(KIV_PushVideoFrame(source, &frame), c[4]) << c[0] << "x" << c[1] << " " << c[2];
    }
    EXPECT_EQ(probe.calls, 6);
}

TEST_F(Graph, AFailingStopKeepsThePortAndCodesPassThrough) {
    auto* stubborn = new StubbornPort();  // destroyed only once its stop succeeds
    EXPECT_EQ(std::vector<int>({KIV_Start(stubborn), KIV_Stop(stubborn), KIV_DestroyPort(stubborn)}), std::vector<int>({-9, -7, -7}));
    EXPECT_EQ(stubborn->stops, 2);
    Sink sink("sink"), cb("cb");
    ASSERT_EQ(KIV_SetVideoFrameCallback(stubborn, Sink::Video, &cb), KIV_OK);
    ASSERT_EQ(stubborn->AddDownstream(&sink), KIV_OK);
    stubborn->EmitVideo(&pattern.frame);
    EXPECT_EQ(Take(), (Entries{"cb", "sink"}));
    stubborn->stopResult = 0;
    EXPECT_EQ(KIV_DestroyPort(stubborn), KIV_OK);
    for (void* p : {source, mux, audioMux}) EXPECT_EQ(std::vector<int>({KIV_Start(p), KIV_Stop(p), KIV_Start(p)}), std::vector<int>(3, 0));
    ASSERT_EQ(KIV_Connect(source, &sink), KIV_OK);
    ASSERT_EQ(KIV_Stop(source), KIV_OK);
    EXPECT_EQ(Deliver(), (Entries{"sink"}));  // a stopped frame source still delivers
}

TEST_F(Graph, CallbackFirstThenDownstreamInConnectionOrderAndRewiringDuringDelivery) {
    Sink a("a"), b("b"), c("c"), sourceCb("source-cb"), muxCb("mux-cb"), second, late("late");
    EXPECT_EQ(Push(), KIV_OK);  // nothing attached yet
    ASSERT_EQ(KIV_SetVideoFrameCallback(source, Sink::Video, &sourceCb), KIV_OK);
    ASSERT_EQ(KIV_SetVideoFrameCallback(mux, Sink::Video, &muxCb), KIV_OK);
    for (auto pair : {std::make_pair(source, static_cast<void*>(&c)), {source, mux}, {mux, &b}, {mux, &a}, {source, &a}, {source, &c}})
        ASSERT_EQ(KIV_Connect(pair.first, pair.second), KIV_OK);  // the last one repeated: adds nothing
    EXPECT_EQ(Deliver(), (Entries{"source-cb", "c", "mux-cb", "b", "a", "a"}));
    for (const Sink* seen : {&sourceCb, &muxCb, &b}) EXPECT_EQ(seen->lastVideo, &pattern.frame);  // the caller's record
    ASSERT_EQ(KIV_Disconnect(source, &c), KIV_OK);  // the rest keep their order
    ASSERT_EQ(KIV_SetVideoFrameCallback(source, Sink::Video, &second), KIV_OK);  // calls and user pointer move together
    EXPECT_EQ(Deliver(), (Entries{"mux-cb", "b", "a", "a"}));
    EXPECT_EQ(std::make_pair(sourceCb.calls, second.calls), std::make_pair(1, 1));
    ASSERT_EQ(KIV_SetVideoFrameCallback(mux, nullptr, &muxCb), KIV_OK);
    ASSERT_EQ(KIV_Disconnect(source, &a), KIV_OK);
    sourceCb.action = [&] { EXPECT_EQ(KIV_Disconnect(source, &late), KIV_OK); };
    ASSERT_EQ(KIV_SetVideoFrameCallback(source, Sink::Video, &sourceCb), KIV_OK);
    ASSERT_EQ(KIV_Connect(source, &late), KIV_OK);
    EXPECT_EQ(Deliver(), (Entries{"source-cb", "b", "a"}));  // the list is read after the callback: the removal counts
    sourceCb.action = nullptr;
    b.action = [&] {
        EXPECT_EQ(KIV_Disconnect(mux, &a), KIV_OK);
        EXPECT_EQ(KIV_Connect(mux, &late), KIV_OK);
        EXPECT_EQ(KIV_Connect(source, &late), KIV_OK);
    };
    EXPECT_EQ(Deliver(), (Entries{"source-cb", "b", "a"}));  // "a" was in the mux's copy; "late" joined after the copies
    b.action = nullptr;
    EXPECT_EQ(Deliver(), (Entries{"source-cb", "b", "late", "late"}));
    std::vector<Sink> sinks(40);  // wider than any fixed-size snapshot
    Entries all = {"source-cb", "b", "late"};
    for (size_t i = 0; i < sinks.size(); ++i) sinks[i].name = all.emplace_back("s" + std::to_string(i));
    for (Sink& sink : sinks) ASSERT_EQ(KIV_Connect(mux, &sink), KIV_OK);
    all.push_back("late");
    EXPECT_EQ(Deliver(), all);
    sinks[0].action = [&] {  // shrinks the list while the wide copy is delivered: everyone still gets this frame
        for (size_t i = 1; i < sinks.size(); ++i) EXPECT_EQ(KIV_Disconnect(mux, &sinks[i]), KIV_OK);
    };
    EXPECT_EQ(Deliver(), all);
    sinks[0].action = nullptr;
    EXPECT_EQ(Deliver(), (Entries{"source-cb", "b", "late", "s0", "late"}));  // back to the narrow list
}

TEST_F(Graph, VideoMuxRejectsNullButAudioMuxPassesItOn) {
    Sink videoSink("video"), audioSink("audio", KIV_PORT_AUDIO_RENDER), videoCb("video-cb"), audioCb("audio-cb");
    auto *video = static_cast<KivPortBase*>(mux), *audio = static_cast<KivPortBase*>(audioMux);
    ASSERT_EQ(KIV_SetVideoFrameCallback(mux, Sink::Video, &videoCb), KIV_OK);
    ASSERT_EQ(KIV_SetAudioFrameCallback(audioMux, Sink::Audio, &audioCb), KIV_OK);
    ASSERT_EQ(std::make_pair(KIV_Connect(mux, &videoSink), KIV_Connect(audioMux, &audioSink)), std::make_pair(KIV_OK, KIV_OK));
    EXPECT_EQ(video->OnVideoFrame(nullptr), KIV_ERROR_INVALID_ARG);
    EXPECT_EQ(Take(), Entries{});
    audioSink.lastAudio = reinterpret_cast<const KivAudioFrame*>(&g_journal);  // poison
    EXPECT_EQ(audio->OnAudioFrame(nullptr), KIV_OK);
    EXPECT_EQ(Take(), (Entries{"audio-cb", "audio"}));
    EXPECT_EQ(audioSink.lastAudio, nullptr);
    int16_t samples[4] = {1, -1, 2, -2};  // each mux forwards only its own kind
    KivAudioFrame packet{reinterpret_cast<uint8_t*>(samples), sizeof(samples), 48000, 2, 16, 0, 0};
    EXPECT_EQ(std::make_pair(video->OnAudioFrame(&packet), audio->OnVideoFrame(&pattern.frame)), std::make_pair(KIV_OK, KIV_OK));
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
    const int64_t required[][4] = {{KIV_PIXEL_FORMAT_YUY2, 640, 480, 640 * 480 * 2}, {KIV_PIXEL_FORMAT_NV12, 6, 5, 6 * 5 + 6 * 3},
                                   {KIV_PIXEL_FORMAT_RGB24, 3, 7, 63}, {KIV_PIXEL_FORMAT_RGB32, 8192, 8192, int64_t(8192) * 8192 * 4}};
    for (const auto& r : required) EXPECT_EQ(kiv::RequiredFrameBytes(int32_t(r[0]), int32_t(r[1]), int32_t(r[2])), r[3]) << r[0];
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
    const int32_t layouts[][6] = {{KIV_PIXEL_FORMAT_NV12, 6, 5, 6, 6, 30}, {KIV_PIXEL_FORMAT_RGB24, 5, 2, 15, 0, -1},
                                  {KIV_PIXEL_FORMAT_YUY2, 5, 2, 10, 0, -1}};
    for (const auto& c : layouts) {  // format, size, strides, offset of plane 1 (-1: none)
        KivVideoFrame f = MakeFrame(c[0], c[1], c[2]);
        kiv::FillPackedLayout(&f, buffer.data());
        EXPECT_EQ(std::vector<int32_t>({f.strides[0], f.strides[1]}), std::vector<int32_t>({c[3], c[4]})) << c[0];
        EXPECT_EQ(f.planes[1], c[5] < 0 ? nullptr : buffer.data() + c[5]) << c[0];
    }
}

// Copies are top-down with tight or given strides; warm buffers are reused.
TEST(FrameCopy, RowsMetadataStridesAndBufferReuse) {
    const struct {
        int32_t format, bpp, w, h, pitch, stride0, bottomUp, chromaRows, chromaStride, outStride0, outStride1;  // stride0 0: the width
    } cases[] = {
        {KIV_PIXEL_FORMAT_YUY2, 2, 5, 3, 17, 17, false, 0, 0, 17, 0},  {KIV_PIXEL_FORMAT_RGB24, 3, 5, 3, 22, 22, false, 0, 0, 22, 0},
        {KIV_PIXEL_FORMAT_RGB32, 4, 5, 3, 27, 27, false, 0, 0, 27, 0}, {KIV_PIXEL_FORMAT_RGB32, 4, 5, 3, 20, -20, true, 0, 0, 20, 0},
        // NV12: odd height with zero chroma stride, zero luma stride with bottom-up chroma, luma only, plain
        {KIV_PIXEL_FORMAT_NV12, 1, 6, 5, 8, 8, false, 3, 0, 8, 6}, {KIV_PIXEL_FORMAT_NV12, 1, 4, 3, 4, 0, false, 2, -4, 4, 4},
        {KIV_PIXEL_FORMAT_NV12, 1, 2, 2, 2, 2, false, 0, 0, 2, 0}, {KIV_PIXEL_FORMAT_NV12, 1, 8, 6, 8, 8, false, 3, 8, 8, 8},
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
        ASSERT_TRUE(copy.Copy(MakeFrame(format, 1920, 1080, payload.data(), 37)));  // stride 0 is the length
        EXPECT_EQ(std::vector<uint8_t>(copy.Frame().planes[0], copy.Frame().planes[0] + copy.Frame().strides[0]),
                  std::vector<uint8_t>(payload.begin(), payload.begin() + 37));
    }
    const uint8_t* p = payload.data();
    for (const KivVideoFrame& bad : {MakeFrame(5, 8, 8, p, 0), MakeFrame(6, 8, 8, p, -5), MakeFrame(4, 0, 2, p, 8), MakeFrame(4, 2, -3, p, 8),
                                     MakeFrame(4, 2, 2, nullptr, 8), MakeFrame(4, 2, 2, p, 0)}) {
        ASSERT_TRUE(copy.Copy(MakeFrame(KIV_PIXEL_FORMAT_RGB32, 2, 2, p, 8)));
        EXPECT_FALSE(copy.Copy(bad)) << bad.format << " " << bad.width << "x" << bad.height << " " << bad.strides[0];
        EXPECT_TRUE(copy.Empty());
    }
}

}  // namespace
