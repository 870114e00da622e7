#include "kiv_video_color.h"

#include <cstring>
#include <new>

#include "kiv_color_convert.h"
#include "kiv_color_math.h"
#include "kiv_log.h"
#include "kiv_wide_path.h"
#include "ports/kiv_frame.h"

namespace {

constexpr size_t kLogPathBytes = 1024;

// Whether the rows the conversion reads lie within the strides the frame
// gives. A zero stride means tightly packed rows; any other stride whose
// size cannot hold a row is not followed, whatever its direction.
bool RowsFit(const KivVideoFrame& f) {
    const int32_t s0 = f.strides[0], s1 = f.strides[1];
    if (s0 != 0 && !kiv::StrideHoldsRow(s0, kiv::PackedRowBytes(f.format, f.width))) return false;
    if (f.format == KIV_PIXEL_FORMAT_NV12 && s1 != 0 && !kiv::StrideHoldsRow(s1, f.width)) return false;
    return true;
}

// Runs a conversion; false when its row scratch could not grow.
template <class Work>
bool Convert(const Work& work) {
    try {
        work();
    } catch (const std::bad_alloc&) {
        return false;
    }
    return true;
}

// A file of many numbers may ask for more memory than the process has; that
// is a parse failure like any other.
bool ParseTable(const std::vector<char>& text, std::shared_ptr<Kiv3DLutData>* out) {
    try {
        auto lut = std::make_shared<Kiv3DLutData>();
        if (!kiv::ParseCubeForColorEngine(text.data(), lut.get())) return false;
        *out = std::move(lut);
        return true;
    } catch (const std::bad_alloc&) {
        return false;
    }
}

}  // namespace

KivVideoColorEngine::KivVideoColorEngine() : KivPortBase(KIV_PORT_VIDEO_COLOR_ENGINE) {}

KivVideoColorEngine::~KivVideoColorEngine() = default;

int32_t KivVideoColorEngine::SetConfig(const KivVideoColorEngineConfig* config) {
    if (!config) return KIV_ERROR_INVALID_ARG;
    if (config->outFmt < 0 || config->outFmt > 4) return KIV_ERROR_UNSUPPORTED;
    if (config->processor < 0 || config->processor > 3) return KIV_ERROR_INVALID_ARG;
    if (config->strength < 0.0f || config->strength > 1.0f) return KIV_ERROR_INVALID_ARG;
    std::lock_guard<std::mutex> lock(settingsMutex_);
    config_ = *config;
    if (config_.strength < 0.0f) config_.strength = 0.0f;
    if (config_.strength > 1.0f) config_.strength = 1.0f;
    KIV_LOG("ColorEngine config processor=%d enable=%d outFmt=%d strength=%.3f cs=%d range=%d", config_.processor,
            config_.enable, config_.outFmt, static_cast<double>(config_.strength), config_.cs, config_.range);
    return KIV_OK;
}

int32_t KivVideoColorEngine::GetConfig(KivVideoColorEngineConfig* out) {
    if (!out) return KIV_ERROR_INVALID_ARG;
    std::lock_guard<std::mutex> lock(settingsMutex_);
    *out = config_;
    return KIV_OK;
}

int32_t KivVideoColorEngine::LoadCubeFile(const KivWChar* path) {
    if (!path || path[0] == 0) return KIV_ERROR_INVALID_ARG;
    const std::string logPath = kiv::Utf16ToUtf8Limited(path, kLogPathBytes);
    std::vector<char> text;
    if (!kiv::ReadWholeFile(path, &text)) {
        KIV_LOG("ColorEngine load cube failed: open file failed path=%s", logPath.c_str());
        return KIV_ERROR_FAILED;
    }
    std::shared_ptr<Kiv3DLutData> lut;
    if (!ParseTable(text, &lut)) {
        KIV_LOG("ColorEngine load cube failed: parse error path=%s", logPath.c_str());
        return KIV_ERROR_FAILED;
    }
    const int32_t dim = lut->dim;
    std::shared_ptr<const Kiv3DLutData> old;
    {
        std::lock_guard<std::mutex> lock(settingsMutex_);
        old = std::move(lut_);
        lut_ = std::move(lut);
    }
    // `old` goes here, outside the lock, unless a frame still holds it.
    KIV_LOG("ColorEngine cube loaded path=%s dim=%d", logPath.c_str(), dim);
    return KIV_OK;
}

