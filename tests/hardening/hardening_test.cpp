// What comes from outside never throws across the interface or reads past a buffer; ConcurrentDelivery (its own
// program): several threads deliver into one chain at once, as cameras on their own dispatch threads would.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <thread>

#include "record/kiv_recorder.h"
#include "record/video_encoder.h"
#include "stream_test_util.h"
#include "test_support.h"

namespace {

// source -> crop (from (4, 2) to the edges) -> colour engine (a table swapping red and blue and darkening green,
// at 0.75, YUY2 out) -> overlay (a rectangle outline), whose composited output feeds the mux `tap`.
struct Chain {
    void *source = KIV_CreateVideoFrameSource(), *crop = KIV_CreateVideoCrop(), *color = KIV_CreateVideoColorEngine(),
         *osd = KIV_CreateVideoOsd(), *tap = KIV_CreateVideoMux();
    std::string dir;
    explicit Chain(const char* name) : dir(kivtest::TempDir(name)) {
        std::string cube = "LUT_3D_SIZE 2\n";
        for (int i = 0; i < 8; ++i) cube += std::to_string(i >> 2) + (i & 2 ? " 0.5 " : " 0 ") + std::to_string(i & 1) + "\n";
        EXPECT_TRUE(kivtest::WriteFile(dir + "/swap.cube", cube));
        const KivVideoCropRect rect{4, 2, 0, 0};
        const KivVideoColorEngineConfig config{0, 1, KIV_PIXEL_FORMAT_YUY2, 1, 1, 0.75f};
        KivVideoOsdItem box{};
        box.visible = 1, box.x = 3, box.y = 3, box.width = 20, box.height = 12, box.size = 2, box.opacity = 0.6f, box.color = 0xFFFF2040;
        EXPECT_EQ(std::vector<int>({KIV_SetVideoCropRect(crop, &rect), KIV_EnableVideoCrop(crop, 1),
                                    KIV_LoadVideoColorEngineCubeFile(color, kivtest::Wide(dir + "/swap.cube").c_str()),
                                    KIV_SetVideoColorEngineConfig(color, &config), KIV_ConnectVideoOsdOutput(osd, 1, tap)}),
                  std::vector<int>(5, KIV_OK));
        EXPECT_GT(KIV_AddVideoOsdRect(osd, &box), KIV_ERROR_FAILED);
        for (auto link : Links()) EXPECT_EQ(KIV_Connect(link.first, link.second), KIV_OK);
    }
    std::vector<std::pair<void*, void*>> Links() const { return {{source, crop}, {crop, color}, {color, osd}}; }
    ~Chain() { for (void* port : {source, crop, color, osd, tap}) EXPECT_EQ(KIV_DestroyPort(port), KIV_OK); }
};

// Thread t's picture: its own size and a gradient of its own.
std::unique_ptr<kivtest::OwnedFrame> Picture(int t) {
    auto f = std::make_unique<kivtest::OwnedFrame>(KIV_PIXEL_FORMAT_RGB32, 40 + 6 * t, 24 + 2 * t);
    for (size_t i = 0; i < f->bytes.size(); ++i) f->bytes[i] = uint8_t(t * 41 + i * 3 + (i / 160) * 5);
    f->frame.timestamp = t;
    return f;
}

// Every composited frame must be wholly one thread's picture, byte for byte what that thread's frame gives alone.
struct Tap {
    void *crop, *color;
    std::vector<kivtest::CaughtFrame> expected;  // read-only while threads run
    std::atomic<int> good{0}, bad{0};
    static void KIV_CALL Check(const KivVideoFrame* f, void* user) {
        auto* tap = static_cast<Tap*>(user);
        // Settings calls from inside the delivery deadlock if a port holds its lock while downstream ports and callbacks run.
        KivVideoColorEngineConfig config{};
        KIV_GetVideoColorEngineConfig(tap->color, &config), KIV_EnableVideoCrop(tap->crop, 1);
        const size_t t = size_t(f->timestamp);
        const kivtest::CaughtFrame* e = t < tap->expected.size() ? &tap->expected[t] : nullptr;
        const bool same = e && f->width == e->meta.width && f->height == e->meta.height && f->format == e->meta.format &&
                          f->strides[0] == e->meta.strides[0] && std::memcmp(f->planes[0], e->plane0.data(), e->plane0.size()) == 0;
        (same ? tap->good : tap->bad)++;
    }
};

TEST(ConcurrentDelivery, EveryFrameIsOneThreadsPictureThroughCropColourAndOverlay) {
    constexpr int kThreads = 6, kFramesPerThread = 40;
    kivtest::LibraryScope library;
    Chain chain("hardening_concurrency");
    void* recorder = KIV_CreateRecorder((chain.dir + "/out.mp4").c_str());  // copies on the delivering thread too
    ASSERT_EQ(KIV_Connect(chain.crop, recorder), KIV_OK);
    ASSERT_EQ(KIV_Start(recorder), KIV_OK);
    Tap tap{chain.crop, chain.color, {}};
    {
        kivtest::FrameCatcher alone(chain.tap);
        for (int t = 0; t < kThreads; ++t) ASSERT_EQ(KIV_PushVideoFrame(chain.source, &Picture(t)->frame), KIV_OK);
        tap.expected = alone.frames;
    }
    ASSERT_EQ(tap.expected.size(), size_t(kThreads));
    EXPECT_TRUE(tap.expected[0].plane0 != tap.expected[1].plane0 && tap.expected[0].meta.format == KIV_PIXEL_FORMAT_YUY2);
    ASSERT_EQ(KIV_SetVideoFrameCallback(chain.tap, Tap::Check, &tap), KIV_OK);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            const auto mine = Picture(t);  // a private copy, as a camera delivers its own buffers
            for (int i = 0; i < kFramesPerThread; ++i) KIV_PushVideoFrame(chain.source, &mine->frame);
        });
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(std::make_pair(tap.good.load(), tap.bad.load()), std::make_pair(kThreads * kFramesPerThread, 0));
    KIV_Disconnect(chain.crop, recorder);
    EXPECT_EQ(KIV_DestroyPort(recorder), KIV_OK);
}

