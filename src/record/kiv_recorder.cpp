#include "kiv_recorder.h"

#include <utility>

#include "kiv_log.h"
#include "kiv_platform.h"
#include "nv12_convert.h"
#include "recorder_path.h"
#include "segment_names.h"

using kiv::PathForLog;

namespace {

long long LL(int64_t v) { return static_cast<long long>(v); }
unsigned long long ULL(uint64_t v) { return static_cast<unsigned long long>(v); }

}  // namespace

// Hands the AAC units of the pass-through audio track to the MP4 writer.
class KivRecorder::AacToMp4 : public kiv::AacSink {
public:
    AacToMp4(KivRecorder* owner, PendingAudio* audio) : owner_(owner), audio_(audio) {}
    void OnAccessUnit(const uint8_t* data, size_t size, int64_t time, int64_t duration) override {
        owner_->WriteAacUnitLocked(data, size, time, duration, audio_);
    }

private:
    KivRecorder* owner_;
    PendingAudio* audio_;
};

void KivRecorder::PendingAudio::Deliver() {
    if (fn) {
        for (Entry& e : entries) {
            e.packet.data = bytes.data() + e.offset;
            fn(&e.packet, user);
        }
    }
    bytes.clear();
    entries.clear();
    fn = nullptr;
}

KivRecorder::KivRecorder(const char* text) : KivRecorder(text, kiv::CreatePlatformVideoEncoder()) {}

KivRecorder::KivRecorder(const char* text, std::unique_ptr<kiv::VideoEncoder> encoder)
    : KivPortBase(KIV_PORT_RECORDER), encoder_(std::move(encoder)) {
    if (!encoder_) encoder_ = kiv::CreatePlatformVideoEncoder();
    settings_.path = kiv::WidenCreationText(text);
    grid_.Reset(kiv::FrameDuration100ns(settings_.TargetFps()));
}

KivRecorder::~KivRecorder() { Stop(); }

// ---- configuration, statistics, callbacks ---------------------------------

int32_t KivRecorder::SetConfig(const KivRecorderConfig* config) {
    if (!config) return KIV_ERROR_INVALID_ARG;
    std::lock_guard<std::mutex> lock(lock_);
    if (running_) return KIV_ERROR_FAILED;
    kiv::ApplyRecorderConfig(*config, &settings_);
    const kiv::RecorderSettings& s = settings_;
    KIV_LOG("Recorder config file=%S size=%dx%d inputFps=%d recordFps=%d mode=%s targetFps=%d bitrate=%d audio=%d "
            "inputMode=%d split=%d maxBytes=%llu seconds=%d",
            PathForLog(s.path).c_str(), s.width, s.height, s.inputFps, s.recordFps, s.ModeName(), s.TargetFps(),
            s.bitrate, s.audio, s.inputMode, s.split, ULL(s.maxBytes), s.seconds);
    return KIV_OK;
}

int32_t KivRecorder::GetStats(KivRecorderStats* out) {
    if (!out) return KIV_ERROR_INVALID_ARG;
    *out = KivRecorderStats{};
    std::lock_guard<std::mutex> lock(lock_);
    out->inputFrames = counters_.input;
    out->encodedFrames = counters_.encoded;
    out->droppedFrames = counters_.dropped;
    out->duplicatedFrames = counters_.duplicated;
    out->videoPackets = counters_.videoPackets;
    out->audioPackets = counters_.audioPackets;
    out->fps = settings_.TargetFps();
    out->width = settings_.width;
    out->height = settings_.height;
    return KIV_OK;
}

int32_t KivRecorder::SetEncodedVideoCallback(KivEncodedVideoCallback fn, void* userData) {
    std::lock_guard<std::mutex> lock(lock_);
    videoCallback_ = fn;
    videoCallbackUser_ = userData;
    KIV_LOG("Recorder encoded video callback %s", fn ? "enabled" : "disabled");
    return KIV_OK;
}

