// The encoder over the Media Foundation sink writer, checked call by call
// against a stand-in writer (Wine has no sink writer): the media types it
// asks for, the samples it hands over, the step it reports when the writer
// refuses something, and that it never keeps a reference once it is done.
#include <gtest/gtest.h>

#include <windows.h>

#include <mfapi.h>
#include <mferror.h>

#include <cstdio>
#include <string>
#include <vector>

#include "record/mf_sink_writer_hook_win.h"
#include "record/video_encoder.h"
#include "test_support.h"

namespace {

constexpr HRESULT kRefused = static_cast<HRESULT>(0x80041234L);

// Subtype, frame size, frame rate, bit rate, sample rate, channels, bytes a second.
struct TypeSeen {
    GUID subtype{};
    std::vector<UINT64> values = std::vector<UINT64>(6);
};

TypeSeen Read(IMFMediaType* type) {
    TypeSeen t;
    UINT32 v[4] = {};
    type->GetGUID(MF_MT_SUBTYPE, &t.subtype);
    type->GetUINT64(MF_MT_FRAME_SIZE, &t.values[0]);
    type->GetUINT64(MF_MT_FRAME_RATE, &t.values[1]);
    type->GetUINT32(MF_MT_AVG_BITRATE, &v[0]);
    type->GetUINT32(MF_MT_AUDIO_SAMPLES_PER_SECOND, &v[1]);
    type->GetUINT32(MF_MT_AUDIO_NUM_CHANNELS, &v[2]);
    type->GetUINT32(MF_MT_AUDIO_AVG_BYTES_PER_SECOND, &v[3]);
    for (int i = 0; i < 4; ++i) t.values[size_t(2 + i)] = v[i];
    return t;
}

struct SampleSeen {
    std::vector<LONGLONG> streamTimeDuration;
    std::vector<uint8_t> bytes;
};

// Records every call; `refuse` names the one call that fails.
class FakeSinkWriter : public IMFSinkWriter {
public:
    enum Refuse { kNothing, kCreate, kVideoStream, kVideoInput, kAudioStream, kBegin, kWrite };
    Refuse refuse = kNothing;
    LONG refs = 0;
    std::wstring url;
    UINT32 throttlingOff = 0;
    std::vector<TypeSeen> outputs, inputs;
    int begun = 0, finalized = 0;
    std::vector<SampleSeen> samples;

    STDMETHODIMP QueryInterface(REFIID riid, void** out) override {
        *out = riid == __uuidof(IUnknown) || riid == __uuidof(IMFSinkWriter) ? static_cast<IMFSinkWriter*>(this) : nullptr;
        return *out ? (AddRef(), S_OK) : E_NOINTERFACE;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return static_cast<ULONG>(++refs); }
    STDMETHODIMP_(ULONG) Release() override { return static_cast<ULONG>(--refs); }  // the test owns it
    STDMETHODIMP AddStream(IMFMediaType* type, DWORD* index) override {
        if (refuse == (outputs.empty() ? kVideoStream : kAudioStream)) return kRefused;
        outputs.push_back(Read(type));
        *index = static_cast<DWORD>(outputs.size() - 1);
        return S_OK;
    }
    STDMETHODIMP SetInputMediaType(DWORD index, IMFMediaType* type, IMFAttributes*) override {
        if (index >= outputs.size()) return MF_E_INVALIDSTREAMNUMBER;
        if (refuse == kVideoInput && index == 0) return kRefused;
        inputs.push_back(Read(type));
        return S_OK;
    }
    STDMETHODIMP BeginWriting() override { return refuse == kBegin ? kRefused : (++begun, S_OK); }
    STDMETHODIMP WriteSample(DWORD index, IMFSample* sample) override {
        if (refuse == kWrite) return kRefused;
        LONGLONG time = -1, duration = -1;
        sample->GetSampleTime(&time);
        sample->GetSampleDuration(&duration);
        samples.push_back({{LONGLONG(index), time, duration}, {}});
        IMFMediaBuffer* buffer = nullptr;
        BYTE* data = nullptr;
        DWORD length = 0;
        if (SUCCEEDED(sample->ConvertToContiguousBuffer(&buffer)) && SUCCEEDED(buffer->Lock(&data, nullptr, &length)))
            samples.back().bytes.assign(data, data + length), buffer->Unlock();
        if (buffer) buffer->Release();
        return S_OK;
    }
    STDMETHODIMP SendStreamTick(DWORD, LONGLONG) override { return S_OK; }
    STDMETHODIMP PlaceMarker(DWORD, LPVOID) override { return S_OK; }
    STDMETHODIMP NotifyEndOfSegment(DWORD) override { return S_OK; }
    STDMETHODIMP Flush(DWORD) override { return S_OK; }
    STDMETHODIMP Finalize() override {
        ++finalized;
        if (FILE* f = _wfopen(url.c_str(), L"wb")) std::fwrite("finished", 1, 8, f), std::fclose(f);  // a real writer's file
        return S_OK;
    }
    STDMETHODIMP GetServiceForStream(DWORD, REFGUID, REFIID, LPVOID* out) override { return *out = nullptr, E_NOTIMPL; }
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
        settings_ = {path_.c_str(), 64, 48, 25, 2000000, true, 44100, 1};
    }
    void TearDown() override { kiv::SetSinkWriterFactory(nullptr); }