// Opens whatever it is asked and counts the pictures it gets, so the recorder converts frames in every build.
struct CountingEncoder : kiv::VideoEncoder {
    explicit CountingEncoder(std::atomic<int>* writes) : writes(writes) {}
    kiv::EncoderOpenReport Open(const kiv::VideoEncoderSettings&) override { return open = true, kiv::EncoderOpenReport{}; }
    bool IsOpen() const override { return open; }
    uint32_t WriteVideo(const uint8_t*, size_t, int64_t, int64_t) override { return (*writes)++, 0; }
    uint32_t WriteAudio(const uint8_t*, size_t, int64_t, int64_t) override { return 0; }
    kiv::EncoderFinalizeReport Finalize() override { return open = false, kiv::EncoderFinalizeReport{}; }
    std::atomic<int>* writes;
    bool open = false;
};

// A recorder fed by its own frame source; Wait gives the worker five seconds at most to take the frames.
struct Recording {
    std::atomic<int> writes{0};
    void* source = KIV_CreateVideoFrameSource();
    void* recorder;
    explicit Recording(const std::string& path, bool counting = false, const KivRecorderConfig* config = nullptr)
        : recorder(counting ? static_cast<KivPortBase*>(new KivRecorder(path.c_str(), std::make_unique<CountingEncoder>(&writes)))
                            : KIV_CreateRecorder(path.c_str())) {
        EXPECT_EQ(std::vector<int>({config ? KIV_SetRecorderConfig(recorder, config) : KIV_OK, KIV_Connect(source, recorder),
                                    KIV_Start(recorder)}),
                  std::vector<int>(3, KIV_OK));
    }
    KivRecorderStats Stats() { KivRecorderStats stats{}; return KIV_GetRecorderStats(recorder, &stats), stats; }
    KivRecorderStats Wait(int64_t frames) {
        for (int i = 0; i < 5000 && Stats().inputFrames < frames; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(1));
        return Stats();
    }
    ~Recording() { for (void* port : {source, recorder}) EXPECT_EQ(KIV_DestroyPort(port), KIV_OK); }
};