int32_t KivRecorder::SetEncodedAudioCallback(KivEncodedAudioCallback fn, void* userData) {
    std::lock_guard<std::mutex> lock(lock_);
    audioCallback_ = fn;
    audioCallbackUser_ = userData;
    KIV_LOG("Recorder encoded audio callback %s", fn ? "enabled" : "disabled");
    return KIV_OK;
}

kiv::RecorderSettings KivRecorder::Settings() {
    std::lock_guard<std::mutex> lock(lock_);
    return settings_;
}

// ---- start and stop --------------------------------------------------------

int32_t KivRecorder::Start() {
    if (workerId_.load() == std::this_thread::get_id()) return KIV_ERROR_FAILED;
    std::lock_guard<std::mutex> control(controlMutex_);
    int32_t fps = 0;
    kiv::RecorderPath path;
    {
        std::lock_guard<std::mutex> lock(lock_);
        if (settings_.path.empty()) return KIV_ERROR_INVALID_ARG;
        if (running_) return KIV_OK;
        running_ = true;
        fps = settings_.TargetFps();
        path = settings_.path;
        grid_.Reset(kiv::FrameDuration100ns(fps));
        counters_ = Counters{};
        segmentIndex_ = 0;
        segmentStart_ = 0;
        segmentFrames_ = 0;
        analyzer_.Reset();
        rawDisabled_ = false;
        rawFirstLogged_ = false;
        aacAttempted_ = false;
        aacPcmSamples_ = 0;
        audioClock_ = 0;
        audioSampleFrames_ = 0;
    }
    queue_.Open();
    if (worker_.joinable()) worker_.join();
    worker_ = std::thread(&KivRecorder::WorkerMain, this);
    KIV_LOG("Recorder start file=%S targetFps=%d asyncQueue=%d", PathForLog(path).c_str(), fps, queue_.Limit());
    return KIV_OK;
}

int32_t KivRecorder::Stop() {
    // A callback cannot stop the recorder from the worker it runs on: the
    // stop waits for that very thread.
    if (workerId_.load() == std::this_thread::get_id()) return KIV_ERROR_FAILED;
    std::lock_guard<std::mutex> control(controlMutex_);
    // Cleared before the lock is taken, so the worker writes nothing more
    // once the frame it is on now is done.
    bool wasActive = running_.exchange(false);
    {
        std::lock_guard<std::mutex> lock(lock_);
        wasActive = wasActive || mp4_.IsOpen() || encoder_->IsOpen();
    }
    // Queued frames are discarded, not written: a stop ends the file now.
    queue_.BeginStop();
    if (worker_.joinable()) worker_.join();
    queue_.FinishStop();

    if (wasActive) {
        const int64_t asyncDropped = queue_.Dropped();  // read before the port lock: never both locks
        PendingAudio audio;
        {
            std::lock_guard<std::mutex> lock(lock_);
            KIV_LOG("Recorder stop asyncDropped=%lld", LL(asyncDropped));
            FinalizeLocked(&audio);
        }
        audio.Deliver();
    }
    return KIV_OK;
}

// ---- frame intake -----------------------------------------------------------

int32_t KivRecorder::OnVideoFrame(const KivVideoFrame* frame) {
    if (!frame) return KIV_ERROR_INVALID_ARG;
    if (!running_.load()) return KIV_OK;
    KivVideoFrame view = *frame;
    if (view.format == KIV_PIXEL_FORMAT_NV12 && !view.planes[1] && view.planes[0]) {
        // Chroma packed after the luma rows: point at it so the copy keeps it.
        const int32_t luma = view.strides[0] < 1 ? view.width : view.strides[0];
        view.planes[1] = view.planes[0] + static_cast<size_t>(luma) * static_cast<size_t>(view.height > 0 ? view.height : 0);
        view.strides[1] = luma;
    }
    std::unique_ptr<kiv::FrameCopy> copy = queue_.Acquire();
    if (!copy->Copy(view)) {
        queue_.Recycle(std::move(copy));
        return KIV_ERROR_INVALID_ARG;
    }
    const kiv::RecorderQueue::PushResult pushed = queue_.Push(std::move(copy));
    if (pushed.droppedNow > 0 && pushed.droppedTotal % 30 == 1) {
        KIV_LOG("Recorder async queue dropped frames=%lld queueLimit=%d", LL(pushed.droppedTotal), queue_.Limit());
    }
    return KIV_OK;
}