int32_t KivVideoColorEngine::ClearLut() {
    std::shared_ptr<const Kiv3DLutData> old;
    {
        std::lock_guard<std::mutex> lock(settingsMutex_);
        old = std::move(lut_);
        lut_.reset();
    }
    KIV_LOG("ColorEngine LUT cleared");
    return KIV_OK;
}

int32_t KivVideoColorEngine::OnVideoFrame(const KivVideoFrame* frame) {
    if (!frame) return KIV_ERROR_INVALID_ARG;
    const int32_t inFmt = frame->format;
    if (inFmt < KIV_PIXEL_FORMAT_YUY2 || inFmt > KIV_PIXEL_FORMAT_RGB32) {
        EmitVideo(frame);
        return KIV_OK;
    }
    KivVideoColorEngineConfig config;
    std::shared_ptr<const Kiv3DLutData> lut;
    {
        std::lock_guard<std::mutex> lock(settingsMutex_);
        config = config_;
        if (config.enable != 0 && lut_ && lut_->dim >= 2 && !lut_->values.empty()) lut = lut_;
    }
    // Processors 1 and 3 leave the table to the render port.
    if (config.processor == 1 || config.processor == 3) {
        EmitVideo(frame);
        return KIV_OK;
    }
    int32_t outFmt = config.outFmt == 0 ? inFmt : config.outFmt;
    if (outFmt < KIV_PIXEL_FORMAT_YUY2 || outFmt > KIV_PIXEL_FORMAT_RGB32) outFmt = KIV_PIXEL_FORMAT_RGB32;
    if (!lut && outFmt == inFmt) {
        EmitVideo(frame);
        return KIV_OK;
    }
    const int32_t w = frame->width, h = frame->height;
    if (w < 1 || h < 1) return KIV_ERROR_INVALID_ARG;
    if (!frame->planes[0] || !RowsFit(*frame)) {
        EmitVideo(frame);  // nothing to read, or rows the buffer cannot hold
        return KIV_OK;
    }
    KivWorkPool<Buffers>::Lease buffers = buffers_.Acquire();
    if (!buffers) {
        EmitVideo(frame);
        return KIV_OK;
    }

    kiv::color::FrameJob job;
    job.in = frame;
    job.cs = kiv::color::ResolveColorSpace(config.cs, w, h);
    job.range = kiv::color::ResolveRange(config.range);
    job.lut = lut.get();
    job.strength = config.strength;
    job.scratch = &buffers->scratch;

    KivVideoFrame out = *frame;
    for (int i = 0; i < 4; ++i) {
        out.planes[i] = nullptr;
        out.strides[i] = 0;
    }
    out.format = outFmt;
    const int64_t width = w, height = h;
    bool sized = false;
    switch (outFmt) {
        case KIV_PIXEL_FORMAT_RGB24:
        case KIV_PIXEL_FORMAT_RGB32: {
            const int32_t bpp = outFmt == KIV_PIXEL_FORMAT_RGB24 ? 3 : 4;
            sized = kiv::SizeFrameBuffer(buffers->plane0, width * bpp * height);
            if (sized) sized = Convert([&] { kiv::color::ConvertToRgb(job, bpp, buffers->plane0.data()); });
            out.strides[0] = w * bpp;
            break;
        }
        case KIV_PIXEL_FORMAT_YUY2: {
            const int64_t stride = ((width + 1) & ~int64_t{1}) * 2;
            sized = kiv::SizeFrameBuffer(buffers->plane0, stride * height);
            if (sized) sized = Convert([&] { kiv::color::ConvertToYuy2(job, buffers->plane0.data()); });
            out.strides[0] = static_cast<int32_t>(stride);
            break;
        }
        default: {  // NV12
            const int64_t cw = (width + 1) & ~int64_t{1};
            sized = kiv::SizeFrameBuffer(buffers->plane0, width * height) &&
                    kiv::SizeFrameBuffer(buffers->plane1, cw * ((height + 1) / 2));
            if (sized) {
                sized = Convert([&] { kiv::color::ConvertToNv12(job, buffers->plane0.data(), buffers->plane1.data()); });
            }
            out.planes[1] = buffers->plane1.data();
            out.strides[0] = w;
            out.strides[1] = static_cast<int32_t>(cw);
            break;
        }
    }
    if (!sized) {
        EmitVideo(frame);  // too large for a buffer of ours
        return KIV_OK;
    }
    out.planes[0] = buffers->plane0.data();
    EmitVideo(&out);
    return KIV_OK;
}