// One coded 16x16 picture: an IDR slice of a single PCM macroblock (grey `shade`), with SPS and PPS in front when
// asked (baseline, level 1.0, POC type 2); every unit decodes alone.
std::vector<uint8_t> IdrAccessUnit(int idrId, bool withParameterSets, uint8_t shade = 0x80) {
    std::vector<streamtest::Bytes> nals;
    if (withParameterSets) nals = {streamtest::Nal(0x67, {0x42, 0x00, 0x0A, 0xDA, 0x79}), streamtest::Nal(0x68, {0xCE, 0x3C, 0x80})};
    // I slice header (idr_pic_id 0 or 1, deblocking off), mb_type I_PCM, zero bits to the byte-aligned samples.
    streamtest::Bytes slice = idrId % 2 ? streamtest::Bytes{0x88, 0x82, 0x28, 0x34} : streamtest::Bytes{0x88, 0x84, 0xA0, 0xD0};
    slice.insert(slice.end(), 256, shade), slice.insert(slice.end(), 128, 128), slice.push_back(0x80);  // samples, stop bit
    nals.push_back(streamtest::Nal(0x65, slice));
    return streamtest::AnnexB(nals);
}

// Counts the frames a port hands to its callback and keeps the last one's first plane (without reading it).
struct PlaneWatch {
    std::atomic<int> count{0};
    std::atomic<const uint8_t*> plane0{nullptr};
    static void KIV_CALL OnFrame(const KivVideoFrame* f, void* user) {
        static_cast<PlaneWatch*>(user)->plane0 = f->planes[0], static_cast<PlaneWatch*>(user)->count++;
    }
};

// A frame over heap buffers of exactly |stride0| x height bytes (NV12 with a stride1: and |stride1| x (height + 1) / 2,
// else no chroma plane); a negative stride0 runs up from the last row. Absurd sizes lie over 4 KiB.
struct ExactFrame {
    std::unique_ptr<uint8_t[]> planes[2];
    KivVideoFrame frame{};
    ExactFrame(int32_t format, int32_t width, int32_t height, int32_t stride0, int32_t stride1) {
        size_t bytes[2] = {size_t(std::abs(stride0)) * size_t(height), size_t(std::abs(stride1)) * ((height + 1) / 2)};
        if (bytes[0] > (size_t(1) << 24)) bytes[0] = bytes[1] = 4096;
        for (int p = 0; p < 2; ++p) {
            planes[p].reset(new uint8_t[bytes[p] ? bytes[p] : 1]);  // exact, for the address sanitizer
            for (size_t i = 0; i < bytes[p]; ++i) planes[p][i] = uint8_t(p * 128 + i * (7 - p * 6));
        }
        frame = kivtest::FrameOver(format, width, height, planes[0].get() + (stride0 < 0 ? bytes[0] + stride0 : 0), stride0);
        if (stride1) frame.planes[1] = planes[1].get(), frame.strides[1] = stride1;
    }
};