    kivtest::LibraryScope library_;
    FakeSinkWriter fake_;
    std::basic_string<KivWChar> path_ = kivtest::Wide(kivtest::TempDir("sink_writer_encoder") + "\\out.mp4");
    kiv::VideoEncoderSettings settings_;
    std::unique_ptr<kiv::VideoEncoder> encoder_ = kiv::CreatePlatformVideoEncoder();
    const std::vector<uint8_t> picture_ = std::vector<uint8_t>(64 * 48 * 3 / 2, 16);
};

UINT64 Pair(UINT32 high, UINT32 low) { return (static_cast<UINT64>(high) << 32) | low; }

TEST_F(SinkWriterEncoderTest, AsksForH264AndAacAndHandsOverTimedSamples) {
    const kiv::EncoderOpenReport open = encoder_->Open(settings_);
    ASSERT_EQ(open.failedStep, kiv::EncoderOpenStep::kNone);
    EXPECT_TRUE(open.audioReady && encoder_->IsOpen());
    EXPECT_EQ(fake_.url, std::wstring(path_.begin(), path_.end()));
    EXPECT_EQ(std::make_pair(fake_.throttlingOff, fake_.begun), std::make_pair(1u, 1));
    ASSERT_EQ(std::make_pair(fake_.outputs.size(), fake_.inputs.size()), std::make_pair(size_t(2), size_t(2)));
    const TypeSeen &h264 = fake_.outputs[0], &nv12 = fake_.inputs[0], &aac = fake_.outputs[1], &pcm = fake_.inputs[1];
    EXPECT_TRUE(IsEqualGUID(h264.subtype, MFVideoFormat_H264) && IsEqualGUID(nv12.subtype, MFVideoFormat_NV12));
    EXPECT_TRUE(IsEqualGUID(aac.subtype, MFAudioFormat_AAC) && IsEqualGUID(pcm.subtype, MFAudioFormat_PCM));
    auto part = [](const TypeSeen& t, size_t from, size_t to) { return std::vector<UINT64>(t.values.begin() + from, t.values.begin() + to); };
    EXPECT_EQ(part(h264, 0, 3), (std::vector<UINT64>{Pair(64, 48), Pair(25, 1), 2000000}));
    EXPECT_EQ(part(nv12, 0, 2), (std::vector<UINT64>{Pair(64, 48), Pair(25, 1)}));
    // 16000 bytes a second is one of the rates the AAC encoder takes.
    EXPECT_EQ(part(aac, 3, 6), (std::vector<UINT64>{44100, 1, 16000}));
    EXPECT_EQ(part(pcm, 3, 5), (std::vector<UINT64>{44100, 1}));

    std::vector<uint8_t> picture(picture_.size());
    for (size_t i = 0; i < picture.size(); ++i) picture[i] = static_cast<uint8_t>(i * 7);
    const std::vector<uint8_t> pcmBytes(882, 0x33);
    EXPECT_EQ(encoder_->WriteVideo(picture.data(), picture.size(), 0, 400000), 0u);
    EXPECT_EQ(encoder_->WriteAudio(pcmBytes.data(), pcmBytes.size(), 0, 100000), 0u);
    EXPECT_EQ(encoder_->WriteVideo(picture.data(), picture.size(), 400000, 400000), 0u);
    ASSERT_EQ(fake_.samples.size(), 3u);
    EXPECT_EQ((std::vector<std::vector<LONGLONG>>{fake_.samples[0].streamTimeDuration, fake_.samples[1].streamTimeDuration,
                                                  fake_.samples[2].streamTimeDuration}),
              (std::vector<std::vector<LONGLONG>>{{0, 0, 400000}, {1, 0, 100000}, {0, 400000, 400000}}));
    EXPECT_EQ(fake_.samples[0].bytes, picture);
    EXPECT_EQ(fake_.samples[1].bytes, pcmBytes);

    const kiv::EncoderFinalizeReport done = encoder_->Finalize();
    EXPECT_EQ(std::make_pair(done.hr, done.fileBytes), std::make_pair(0u, uint64_t(8)));
    EXPECT_EQ(fake_.finalized, 1);
    EXPECT_FALSE(encoder_->IsOpen());
    EXPECT_EQ(fake_.refs, 0) << "the writer is released once the file is finished";
    EXPECT_EQ(encoder_->WriteVideo(picture.data(), picture.size(), 800000, 400000), static_cast<uint32_t>(E_UNEXPECTED));
    EXPECT_EQ(encoder_->Finalize().hr, 0u);
    EXPECT_EQ(fake_.finalized, 1);
}