int32_t KivRecorder::OnAudioFrame(const KivAudioFrame* frame) {
    if (!frame) return KIV_ERROR_INVALID_ARG;
    // One collector per thread: audio normally arrives on one capture thread,
    // and its buffers are reused from frame to frame.
    thread_local PendingAudio audio;
    {
        std::lock_guard<std::mutex> lock(lock_);
        if (!running_) return KIV_OK;
        ++counters_.audioFrames;
        if (mp4_.IsOpen()) {
            Mp4AudioLocked(*frame, &audio);
        } else if (encoder_->IsOpen()) {
            EncoderAudioLocked(*frame);
        } else {
            if (frame->sampleRate > 0) sampleRate_ = frame->sampleRate;
            if (frame->channels > 0) channels_ = frame->channels;
            if (frame->bitsPerSample > 0) bitsPerSample_ = frame->bitsPerSample;
        }
    }
    audio.Deliver();
    return KIV_OK;
}

// ---- worker ---------------------------------------------------------------------

void KivRecorder::WorkerMain() {
    workerId_.store(std::this_thread::get_id());
    bool comHere = false;
    kiv::platform::ComInitialize(&comHere);
    Delivery delivery;
    while (std::unique_ptr<kiv::FrameCopy> copy = queue_.WaitPop()) {
        {
            std::lock_guard<std::mutex> lock(lock_);
            if (running_) ProcessFrameLocked(copy->Frame(), &delivery);
        }
        Deliver(&delivery, copy->Frame());
        queue_.Recycle(std::move(copy));
    }
    if (comHere) kiv::platform::ComUninitialize();
    workerId_.store(std::thread::id());
}

void KivRecorder::Deliver(Delivery* d, const KivVideoFrame& frame) {
    if (d->videoFn) d->videoFn(&d->packet, d->videoUser);
    d->videoFn = nullptr;
    d->audio.Deliver();
    if (d->emitFrame) EmitVideo(&frame);
    d->emitFrame = false;
}

int32_t KivRecorder::ProcessFrameLocked(const KivVideoFrame& frame, Delivery* out) {
    ++counters_.input;
    if (frame.format == KIV_PIXEL_FORMAT_H264) {
        if (settings_.inputMode == KIV_RECORD_INPUT_ENCODE) {
            KIV_LOG("Recorder cannot re-encode H264 input before the standalone decoder module is enabled.");
            return KIV_ERROR_UNSUPPORTED;
        }
        return PassThroughLocked(frame, out);
    }
    if (settings_.inputMode == KIV_RECORD_INPUT_DIRECT_H264) {
        KIV_LOG("Recorder DIRECT_H264 mode rejects non-H264 frame fmt=%d", frame.format);
        return KIV_ERROR_UNSUPPORTED;
    }
    return EncodeLocked(frame, out);
}

kiv::RecorderPath KivRecorder::NextSegmentNameLocked() const {
    const kiv::platform::LocalTime t = kiv::platform::Now();
    const kiv::SegmentClock clock{t.year, t.month, t.day, t.hour, t.minute, t.second, t.millisecond};
    return kiv::SegmentFileName(settings_.path, settings_.split, clock, segmentIndex_);
}

void KivRecorder::FinalizeLocked(PendingAudio* audio) {
    FinalizeMp4Locked(audio);
    FinalizeEncoderLocked();
}

// ---- pass-through of H.264 frames -------------------------------------------