// Short strides and sizes no real picture has (a port believing them would read past the buffer or allocate
// gigabytes): each processing port alone passes them on untouched; the recorder copies all but the absurd ones and
// encodes only the fitting ones.
TEST(BadInput, UnusableFilesShortStridesAndAbsurdSizes) {
    enum { kShort, kFits, kAbsurd };
    const struct {
        const char* what;
        int32_t format, width, height, stride0, stride1, kind;
    } frames[] = {
        {"RGB32 stride 64 for 256-byte rows", KIV_PIXEL_FORMAT_RGB32, 64, 6, 64, 0, kShort},
        {"RGB32 stride -255", KIV_PIXEL_FORMAT_RGB32, 64, 6, -255, 0, kShort},
        {"RGB32 exact", KIV_PIXEL_FORMAT_RGB32, 64, 6, 256, 0, kFits},
        {"RGB24 odd width one byte short", KIV_PIXEL_FORMAT_RGB24, 15, 5, 44, 0, kShort},
        {"RGB24 odd width exact", KIV_PIXEL_FORMAT_RGB24, 15, 5, 45, 0, kFits},
        {"YUY2 one byte short", KIV_PIXEL_FORMAT_YUY2, 16, 6, 31, 0, kShort},
        {"YUY2 exact", KIV_PIXEL_FORMAT_YUY2, 16, 6, 32, 0, kFits},
        {"NV12 luma short", KIV_PIXEL_FORMAT_NV12, 16, 6, 8, 16, kShort},
        {"NV12 chroma short", KIV_PIXEL_FORMAT_NV12, 16, 6, 16, 15, kShort},
        {"NV12 exact", KIV_PIXEL_FORMAT_NV12, 16, 6, 16, 16, kFits},
        {"RGB32 134M rows", KIV_PIXEL_FORMAT_RGB32, 16, 1 << 27, 64, 0, kAbsurd},
        {"RGB32 row over 2 GiB", KIV_PIXEL_FORMAT_RGB32, 1 << 29, 2, INT32_MAX, 0, kAbsurd},
        {"NV12 65536 x 32768", KIV_PIXEL_FORMAT_NV12, 65536, 32768, 65536, 0, kAbsurd},
        {"YUY2 INT32_MAX x INT32_MAX", KIV_PIXEL_FORMAT_YUY2, INT32_MAX, INT32_MAX, INT32_MAX, 0, kAbsurd},
        {"H.264 payload of 2 GiB", KIV_PIXEL_FORMAT_H264, 1920, 1080, INT32_MAX, 0, kAbsurd},
    };
    kivtest::LibraryScope library;
    Chain chain("hardening_bad_input");
    // Files the library cannot use: the colour engine refuses them and keeps its table, the overlay draws nothing.
    const std::string& dir = chain.dir;
    kivtest::WriteFile(dir + "/empty.cube", ""), kivtest::WriteFile(dir + "/huge.cube", "\n");
    std::filesystem::resize_file(dir + "/huge.cube", uintmax_t{300} << 20);  // sparse: 300 MiB claimed, nothing written
    std::vector<std::pair<const char*, std::string>> paths = {{"a folder", dir}, {"an empty file", dir + "/empty.cube"},
        {"a file over 256 MiB", dir + "/huge.cube"}, {"a path through a file", dir + "/empty.cube/inner.cube"}};
#if !defined(_WIN32)
    paths.emplace_back("a file that opens but cannot be read", "/proc/self/mem");
#endif
    kivtest::OwnedFrame in(KIV_PIXEL_FORMAT_RGB32, 32, 16, 90);
    kivtest::FrameCatcher graded(chain.color), composited(chain.tap);
    ASSERT_EQ(KIV_PushVideoFrame(chain.source, &in.frame), KIV_OK);
    ASSERT_EQ(graded.frames.size(), 1u);
    for (const auto& bad : paths) {
        const auto wide = kivtest::Wide(bad.second);
        EXPECT_EQ(KIV_LoadVideoColorEngineCubeFile(chain.color, wide.c_str()), KIV_ERROR_FAILED) << bad.first;
        KivVideoOsdItem picture{};  // an overlay picture that cannot be loaded draws nothing; the frame goes on
        picture.visible = 1, picture.opacity = 1.0f, wide.copy(picture.imagePath, std::size(picture.imagePath) - 1);
        EXPECT_GE(KIV_SetVideoOsdImage(chain.osd, &picture), 0) << bad.first;
        EXPECT_EQ(KIV_PushVideoFrame(chain.source, &in.frame), KIV_OK) << bad.first;
        EXPECT_EQ(graded.frames.back().plane0, graded.frames[0].plane0) << bad.first << ": the table was kept";
        EXPECT_EQ(composited.Count(), graded.frames.size()) << bad.first;
    }
    for (auto link : chain.Links()) KIV_Disconnect(link.first, link.second);
    // Each port alone behind the source, its output watched (the overlay's through the chain's mux).
    for (auto p : {std::make_pair(chain.crop, chain.crop), {chain.color, chain.color}, {chain.osd, chain.tap}}) {
        PlaneWatch last;
        ASSERT_EQ(KIV_Connect(chain.source, p.first) | KIV_SetVideoFrameCallback(p.second, PlaneWatch::OnFrame, &last), KIV_OK);
        for (const auto& c : frames) {
            ExactFrame exact(c.format, c.width, c.height, c.stride0, c.stride1);
            ASSERT_EQ(KIV_PushVideoFrame(chain.source, &exact.frame), KIV_OK) << c.what;
            // The overlay sends no compressed frame on; it copies a YUY2 or NV12 row as far as its stride goes and pads the rest.
            const bool h264 = c.format == KIV_PIXEL_FORMAT_H264, osd = p.first == chain.osd;
            ASSERT_EQ(last.count.exchange(0), osd && h264 ? 0 : 1) << c.what;
            const bool osdPads = osd && c.kind == kShort && c.stride0 > 0 && (c.format == KIV_PIXEL_FORMAT_YUY2 || c.format == KIV_PIXEL_FORMAT_NV12);
            EXPECT_TRUE((osd && h264) || (last.plane0 != exact.frame.planes[0]) == (c.kind == kFits || osdPads)) << c.what;
        }
        KIV_SetVideoFrameCallback(p.second, nullptr, nullptr), KIV_Disconnect(chain.source, p.first);
    }
    for (const auto& c : frames) {
        Recording rec(chain.dir + "/out.mp4", true);
        auto exact = std::make_unique<ExactFrame>(c.format, c.width, c.height, c.stride0, c.stride1);
        ASSERT_EQ(KIV_PushVideoFrame(rec.source, &exact->frame), KIV_OK) << c.what;
        exact.reset();  // the caller's buffer is gone at once: the recorder works on its copy
        EXPECT_EQ(c.kind == kAbsurd ? rec.Stats().inputFrames : rec.Wait(1).inputFrames, c.kind == kAbsurd ? 0 : 1) << c.what;
        EXPECT_EQ(KIV_Stop(rec.recorder), KIV_OK);
        EXPECT_EQ(rec.writes.load(), c.kind == kFits ? 1 : 0) << c.what;
    }
    // A configured picture no frame can fill (15 GB) is never made.
    KivRecorderConfig config{};
    config.width = config.height = 100000;
    Recording rec(chain.dir + "/out.mp4", true, &config);
    ASSERT_EQ(KIV_PushVideoFrame(rec.source, &in.frame), KIV_OK);
    EXPECT_EQ(rec.Wait(1).inputFrames, 1);
    EXPECT_EQ(KIV_Stop(rec.recorder), KIV_OK);
    EXPECT_EQ(rec.writes.load(), 0);
}

