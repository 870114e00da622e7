// Builds without Media Foundation have no sink writer: opening fails the way
// it does on a system where the component is missing.
#include "video_encoder.h"

namespace kiv {

namespace {

constexpr uint32_t kNotImplemented = 0x80004001u;  // E_NOTIMPL

class MissingVideoEncoder : public VideoEncoder {
public:
    EncoderOpenReport Open(const VideoEncoderSettings&) override {
        EncoderOpenReport report;
        report.failedStep = EncoderOpenStep::kCreateWriter;
        report.hr = kNotImplemented;
        return report;
    }
    bool IsOpen() const override { return false; }
    uint32_t WriteVideo(const uint8_t*, size_t, int64_t, int64_t) override { return kNotImplemented; }
    uint32_t WriteAudio(const uint8_t*, size_t, int64_t, int64_t) override { return kNotImplemented; }
    EncoderFinalizeReport Finalize() override { return {}; }
};

}  // namespace

std::unique_ptr<VideoEncoder> CreatePlatformVideoEncoder() { return std::make_unique<MissingVideoEncoder>(); }

}  // namespace kiv