int32_t KivRecorder::PassThroughLocked(const KivVideoFrame& frame, Delivery* out) {
    const uint8_t* data = frame.planes[0];
    const int32_t size = frame.strides[0];
    if (!data || size < 1) return KIV_ERROR_INVALID_ARG;
    if (rawDisabled_) {
        ++counters_.dropped;
        if (counters_.dropped % 240 == 1) {
            KIV_LOG("Raw H264 recorder disabled after fatal writer init failure. dropped=%lld input=%lld",
                    LL(counters_.dropped), LL(counters_.input));
        }
        return KIV_OK;
    }

    const kiv::H264FrameInfo info = analyzer_.Analyze(data, static_cast<size_t>(size));
    const std::vector<uint8_t>& sample = analyzer_.Sample();
    if (sample.empty()) {
        ++counters_.dropped;
        return KIV_OK;
    }
    if (!rawFirstLogged_) {
        rawFirstLogged_ = true;
        KIV_LOG("Raw H264 first sample source=%s inputBytes=%d annexBBytes=%u nalCount=%d firstNal=%d key=%d sps=%u "
                "pps=%u",
                kiv::H264SourceName(info.source), size, static_cast<unsigned>(sample.size()), info.nalCount,
                info.firstNalType, info.key ? 1 : 0, static_cast<unsigned>(analyzer_.Sps().size()),
                static_cast<unsigned>(analyzer_.Pps().size()));
    }
    if (!mp4_.IsOpen() && !analyzer_.HasParameterSets()) {
        // Frames before the first parameter sets cannot be decoded: they are
        // dropped rather than buffered.
        ++counters_.dropped;
        if (counters_.dropped % 30 == 1) {
            KIV_LOG("Raw H264 recorder waiting for SPS/PPS before MP4 writer start dropped=%lld sampleBytes=%d",
                    LL(counters_.dropped), static_cast<int>(sample.size()));
        }
        return KIV_OK;
    }

    const int64_t rel = grid_.Relative(kiv::FrameTime100ns(frame.timestamp));
    const int64_t time = grid_.PassThroughTime(rel);
    if (!mp4_.IsOpen() && !OpenMp4Locked(NextSegmentNameLocked(), frame.width, frame.height, time)) {
        ++counters_.dropped;
        rawDisabled_ = true;
        KIV_LOG("Raw H264 recorder fatal: writer init failed. Stop direct record and inspect sequence-header/media-type "
                "logs above.");
        return KIV_ERROR_FAILED;
    }

    kiv::SegmentProgress progress;
    progress.time = time;
    progress.segmentStart = segmentStart_;
    progress.writerCountsBytes = true;
    progress.writerBytes = mp4_.FileBytes();
    // A file is closed for a split only once it holds a frame, so that every
    // segment has its index whatever the limits.
    if (segmentFrames_ > 0 && kiv::ShouldSplit(settings_, progress)) {
        FinalizeMp4Locked(&out->audio);
        ++segmentIndex_;
        const kiv::RecorderPath next = NextSegmentNameLocked();
        KIV_LOG("Raw H264 recorder open next segment=%d file=%S", segmentIndex_, PathForLog(next).c_str());
        if (!OpenMp4Locked(next, frame.width, frame.height, time)) return KIV_ERROR_FAILED;
    }

    // Files start at time 0 whatever their place in the recording.
    const int64_t fileTime = time - segmentStart_;
    if (!mp4_.WriteVideoSample(sample.data(), sample.size(), fileTime, static_cast<uint32_t>(grid_.Duration()),
                               info.key)) {
        KIV_LOG("Raw H264 custom MP4 WriteVideoSample failed t=%lld size=%d key=%d", LL(fileTime),
                static_cast<int>(sample.size()), info.key ? 1 : 0);
        return KIV_ERROR_FAILED;
    }
    grid_.AdvanceFrom(time);
    const int64_t frameIndex = counters_.encoded;
    ++counters_.encoded;
    ++segmentFrames_;
    counters_.bytesWritten += static_cast<int64_t>(sample.size());
    if (counters_.encoded % 120 == 0) {
        KIV_LOG("Raw H264 recorder stats input=%lld written=%lld dropped=%lld bytes=%lld fps=%d size=%dx%d",
                LL(counters_.input), LL(counters_.encoded), LL(counters_.dropped), LL(counters_.bytesWritten),
                settings_.TargetFps(), settings_.width, settings_.height);
    }

    if (videoCallback_) {
        // The packet points into the analyser's sample, which only this worker
        // changes, so it stays valid until the callback returns.
        KivEncodedVideoPacket& p = out->packet;
        p = KivEncodedVideoPacket{};
        p.data = sample.data();
        p.size = static_cast<int32_t>(sample.size());
        p.kind = 1;
        p.pts = time;
        p.dts = time;
        p.frameIndex = frameIndex;
        p.key = info.key ? 1 : 0;
        p.width = settings_.width > 0 && settings_.height > 0 ? settings_.width : frame.width;
        p.height = settings_.width > 0 && settings_.height > 0 ? settings_.height : frame.height;
        out->videoFn = videoCallback_;
        out->videoUser = videoCallbackUser_;
        ++counters_.videoPackets;
    }
    out->emitFrame = true;
    return KIV_OK;
}

