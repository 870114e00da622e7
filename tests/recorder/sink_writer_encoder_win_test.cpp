// The encoder over the Media Foundation sink writer against a stand-in writer
// (Wine has none): the media types it asks for, the samples it hands over, the
// step it reports when the writer refuses, and no reference kept once done.
#include <gtest/gtest.h>

#include <windows.h>

#include <mfapi.h>
#include <mferror.h>

#include <cstdio>

#include "record/mf_sink_writer_hook_win.h"
#include "record/video_encoder.h"
#include "test_support.h"

namespace {

constexpr HRESULT kRefused = static_cast<HRESULT>(0x80041234L);
using Values = std::vector<UINT64>;

// Subtype's first field, frame size, frame rate, bit rate, sample rate, channels, bytes a second.
Values Read(IMFMediaType* type) {
    GUID subtype{};
    UINT64 size = 0, rate = 0;
    UINT32 v[4] = {};
    type->GetGUID(MF_MT_SUBTYPE, &subtype);
    type->GetUINT64(MF_MT_FRAME_SIZE, &size);
    type->GetUINT64(MF_MT_FRAME_RATE, &rate);
    const GUID keys[] = {MF_MT_AVG_BITRATE, MF_MT_AUDIO_SAMPLES_PER_SECOND, MF_MT_AUDIO_NUM_CHANNELS, MF_MT_AUDIO_AVG_BYTES_PER_SECOND};
    for (int i = 0; i < 4; ++i) type->GetUINT32(keys[i], &v[i]);
    return {subtype.Data1, size, rate, v[0], v[1], v[2], v[3]};
}

// Keeps the types in call order and each sample as {stream, time, duration, bytes...}; `refuse` names the call that fails.
struct FakeSinkWriter : IMFSinkWriter {
    enum Refuse { kNothing, kCreate, kVideoStream, kVideoInput, kAudioStream, kBegin, kWrite } refuse = kNothing;
    LONG refs = 0;
    DWORD streams = 0;
    UINT32 throttlingOff = 0;
    int begun = 0, finalized = 0;
    std::wstring url;
    std::vector<Values> types, samples;

    STDMETHODIMP QueryInterface(REFIID riid, void** out) override {
        *out = riid == __uuidof(IUnknown) || riid == __uuidof(IMFSinkWriter) ? static_cast<IMFSinkWriter*>(this) : nullptr;
        return *out ? (AddRef(), S_OK) : E_NOINTERFACE;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return static_cast<ULONG>(++refs); }
    STDMETHODIMP_(ULONG) Release() override { return static_cast<ULONG>(--refs); }  // the test owns it
    STDMETHODIMP AddStream(IMFMediaType* type, DWORD* index) override {
        if (refuse == (streams == 0 ? kVideoStream : kAudioStream)) return kRefused;
        types.push_back(Read(type));
        return *index = streams++, S_OK;
    }
    STDMETHODIMP SetInputMediaType(DWORD index, IMFMediaType* type, IMFAttributes*) override {
        if (index >= streams) return MF_E_INVALIDSTREAMNUMBER;
        if (refuse == kVideoInput) return kRefused;
        return types.push_back(Read(type)), S_OK;
    }
    STDMETHODIMP BeginWriting() override { return refuse == kBegin ? kRefused : (++begun, S_OK); }
    STDMETHODIMP WriteSample(DWORD index, IMFSample* sample) override {
        if (refuse == kWrite) return kRefused;
        LONGLONG time = -1, duration = -1;
        sample->GetSampleTime(&time);
        sample->GetSampleDuration(&duration);
        samples.push_back({index, UINT64(time), UINT64(duration)});
        IMFMediaBuffer* buffer = nullptr;
        BYTE* data = nullptr;
        DWORD length = 0;
        if (SUCCEEDED(sample->ConvertToContiguousBuffer(&buffer)) && SUCCEEDED(buffer->Lock(&data, nullptr, &length)))
            samples.back().insert(samples.back().end(), data, data + length), buffer->Unlock();
        if (buffer) buffer->Release();
        return S_OK;
    }
    STDMETHODIMP SendStreamTick(DWORD, LONGLONG) override { return E_NOTIMPL; }
    STDMETHODIMP PlaceMarker(DWORD, LPVOID) override { return E_NOTIMPL; }
    STDMETHODIMP NotifyEndOfSegment(DWORD) override { return E_NOTIMPL; }
    STDMETHODIMP Flush(DWORD) override { return E_NOTIMPL; }
    STDMETHODIMP Finalize() override {
        ++finalized;
        if (FILE* f = _wfopen(url.c_str(), L"wb")) std::fwrite("finished", 1, 8, f), std::fclose(f);  // a real writer's file
        return S_OK;
    }
    STDMETHODIMP GetServiceForStream(DWORD, REFGUID, REFIID, LPVOID*) override { return E_NOTIMPL; }
    STDMETHODIMP GetStatistics(DWORD, MF_SINK_WRITER_STATISTICS*) override { return E_NOTIMPL; }
};

FakeSinkWriter* g_fake = nullptr;

HRESULT CreateFake(const wchar_t* url, IMFAttributes* attributes, IMFSinkWriter** writer) {
    if (g_fake->refuse == FakeSinkWriter::kCreate) return kRefused;
    g_fake->url = url;
    attributes->GetUINT32(MF_SINK_WRITER_DISABLE_THROTTLING, &g_fake->throttlingOff);
    g_fake->AddRef();
    *writer = g_fake;
    return S_OK;
}

class SinkWriterEncoderTest : public ::testing::Test {
protected:
    void SetUp() override {
        g_fake = &fake_;
        kiv::SetSinkWriterFactory(CreateFake);
    }
    void TearDown() override { kiv::SetSinkWriterFactory(nullptr); }

