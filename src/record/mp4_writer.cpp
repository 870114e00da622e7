#include "mp4_writer.h"

#include <algorithm>
#include <cstring>

namespace kiv {

namespace {

constexpr uint32_t kMovieTimescale = 10000000;  // 100 ns units
constexpr uint32_t kAacFrameSamples = 1024;
constexpr uint32_t kMatrix[9] = {0x00010000, 0, 0, 0, 0x00010000, 0, 0, 0, 0x40000000};

// Appends big-endian fields and boxes whose sizes are patched when they end.
class BoxBuilder {
public:
    explicit BoxBuilder(std::vector<uint8_t>* out) : out_(*out) {}

    void U8(uint32_t v) { out_.push_back(uint8_t(v)); }
    void U16(uint32_t v) {
        U8(v >> 8);
        U8(v);
    }
    void U24(uint32_t v) {
        U8(v >> 16);
        U16(v);
    }
    void U32(uint32_t v) {
        U16(v >> 16);
        U16(v);
    }
    void U64(uint64_t v) {
        U32(uint32_t(v >> 32));
        U32(uint32_t(v));
    }
    void Zeros(size_t n) { out_.insert(out_.end(), n, 0); }
    void Bytes(const uint8_t* p, size_t n) { out_.insert(out_.end(), p, p + n); }
    void FourCc(const char* c) { Bytes(reinterpret_cast<const uint8_t*>(c), 4); }