bool KivRecorder::OpenMp4Locked(const kiv::RecorderPath& file, int32_t frameWidth, int32_t frameHeight,
                                int64_t startTime) {
    kiv::H264SpsInfo sps;
    kiv::ParseH264Sps(analyzer_.Sps().data(), analyzer_.Sps().size(), &sps);
    KIV_LOG("Raw H264 custom MP4 sequence header sps=%u pps=%u profile=%d level=%d chroma=%d bitDepth=%d/%d parsed=%d",
            static_cast<unsigned>(analyzer_.Sps().size()), static_cast<unsigned>(analyzer_.Pps().size()), sps.profile,
            sps.level, sps.chromaFormat, sps.lumaBitDepth, sps.chromaBitDepth, sps.parsed ? 1 : 0);

    int32_t width = settings_.width, height = settings_.height;
    if (width <= 0 || height <= 0) {
        width = frameWidth;
        height = frameHeight;
    }
    if ((width <= 0 || height <= 0) && sps.sizeParsed) {
        width = sps.width;
        height = sps.height;
    }
    const kiv::RecorderPath path = file + kiv::RecorderPath(1, 0);
    const kiv::Mp4OpenResult result = mp4_.Open(path.c_str(), width, height, analyzer_.Sps(), analyzer_.Pps(), sps);
    if (result == kiv::Mp4OpenResult::kBadSize) {
        KIV_LOG("Raw H264 custom MP4 writer missing valid frame size cfg=%dx%d frame=%dx%d", settings_.width,
                settings_.height, frameWidth, frameHeight);
    } else if (result == kiv::Mp4OpenResult::kMissingParameters) {
        KIV_LOG("Raw H264 custom MP4 writer needs SPS/PPS before open sps=%u pps=%u",
                static_cast<unsigned>(analyzer_.Sps().size()), static_cast<unsigned>(analyzer_.Pps().size()));
    }
    if (result != kiv::Mp4OpenResult::kOk) {
        KIV_LOG("Raw H264 custom MP4 open failed file=%S", PathForLog(file).c_str());
        return false;
    }
    mp4File_ = file;
    segmentStart_ = startTime;
    segmentFrames_ = 0;
    aacAttempted_ = false;
    aacPcmSamples_ = 0;
    return true;
}