    kivtest::LibraryScope library_;
    FakeSinkWriter fake_;
    std::basic_string<KivWChar> path_ = kivtest::Wide(kivtest::TempDir("sink_writer_encoder") + "\\out.mp4");
    kiv::VideoEncoderSettings settings_{path_.c_str(), 64, 48, 25, 2000000, true, 44100, 1};
    std::unique_ptr<kiv::VideoEncoder> encoder_ = kiv::CreatePlatformVideoEncoder();
    const std::vector<uint8_t> picture_ = std::vector<uint8_t>(64 * 48 * 3 / 2, 16);
};

TEST_F(SinkWriterEncoderTest, AsksForH264AndAacAndHandsOverTimedSamples) {
    const kiv::EncoderOpenReport open = encoder_->Open(settings_);
    ASSERT_EQ(open.failedStep, kiv::EncoderOpenStep::kNone);
    EXPECT_TRUE(open.audioReady && encoder_->IsOpen());
    EXPECT_EQ(fake_.url, std::wstring(path_.begin(), path_.end()));
    EXPECT_EQ(std::make_pair(fake_.throttlingOff, fake_.begun), std::make_pair(1u, 1));
    const UINT64 size = (UINT64(64) << 32) | 48, rate = (UINT64(25) << 32) | 1;
    // 16000 bytes a second is one of the rates the AAC encoder takes.
    EXPECT_EQ(fake_.types, (std::vector<Values>{{MFVideoFormat_H264.Data1, size, rate, 2000000, 0, 0, 0},
                                                {MFVideoFormat_NV12.Data1, size, rate, 0, 0, 0, 0},
                                                {MFAudioFormat_AAC.Data1, 0, 0, 0, 44100, 1, 16000},
                                                {MFAudioFormat_PCM.Data1, 0, 0, 0, 44100, 1, 88200}}));

    std::vector<uint8_t> picture(picture_.size());
    for (size_t i = 0; i < picture.size(); ++i) picture[i] = static_cast<uint8_t>(i * 7);
    const std::vector<uint8_t> pcm(882, 0x33);
    EXPECT_EQ(encoder_->WriteVideo(picture.data(), picture.size(), 0, 400000), 0u);
    EXPECT_EQ(encoder_->WriteAudio(pcm.data(), pcm.size(), 0, 100000), 0u);
    EXPECT_EQ(encoder_->WriteVideo(picture.data(), picture.size(), 400000, 400000), 0u);
    auto sample = [](Values v, const std::vector<uint8_t>& bytes) { return v.insert(v.end(), bytes.begin(), bytes.end()), v; };
    EXPECT_EQ(fake_.samples, (std::vector<Values>{sample({0, 0, 400000}, picture), sample({1, 0, 100000}, pcm),
                                                  sample({0, 400000, 400000}, picture)}));

    const kiv::EncoderFinalizeReport done = encoder_->Finalize();
    EXPECT_EQ(std::make_pair(done.hr, done.fileBytes), std::make_pair(0u, uint64_t(8)));
    EXPECT_FALSE(encoder_->IsOpen());
    EXPECT_EQ(fake_.refs, 0) << "the writer is released once the file is finished";
    EXPECT_EQ(encoder_->WriteVideo(picture.data(), picture.size(), 800000, 400000), static_cast<uint32_t>(E_UNEXPECTED));
    EXPECT_EQ(encoder_->Finalize().hr, 0u);
    EXPECT_EQ(fake_.finalized, 1);
}

TEST_F(SinkWriterEncoderTest, RefusalsReportTheirStepAndLeaveNothingOpen) {
    const std::pair<FakeSinkWriter::Refuse, kiv::EncoderOpenStep> cases[] = {
        {FakeSinkWriter::kCreate, kiv::EncoderOpenStep::kCreateWriter},
        {FakeSinkWriter::kVideoStream, kiv::EncoderOpenStep::kAddStream},
        {FakeSinkWriter::kVideoInput, kiv::EncoderOpenStep::kSetInputType},
        {FakeSinkWriter::kBegin, kiv::EncoderOpenStep::kBeginWriting},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(static_cast<int>(c.first));
        fake_ = FakeSinkWriter();
        fake_.refuse = c.first;
        const kiv::EncoderOpenReport report = encoder_->Open(settings_);
        EXPECT_EQ(std::make_pair(report.failedStep, report.hr), std::make_pair(c.second, static_cast<uint32_t>(kRefused)));
        EXPECT_FALSE(encoder_->IsOpen());
        EXPECT_EQ(std::make_pair(fake_.refs, fake_.finalized), std::make_pair(LONG(0), 0));
        fake_.refuse = FakeSinkWriter::kNothing;  // it can be opened again once the writer agrees
        EXPECT_EQ(encoder_->Open(settings_).failedStep, kiv::EncoderOpenStep::kNone);
        encoder_->Finalize();
        EXPECT_EQ(fake_.refs, 0);
    }
    // A refused audio stream leaves a video-only file; a refused sample is reported.
    fake_ = FakeSinkWriter();
    fake_.refuse = FakeSinkWriter::kAudioStream;
    const kiv::EncoderOpenReport report = encoder_->Open(settings_);
    EXPECT_EQ(std::make_tuple(report.failedStep, report.audioReady, report.audioHr, fake_.begun),
              std::make_tuple(kiv::EncoderOpenStep::kNone, false, static_cast<uint32_t>(kRefused), 1));
    EXPECT_EQ(encoder_->WriteAudio(picture_.data(), 100, 0, 1000), static_cast<uint32_t>(E_UNEXPECTED));
    EXPECT_EQ(encoder_->WriteVideo(picture_.data(), picture_.size(), 0, 400000), 0u);
    fake_.refuse = FakeSinkWriter::kWrite;
    EXPECT_EQ(encoder_->WriteVideo(picture_.data(), picture_.size(), 400000, 400000), static_cast<uint32_t>(kRefused));
    EXPECT_EQ(fake_.samples.size(), 1u);
    encoder_->Finalize();
    EXPECT_EQ(fake_.refs, 0);
}

}  // namespace