    size_t Begin(const char* type) {
        const size_t at = out_.size();
        U32(0);
        FourCc(type);
        return at;
    }
    size_t BeginFull(const char* type, uint32_t version, uint32_t flags) {
        const size_t at = Begin(type);
        U8(version);
        U24(flags);
        return at;
    }
    void End(size_t at) { PatchU32(at, uint32_t(out_.size() - at)); }
    void PatchU32(size_t at, uint32_t v) {
        out_[at] = uint8_t(v >> 24);
        out_[at + 1] = uint8_t(v >> 16);
        out_[at + 2] = uint8_t(v >> 8);
        out_[at + 3] = uint8_t(v);
    }

private:
    std::vector<uint8_t>& out_;
};

void WriteMatrix(BoxBuilder* b) {
    for (uint32_t v : kMatrix) b->U32(v);
}

void WriteHandler(BoxBuilder* b, const char* type, const char* name) {
    const size_t hdlr = b->BeginFull("hdlr", 0, 0);
    b->U32(0);
    b->FourCc(type);
    b->Zeros(12);
    b->Bytes(reinterpret_cast<const uint8_t*>(name), std::strlen(name) + 1);
    b->End(hdlr);
}

void WriteDataInformation(BoxBuilder* b) {
    const size_t dinf = b->Begin("dinf");
    const size_t dref = b->BeginFull("dref", 0, 0);
    b->U32(1);
    const size_t url = b->BeginFull("url ", 0, 1);  // flag 1: data in this file
    b->End(url);
    b->End(dref);
    b->End(dinf);
}

void WriteTrackHeader(BoxBuilder* b, uint32_t trackId, uint64_t duration, uint32_t volume, int32_t width,
                      int32_t height) {
    const size_t tkhd = b->BeginFull("tkhd", 1, 7);  // enabled, in movie, in preview
    b->U64(0);
    b->U64(0);
    b->U32(trackId);
    b->U32(0);
    b->U64(duration);
    b->Zeros(8);
    b->U16(0);  // layer
    b->U16(0);  // alternate group
    b->U16(volume);
    b->U16(0);
    WriteMatrix(b);
    b->U32(uint32_t(width) << 16);
    b->U32(uint32_t(height) << 16);
    b->End(tkhd);
}

void WriteMediaHeader(BoxBuilder* b, uint32_t timescale, uint64_t duration) {
    const size_t mdhd = b->BeginFull("mdhd", 1, 0);
    b->U64(0);
    b->U64(0);
    b->U32(timescale);
    b->U64(duration);
    b->U16(0x55C4);  // "und"
    b->U16(0);
    b->End(mdhd);
}

// stts with runs of equal deltas merged; a delta of 0 counts as 1.
void WriteTimeToSample(BoxBuilder* b, const std::vector<uint32_t>& deltas) {
    const size_t stts = b->BeginFull("stts", 0, 0);
    const size_t countAt = stts + 12;
    b->U32(0);
    uint32_t entries = 0;
    size_t i = 0;
    while (i < deltas.size()) {
        const uint32_t delta = std::max<uint32_t>(deltas[i], 1);
        size_t j = i + 1;
        while (j < deltas.size() && std::max<uint32_t>(deltas[j], 1) == delta) ++j;
        b->U32(uint32_t(j - i));
        b->U32(delta);
        ++entries;
        i = j;
    }
    b->PatchU32(countAt, entries);
    b->End(stts);
}

}  // namespace

namespace {

void WriteSampleTables(BoxBuilder* b, const std::vector<uint32_t>& deltas, const std::vector<uint32_t>& sizes,
                       const std::vector<uint64_t>& offsets, const std::vector<uint32_t>* keyNumbers) {
    WriteTimeToSample(b, deltas);
    if (keyNumbers != nullptr) {
        const size_t stss = b->BeginFull("stss", 0, 0);
        b->U32(uint32_t(keyNumbers->size()));
        for (uint32_t n : *keyNumbers) b->U32(n);
        b->End(stss);
    }
    const size_t stsc = b->BeginFull("stsc", 0, 0);  // every sample is its own chunk
    b->U32(1);
    b->U32(1);
    b->U32(1);
    b->U32(1);
    b->End(stsc);
    const size_t stsz = b->BeginFull("stsz", 0, 0);
    b->U32(0);
    b->U32(uint32_t(sizes.size()));
    for (uint32_t s : sizes) b->U32(s);
    b->End(stsz);
    const size_t co64 = b->BeginFull("co64", 0, 0);
    b->U32(uint32_t(offsets.size()));
    for (uint64_t o : offsets) b->U64(o);
    b->End(co64);
}

uint32_t ClampU32(int64_t v) { return v <= 0 ? 0 : v > 0xFFFFFFFFll ? 0xFFFFFFFFu : uint32_t(v); }

}  // namespace

bool BuildAvcC(const uint8_t* sps, size_t spsSize, const uint8_t* pps, size_t ppsSize, const H264SpsInfo& info,
               std::vector<uint8_t>* out) {
    out->clear();
    if (sps == nullptr || pps == nullptr || spsSize < 4 || ppsSize == 0 || spsSize > 0xFFFF || ppsSize > 0xFFFF) {
        return false;
    }
    BoxBuilder b(out);
    b.U8(1);  // configuration version
    b.U8(sps[1]);
    b.U8(sps[2]);
    b.U8(sps[3]);
    b.U8(0xFF);  // 4-byte NAL lengths
    b.U8(0xE1);  // one SPS
    b.U16(uint32_t(spsSize));
    b.Bytes(sps, spsSize);
    b.U8(1);  // one PPS
    b.U16(uint32_t(ppsSize));
    b.Bytes(pps, ppsSize);
    if (H264ProfileHasChromaInfo(sps[1])) {
        const int32_t chroma = info.parsed ? info.chromaFormat : 1;
        const int32_t luma = info.parsed && info.lumaBitDepth > 8 ? info.lumaBitDepth - 8 : 0;
        const int32_t chromaDepth = info.parsed && info.chromaBitDepth > 8 ? info.chromaBitDepth - 8 : 0;
        b.U8(0xFC | (uint32_t(chroma) & 3));
        b.U8(0xF8 | (uint32_t(luma) & 7));
        b.U8(0xF8 | (uint32_t(chromaDepth) & 7));
        b.U8(0);  // no SPS extensions
    }
    return true;
}

Mp4Writer::Mp4Writer(size_t writeBufferBytes) : file_(writeBufferBytes) {
    video_.reserve(4096);
    audio_.reserve(8192);
}

Mp4Writer::~Mp4Writer() { Finalize(); }

Mp4OpenResult Mp4Writer::Open(const KivWChar* path, int32_t width, int32_t height, const std::vector<uint8_t>& sps,
                              const std::vector<uint8_t>& pps, const H264SpsInfo& spsInfo) {
    if (open_) Finalize();
    video_.clear();
    audio_.clear();
    audioEnabled_ = false;
    videoBytes_ = 0;
    audioBytes_ = 0;
    if (path == nullptr || path[0] == 0) return Mp4OpenResult::kBadPath;
    if (width <= 0 || height < 1 || width > 0xFFFF || height > 0xFFFF) return Mp4OpenResult::kBadSize;
    if (sps.empty() || pps.empty()) return Mp4OpenResult::kMissingParameters;
    if (!BuildAvcC(sps.data(), sps.size(), pps.data(), pps.size(), spsInfo, &avcC_)) return Mp4OpenResult::kBadAvcC;
    if (!file_.Open(path)) return Mp4OpenResult::kFileFailed;

    width_ = width;
    height_ = height;
    sps_ = sps;
    pps_ = pps;

    std::vector<uint8_t> header;
    BoxBuilder b(&header);
    const size_t ftyp = b.Begin("ftyp");
    b.FourCc("isom");
    b.U32(512);
    for (const char* brand : {"isom", "iso2", "avc1", "mp41", "mp42"}) b.FourCc(brand);
    b.End(ftyp);
    mdatHeaderPos_ = header.size();
    b.U32(1);  // the 64-bit size follows the type
    b.FourCc("mdat");
    b.U64(0);
    if (!file_.Write(header.data(), header.size())) {
        file_.Close();
        return Mp4OpenResult::kFileFailed;
    }
    open_ = true;
    file_.SetReserve(IndexReserve());
    return Mp4OpenResult::kOk;
}

bool Mp4Writer::EnableAudio(int32_t sampleRate, int32_t channels, const uint8_t audioSpecificConfig[2],
                            int32_t bitRate) {
    if (!open_ || sampleRate < 1 || channels < 1 || channels > 0xFFFF || audioSpecificConfig == nullptr) return false;
    if (audioEnabled_) {
        return sampleRate == sampleRate_ && channels == channels_ && audioSpecificConfig[0] == asc_[0] &&
               audioSpecificConfig[1] == asc_[1];
    }
    sampleRate_ = sampleRate;
    channels_ = channels;
    audioBitRate_ = bitRate > 0 ? bitRate : 128000;
    asc_[0] = audioSpecificConfig[0];
    asc_[1] = audioSpecificConfig[1];
    audioEnabled_ = true;
    return true;
}

bool Mp4Writer::WriteVideoSample(const uint8_t* annexB, size_t size, int64_t time, uint32_t duration, bool key) {
    // Each start code (3 or 4 bytes) becomes a 4-byte length, so the stored
    // sample is at most 4/3 of the input; keep it within 32 bits.
    if (!open_ || annexB == nullptr || size >= 0xC0000000u) return false;
    const uint64_t offset = file_.Position();
    AnnexBReader reader(annexB, size);
    const uint8_t* nal = nullptr;
    size_t nalSize = 0;
    uint64_t stored = 0;
    while (reader.Next(&nal, &nalSize)) {
        if (!file_.WriteU32BE(uint32_t(nalSize)) || !file_.Write(nal, nalSize)) return false;
        stored += 4 + nalSize;
    }
    if (stored == 0) return false;
    video_.push_back(Sample{offset, uint32_t(stored), time, duration, key});
    videoBytes_ += stored;
    file_.SetReserve(IndexReserve());
    return true;
}

bool Mp4Writer::WriteAudioSample(const uint8_t* accessUnit, size_t size, int64_t time, uint32_t duration) {
    if (!open_ || !audioEnabled_ || accessUnit == nullptr) return false;
    if (size == 0 || size > 0xFFFFFFFFu) return false;
    const uint64_t offset = file_.Position();
    if (!file_.Write(accessUnit, size)) return false;
    audio_.push_back(Sample{offset, uint32_t(size), time, duration, true});
    audioBytes_ += size;
    file_.SetReserve(IndexReserve());
    return true;
}

void Mp4Writer::BuildMoov(std::vector<uint8_t>* moov) const {
    // Video: each sample lasts until the next one starts, the last one its
    // own duration, so the track follows the recorded times even across gaps.
    std::vector<uint32_t> videoDeltas(video_.size());
    std::vector<uint32_t> videoSizes(video_.size());
    std::vector<uint64_t> videoOffsets(video_.size());
    std::vector<uint32_t> keyNumbers;
    uint64_t videoDuration = 0;
    for (size_t i = 0; i < video_.size(); ++i) {
        const Sample& s = video_[i];
        const int64_t gap = i + 1 < video_.size() ? video_[i + 1].time - s.time : int64_t(s.duration);
        videoDeltas[i] = std::max<uint32_t>(ClampU32(gap), 1);
        videoDuration += videoDeltas[i];
        videoSizes[i] = s.size;
        videoOffsets[i] = s.offset;
        if (s.key) keyNumbers.push_back(uint32_t(i + 1));
    }

    // Audio: durations are given in 100 ns units and stored in samples.
    const int64_t rate = sampleRate_ >= 1 ? sampleRate_ : 48000;
    std::vector<uint32_t> audioDeltas(audio_.size());
    std::vector<uint32_t> audioSizes(audio_.size());
    std::vector<uint64_t> audioOffsets(audio_.size());
    uint64_t audioSamples = 0;
    for (size_t i = 0; i < audio_.size(); ++i) {
        const Sample& s = audio_[i];
        audioDeltas[i] = s.duration == 0 ? kAacFrameSamples
                                         : ClampU32((int64_t(s.duration) * rate + kMovieTimescale / 2) / kMovieTimescale);
        audioDeltas[i] = std::max<uint32_t>(audioDeltas[i], 1);
        audioSamples += audioDeltas[i];
        audioSizes[i] = s.size;
        audioOffsets[i] = s.offset;
    }
    const bool withAudio = audioEnabled_;
    const uint64_t audioDuration = audioSamples * kMovieTimescale / uint64_t(rate);

    BoxBuilder b(moov);
    const size_t moovAt = b.Begin("moov");
    const size_t mvhd = b.BeginFull("mvhd", 1, 0);
    b.U64(0);
    b.U64(0);
    b.U32(kMovieTimescale);
    b.U64(std::max(videoDuration, audioDuration));
    b.U32(0x00010000);  // rate 1.0
    b.U16(0x0100);      // volume 1.0
    b.Zeros(2 + 8);
    WriteMatrix(&b);
    b.Zeros(24);
    b.U32(withAudio ? 3 : 2);  // next track id
    b.End(mvhd);

    const size_t videoTrak = b.Begin("trak");
    WriteTrackHeader(&b, 1, videoDuration, 0, width_, height_);
    const size_t videoMdia = b.Begin("mdia");
    WriteMediaHeader(&b, kMovieTimescale, videoDuration);
    WriteHandler(&b, "vide", "VideoHandler");
    const size_t videoMinf = b.Begin("minf");
    const size_t vmhd = b.BeginFull("vmhd", 0, 1);
    b.Zeros(8);
    b.End(vmhd);
    WriteDataInformation(&b);
    const size_t videoStbl = b.Begin("stbl");
    const size_t videoStsd = b.BeginFull("stsd", 0, 0);
    b.U32(1);
    const size_t avc1 = b.Begin("avc1");
    b.Zeros(6);
    b.U16(1);  // data reference index
    b.Zeros(2 + 2 + 12);
    b.U16(uint32_t(width_));
    b.U16(uint32_t(height_));
    b.U32(0x00480000);
    b.U32(0x00480000);
    b.U32(0);
    b.U16(1);  // frame count
    b.Zeros(32);
    b.U16(0x0018);
    b.U16(0xFFFF);
    const size_t avcCAt = b.Begin("avcC");
    b.Bytes(avcC_.data(), avcC_.size());
    b.End(avcCAt);
    b.End(avc1);
    b.End(videoStsd);
    WriteSampleTables(&b, videoDeltas, videoSizes, videoOffsets, &keyNumbers);
    b.End(videoStbl);
    b.End(videoMinf);
    b.End(videoMdia);
    b.End(videoTrak);

    if (withAudio) {
        const size_t trak = b.Begin("trak");
        WriteTrackHeader(&b, 2, audioDuration, 0x0100, 0, 0);
        const size_t mdia = b.Begin("mdia");
        WriteMediaHeader(&b, uint32_t(rate), audioSamples);
        WriteHandler(&b, "soun", "SoundHandler");
        const size_t minf = b.Begin("minf");
        const size_t smhd = b.BeginFull("smhd", 0, 0);
        b.U16(0);
        b.U16(0);
        b.End(smhd);
        WriteDataInformation(&b);
        const size_t stbl = b.Begin("stbl");
        const size_t stsd = b.BeginFull("stsd", 0, 0);
        b.U32(1);
        const size_t mp4a = b.Begin("mp4a");
        b.Zeros(6);
        b.U16(1);
        b.Zeros(8);
        b.U16(uint32_t(channels_));
        b.U16(16);
        b.Zeros(4);
        b.U32(uint32_t(uint64_t(sampleRate_) << 16));
        // esds: ES descriptor (3) > decoder config (4) > decoder specific
        // info (5, the AudioSpecificConfig), then SL config (6). All lengths
        // fit the one-byte form.
        const size_t esds = b.BeginFull("esds", 0, 0);
        b.U8(3);
        b.U8(3 + (2 + 13 + 2 + 2) + (2 + 1));
        b.U16(2);  // ES id
        b.U8(0);
        b.U8(4);
        b.U8(13 + 2 + 2);
        b.U8(0x40);  // MPEG-4 audio
        b.U8(0x15);  // audio stream
        b.U24(uint32_t(1536 * channels_));
        b.U32(uint32_t(audioBitRate_));
        b.U32(uint32_t(audioBitRate_));
        b.U8(5);
        b.U8(2);
        b.U8(asc_[0]);
        b.U8(asc_[1]);
        b.U8(6);
        b.U8(1);
        b.U8(2);
        b.End(esds);
        b.End(mp4a);
        b.End(stsd);
        WriteSampleTables(&b, audioDeltas, audioSizes, audioOffsets, nullptr);
        b.End(stbl);
        b.End(minf);
        b.End(mdia);
        b.End(trak);
    }
    b.End(moovAt);
}

// Room kept free on the volume for the moov that ends the file: its fixed
// boxes, at most 24 bytes per sample (size, offset, time and key entries) and
// a margin for the file system's own needs.
uint64_t Mp4Writer::IndexReserve() const { return 256 * 1024 + 24 * uint64_t(video_.size() + audio_.size()); }

// After a failed write (a full disk, say) the samples whose bytes all reached
// the file are kept, and the moov that describes them goes right after the
// last one, over whatever part of the failed write got through: the file
// still plays up to the failure.
void Mp4Writer::KeepSamplesOnDisk() {
    const uint64_t onDisk = file_.BytesOnDisk();
    const auto end = [](const Sample& s) { return s.offset + s.size; };
    while (!video_.empty() && end(video_.back()) > onDisk) video_.pop_back();
    while (!audio_.empty() && end(audio_.back()) > onDisk) audio_.pop_back();
    uint64_t last = mdatHeaderPos_ + 16;
    if (!video_.empty()) last = std::max(last, end(video_.back()));
    if (!audio_.empty()) last = std::max(last, end(audio_.back()));
    if (last > onDisk || !file_.RewindAfterFailure(last)) {
        video_.clear();  // not even the header is there: nothing to describe
        audio_.clear();
    }
}

bool Mp4Writer::Finalize() {
    if (!open_) return false;
    open_ = false;
    // The samples go to the file first, so a failure among them is found
    // before the moov that describes them is built.
    const bool intact = file_.Flush();
    if (!intact) KeepSamplesOnDisk();
    file_.SetReserve(0);  // what was kept free was kept for this
    bool ok = !file_.Failed();
    if (ok && !video_.empty()) {
        const uint64_t end = file_.Position();
        const uint64_t mdatSize = end - mdatHeaderPos_;
        const uint8_t size[8] = {uint8_t(mdatSize >> 56), uint8_t(mdatSize >> 48), uint8_t(mdatSize >> 40),
                                 uint8_t(mdatSize >> 32), uint8_t(mdatSize >> 24), uint8_t(mdatSize >> 16),
                                 uint8_t(mdatSize >> 8),  uint8_t(mdatSize)};
        std::vector<uint8_t> moov;
        BuildMoov(&moov);
        ok = file_.Patch(mdatHeaderPos_ + 8, size, sizeof(size)) && file_.Write(moov.data(), moov.size());
    }
    finalFileBytes_ = file_.Size();
    const bool closed = file_.Close();
    return intact && ok && closed;
}

}  // namespace kiv