void KivRecorder::FinalizeMp4Locked(PendingAudio* audio) {
    if (!mp4_.IsOpen()) return;
    if (aac_.Ready()) {
        AacToMp4 sink(this, audio);
        const uint32_t hr = aac_.Drain(&sink);
        if (hr != 0) KIV_LOG("Raw H264 custom MP4 AAC drain failed hr=0x%08X", hr);
    }
    aac_.Release();
    const bool ok = mp4_.Finalize();
    KIV_LOG("Raw H264 custom MP4 finalize segment=%d file=%S ok=%d payloadBytes=%llu audioBytes=%llu fileBytes=%llu "
            "frames=%lld samples=%u audioSamples=%u audioPcmSamples=%lld",
            segmentIndex_, PathForLog(mp4File_).c_str(), ok ? 1 : 0, ULL(mp4_.VideoPayloadBytes()),
            ULL(mp4_.AudioPayloadBytes()), ULL(mp4_.FinalFileBytes()), LL(segmentFrames_), mp4_.VideoSampleCount(),
            mp4_.AudioSampleCount(), LL(aacPcmSamples_));
    aacAttempted_ = false;
}

void KivRecorder::Mp4AudioLocked(const KivAudioFrame& frame, PendingAudio* audio) {
    if (!settings_.audio || !frame.data || frame.bytes == 0) return;
    if (!aacAttempted_) {
        // The track takes the format of the first audio frame of each file.
        aacAttempted_ = true;
        if (frame.sampleRate > 0) sampleRate_ = frame.sampleRate;
        if (frame.channels > 0) channels_ = frame.channels;
        const bool ready = aac_.Initialize(sampleRate_, channels_);
        const kiv::AacInitReport& r = aac_.InitReport();
        switch (r.stage) {
            case kiv::AacInitStage::kEnumFailed:
                KIV_LOG("AAC encoder MFTEnumEx failed hr=0x%08X count=%u", r.hr, r.count);
                break;
            case kiv::AacInitStage::kActivateFailed: KIV_LOG("AAC encoder ActivateObject failed hr=0x%08X", r.hr); break;
            case kiv::AacInitStage::kConfigureFailed:
                KIV_LOG("AAC encoder ConfigureTypes failed hr=0x%08X sr=%d ch=%d bitrate=%d", r.hr, sampleRate_,
                        channels_, aac_.BitRate());
                break;
            case kiv::AacInitStage::kReady: {
                const uint8_t* asc = aac_.AudioSpecificConfig();
                KIV_LOG("AAC encoder ready sr=%d ch=%d bitrate=%d asc=%02X%02X outBuf=%u provides=%d", sampleRate_,
                        channels_, aac_.BitRate(), asc[0], asc[1], r.outputBufferSize, r.providesSamples ? 1 : 0);
                break;
            }
            default: break;
        }
        if (!ready || !mp4_.EnableAudio(sampleRate_, channels_, aac_.AudioSpecificConfig(), aac_.BitRate())) {
            KIV_LOG("Raw H264 custom MP4 AAC encoder init failed sr=%d ch=%d", sampleRate_, channels_);
            aac_.Release();
        }
    }
    if (!aac_.Ready()) return;
    const int32_t channels = channels_ > 0 ? channels_ : 2;
    const int32_t rate = sampleRate_ > 0 ? sampleRate_ : 48000;
    const int64_t time = aacPcmSamples_ * 10000000 / rate;
    AacToMp4 sink(this, audio);
    const uint32_t hr = aac_.Encode(frame.data, frame.bytes, time, &sink);
    if (hr != 0) {
        KIV_LOG("Raw H264 custom MP4 AAC encode failed hr=0x%08X bytes=%d", hr, static_cast<int>(frame.bytes));
        return;
    }
    aacPcmSamples_ += static_cast<int64_t>(frame.bytes) / (channels * 2);
}