TEST(Split, EverySegmentIsACompleteFile) {
    kivtest::LibraryScope library;
    const bool probe = streamtest::HaveFfmpegTools();
    const struct {
        const char* what;
        int32_t split, maxBytes, seconds, audio, frames, files;  // files 0: more than one, number not fixed
    } cases[] = {
        {"1-byte size limit", KIV_RECORD_SPLIT_SIZE, 1, 0, 0, 4, 4},
        {"1-byte size limit, audio reckoned", KIV_RECORD_SPLIT_SIZE, 1, 0, 1, 3, 3},
        {"2000-byte size limit", KIV_RECORD_SPLIT_SIZE, 2000, 0, 0, 8, 0},
        {"1-second time limit", KIV_RECORD_SPLIT_TIME, 0, 1, 0, 45, 2},
    };
    for (const auto& c : cases) {
        const std::string dir = kivtest::TempDir("hardening_split");
        KivRecorderConfig config{};
        kivtest::Wide(dir + "/seg.mp4").copy(config.filePath, std::size(config.filePath) - 1);
        config.audio = c.audio, config.split = c.split, config.maxBytesLow = uint32_t(c.maxBytes), config.seconds = c.seconds;
        {
            Recording rec(dir + "/seg.mp4", false, &config);
            for (int i = 0; i < c.frames; ++i) {  // one at a time, each taken before the next
                const streamtest::Bytes unit = IdrAccessUnit(i, i == 0, uint8_t(40 + i * 4));
                KivVideoFrame f = kivtest::FrameOver(KIV_PIXEL_FORMAT_H264, 16, 16, unit.data(), int32_t(unit.size()));
                f.timestamp = 1000 + i * 333333LL;
                ASSERT_EQ(KIV_PushVideoFrame(rec.source, &f), KIV_OK);
                rec.Wait(i + 1);
            }
            ASSERT_EQ(KIV_Stop(rec.recorder), KIV_OK);
            EXPECT_EQ(rec.Stats().encodedFrames, c.frames) << c.what;
        }
        int64_t files = 0, framesInFiles = 0;
        for (const auto& entry : std::filesystem::directory_iterator(dir)) {
            const std::string file = entry.path().string();
            const streamtest::Bytes bytes = streamtest::ReadAll(file);
            ++files;
            streamtest::Box stsz{};
            ASSERT_TRUE(streamtest::FindBox(bytes, "moov/trak/mdia/minf/stbl/stsz", &stsz)) << c.what << ": " << file;
            framesInFiles += streamtest::U32(bytes, stsz.payload + 8);  // after version/flags and sample_size
            if (!probe) continue;
            auto info = streamtest::Probe("-select_streams v -show_entries stream=codec_name,width,nb_frames '" + file + "'");
            EXPECT_EQ(info["codec_name"] + " " + info["width"], "h264 16") << c.what << ": " << file;
        }
        EXPECT_EQ(framesInFiles, c.frames) << c.what;
        EXPECT_TRUE(c.files ? files == c.files : files > 1) << c.what << ": " << files << " files";
    }
}

}  // namespace
