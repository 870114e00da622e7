// Helpers of the hardening tests: the processing chain an application builds
// (frame source, crop, colour engine, overlay) and frames over buffers of
// exactly the size their strides promise.
#pragma once
#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "kivcapture.h"
#include "record/video_encoder.h"

namespace hardening {

// A 2-point cube table that swaps red and blue and darkens green; written
// into `dir`, returns its path.
std::string WriteSwapCube(const std::string& dir);

// source -> crop -> colour engine -> overlay, whose overlay output feeds a
// video mux: the mux's callback sees the composited frames. Ports with
// `enable` false are configured but pass frames through.
struct Chain {
    void* source = nullptr;
    void* crop = nullptr;
    void* color = nullptr;
    void* osd = nullptr;
    void* tap = nullptr;  // the mux behind the overlay output
    // Crop from (4, 2) to the edges, the swap table with YUY2 output, and a
    // rectangle outline drawn by the overlay.
    explicit Chain(const std::string& cubePath);
    ~Chain();
    Chain(const Chain&) = delete;
    Chain& operator=(const Chain&) = delete;
};

// A frame over a heap buffer holding exactly |stride0| x height bytes (and
// for NV12 a second buffer of |stride1| x (height + 1) / 2), so that the
// address sanitizer reports any read past what the strides promise. A
// negative stride0 makes the rows run upwards from the buffer's last row.
struct ExactFrame {
    std::unique_ptr<uint8_t[]> plane0, plane1;
    KivVideoFrame frame{};
    ExactFrame(int32_t format, int32_t width, int32_t height, int32_t stride0, int32_t stride1 = 0, uint8_t seed = 0);
};

// An encoder that opens whatever it is asked and only counts the pictures
// it gets, so that the recorder converts frames in every build.
class CountingEncoder : public kiv::VideoEncoder {
public:
    explicit CountingEncoder(std::shared_ptr<std::atomic<int>> writes) : writes_(std::move(writes)) {}
    kiv::EncoderOpenReport Open(const kiv::VideoEncoderSettings&) override;
    bool IsOpen() const override { return open_; }
    uint32_t WriteVideo(const uint8_t*, size_t, int64_t, int64_t) override;
    uint32_t WriteAudio(const uint8_t*, size_t, int64_t, int64_t) override { return 0; }
    kiv::EncoderFinalizeReport Finalize() override;

private:
    std::shared_ptr<std::atomic<int>> writes_;
    bool open_ = false;
};

// One coded 16x16 picture: an IDR slice of a single PCM macroblock (grey
// level `shade`), with the stream's SPS and PPS in front when asked. Every
// unit decodes on its own, so any segment of a recording of them plays.
std::vector<uint8_t> IdrAccessUnit(int idrId, bool withParameterSets, uint8_t shade = 0x80);

// Counts the frames a port hands to its callback and keeps where the last
// one's first plane was; reads no pixels.
struct PlaneWatch {
    std::atomic<int> count{0};
    std::atomic<const uint8_t*> plane0{nullptr};
    static void KIV_CALL OnFrame(const KivVideoFrame* f, void* user);
};

// Waits (at most five seconds) until the recorder's worker took `frames`
// frames; the statistics at that moment.
KivRecorderStats WaitForInput(void* recorder, int64_t frames);

}  // namespace hardening