void KivRecorder::WriteAacUnitLocked(const uint8_t* data, size_t size, int64_t time, int64_t duration,
                                     PendingAudio* audio) {
    if (!mp4_.WriteAudioSample(data, size, time, static_cast<uint32_t>(duration > 0 ? duration : 0))) {
        KIV_LOG("Raw H264 custom MP4 WriteAudioSample failed size=%d", static_cast<int>(size));
        return;
    }
    if (!audioCallback_) return;
    PendingAudio::Entry entry{};
    entry.offset = audio->bytes.size();
    entry.packet.size = static_cast<int32_t>(size);
    entry.packet.codec = 1;
    entry.packet.time = time;
    entry.packet.sampleRate = sampleRate_;
    entry.packet.channels = channels_;
    entry.packet.bitsPerSample = 16;
    audio->bytes.insert(audio->bytes.end(), data, data + size);
    audio->entries.push_back(entry);
    audio->fn = audioCallback_;
    audio->user = audioCallbackUser_;
    ++counters_.audioPackets;
}

// ---- encoding of uncompressed frames ------------------------------------------

int32_t KivRecorder::EncodeLocked(const KivVideoFrame& frame, Delivery* out) {
    if (!encoder_->IsOpen()) {
        const int32_t opened = OpenEncoderLocked(NextSegmentNameLocked(), frame);
        if (opened != KIV_OK) return opened;
    }

    const int64_t rel = grid_.Relative(kiv::FrameTime100ns(frame.timestamp));
    if (grid_.ShouldDrop(rel)) {
        ++counters_.dropped;
        if (counters_.dropped % 120 == 0) {
            KIV_LOG("Recorder dropped frames=%lld input=%lld encoded=%lld", LL(counters_.dropped), LL(counters_.input),
                    LL(counters_.encoded));
        }
        return KIV_OK;
    }

    kiv::SegmentProgress progress;
    progress.time = grid_.NextDue();
    progress.segmentStart = segmentStart_;
    if (segmentFrames_ > 0 && kiv::ShouldSplit(settings_, progress)) {  // never an empty segment
        FinalizeEncoderLocked();
        ++segmentIndex_;
        const kiv::RecorderPath next = NextSegmentNameLocked();
        KIV_LOG("Recorder open next segment=%d file=%S", segmentIndex_, PathForLog(next).c_str());
        if (OpenEncoderLocked(next, frame) != KIV_OK) return KIV_ERROR_FAILED;
    }

    if (kiv::ConvertToNv12(frame, encoderWidth_, encoderHeight_, &picture_) != KIV_OK) return KIV_ERROR_FAILED;
    while (grid_.NeedsDuplicate(rel)) {
        if (WriteEncoderVideoLocked(previousPicture_, true) != KIV_OK) return KIV_ERROR_FAILED;
        ++counters_.duplicated;
        grid_.Advance();
    }
    if (WriteEncoderVideoLocked(picture_, false) != KIV_OK) return KIV_ERROR_FAILED;
    grid_.Advance();
    picture_.swap(previousPicture_);
    ++counters_.encoded;
    ++segmentFrames_;
    if (counters_.encoded % 120 == 0) {
        KIV_LOG("Recorder stats input=%lld encoded=%lld dropped=%lld duplicated=%lld fps=%d size=%dx%d",
                LL(counters_.input), LL(counters_.encoded), LL(counters_.dropped), LL(counters_.duplicated),
                settings_.TargetFps(), encoderWidth_, encoderHeight_);
    }
    out->emitFrame = true;
    return KIV_OK;
}