TEST_F(SinkWriterEncoderTest, RefusalsReportTheirStepAndLeaveNothingOpen) {
    const struct {
        FakeSinkWriter::Refuse refuse;
        kiv::EncoderOpenStep step;
    } cases[] = {
        {FakeSinkWriter::kCreate, kiv::EncoderOpenStep::kCreateWriter},
        {FakeSinkWriter::kVideoStream, kiv::EncoderOpenStep::kAddStream},
        {FakeSinkWriter::kVideoInput, kiv::EncoderOpenStep::kSetInputType},
        {FakeSinkWriter::kBegin, kiv::EncoderOpenStep::kBeginWriting},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(static_cast<int>(c.refuse));
        fake_ = FakeSinkWriter();
        fake_.refuse = c.refuse;
        const kiv::EncoderOpenReport report = encoder_->Open(settings_);
        EXPECT_EQ(report.failedStep, c.step);
        EXPECT_EQ(report.hr, static_cast<uint32_t>(kRefused));
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
    EXPECT_EQ(report.failedStep, kiv::EncoderOpenStep::kNone);
    EXPECT_FALSE(report.audioReady);
    EXPECT_EQ(report.audioHr, static_cast<uint32_t>(kRefused));
    EXPECT_EQ(fake_.begun, 1);
    EXPECT_EQ(encoder_->WriteAudio(picture_.data(), 100, 0, 1000), static_cast<uint32_t>(E_UNEXPECTED));
    EXPECT_EQ(encoder_->WriteVideo(picture_.data(), picture_.size(), 0, 400000), 0u);
    fake_.refuse = FakeSinkWriter::kWrite;
    EXPECT_EQ(encoder_->WriteVideo(picture_.data(), picture_.size(), 400000, 400000), static_cast<uint32_t>(kRefused));
    EXPECT_EQ(fake_.samples.size(), 1u);
    encoder_->Finalize();
    EXPECT_EQ(fake_.refs, 0);
}

}  // namespace