int32_t KivRecorder::OpenEncoderLocked(const kiv::RecorderPath& file, const KivVideoFrame& frame) {
    int32_t width = settings_.width, height = settings_.height;
    if (width <= 0 || height <= 0) {
        width = frame.width;
        height = frame.height;
    }
    if (width <= 0 || height <= 0) return KIV_ERROR_INVALID_ARG;

    const int32_t fps = settings_.TargetFps();
    const kiv::RecorderPath path = file + kiv::RecorderPath(1, 0);
    kiv::VideoEncoderSettings request;
    request.file = path.c_str();
    request.width = width;
    request.height = height;
    request.fps = fps;
    request.bitrate = settings_.bitrate;
    request.audio = settings_.audio != 0;
    request.sampleRate = sampleRate_;
    request.channels = channels_;
    const kiv::EncoderOpenReport report = encoder_->Open(request);
    switch (report.failedStep) {
        case kiv::EncoderOpenStep::kNone: break;
        case kiv::EncoderOpenStep::kCreateWriter:
            KIV_LOG("MFCreateSinkWriterFromURL failed hr=0x%08X file=%S", report.hr, PathForLog(file).c_str());
            return KIV_ERROR_FAILED;
        case kiv::EncoderOpenStep::kAddStream: KIV_LOG("Recorder AddStream failed hr=0x%08X", report.hr); return KIV_ERROR_FAILED;
        case kiv::EncoderOpenStep::kSetInputType:
            KIV_LOG("Recorder SetInputMediaType failed hr=0x%08X", report.hr);
            return KIV_ERROR_FAILED;
        case kiv::EncoderOpenStep::kBeginWriting:
            KIV_LOG("Recorder BeginWriting failed hr=0x%08X", report.hr);
            return KIV_ERROR_FAILED;
    }
    if (request.audio) {
        if (report.audioReady) {
            KIV_LOG("Recorder audio stream ready %d Hz %d ch", sampleRate_, channels_);
        } else {
            KIV_LOG("Recorder audio stream disabled hr=0x%08X", report.audioHr);
        }
    }
    encoderFile_ = file;
    encoderWidth_ = width;
    encoderHeight_ = height;
    encoderAudio_ = request.audio && report.audioReady;
    segmentStart_ = grid_.NextDue();
    segmentFrames_ = 0;
    audioClock_ = segmentStart_;
    audioSampleFrames_ = 0;
    KIV_LOG("Recorder writer ready file=%S %dx%d fps=%d bitrate=%d segment=%d", PathForLog(file).c_str(), width, height,
            fps, settings_.bitrate, segmentIndex_);
    return KIV_OK;
}

int32_t KivRecorder::WriteEncoderVideoLocked(const std::vector<uint8_t>& picture, bool duplicate) {
    const int64_t time = grid_.NextDue();
    const uint32_t hr = encoder_->WriteVideo(picture.data(), picture.size(), time, grid_.Duration());
    if (hr != 0) {
        KIV_LOG("Recorder WriteSample failed hr=0x%08X t=%lld dup=%d", hr, LL(time), duplicate ? 1 : 0);
        return KIV_ERROR_FAILED;
    }
    return KIV_OK;
}

void KivRecorder::FinalizeEncoderLocked() {
    if (!encoder_->IsOpen()) return;
    const kiv::EncoderFinalizeReport r = encoder_->Finalize();
    KIV_LOG("Recorder finalize segment=%d file=%S hr=0x%08X bytes=%llu frames=%lld audioSamples=%lld",
            segmentIndex_, PathForLog(encoderFile_).c_str(), r.hr, ULL(r.fileBytes), LL(segmentFrames_),
            LL(audioSampleFrames_));
    encoderAudio_ = false;
}

void KivRecorder::EncoderAudioLocked(const KivAudioFrame& frame) {
    if (!encoderAudio_ || !frame.data || frame.bytes == 0) return;
    // The audio clock counts the audio written, not the arrival times.
    const int64_t channels = channels_ > 0 ? channels_ : 2;
    const int64_t rate = sampleRate_ > 0 ? sampleRate_ : 48000;
    const int64_t sampleFrames = static_cast<int64_t>(frame.bytes) / (channels * 2);
    const int64_t duration = sampleFrames * 10000000 / rate;
    const int64_t time = audioClock_ > 0 ? audioClock_ : 0;
    const uint32_t hr = encoder_->WriteAudio(frame.data, frame.bytes, time, duration);
    if (hr != 0) {
        KIV_LOG("Recorder WriteAudioSample failed hr=0x%08X", hr);
        return;
    }
    audioClock_ += duration;
    audioSampleFrames_ += sampleFrames;
}
