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

struct TypeSeen {
    GUID subtype{};
    UINT64 frameSize = 0, frameRate = 0;
    UINT32 bitrate = 0, rate = 0, channels = 0, avgBytes = 0;
};

TypeSeen Read(IMFMediaType* type) {
    TypeSeen t;
    type->GetGUID(MF_MT_SUBTYPE, &t.subtype);
    type->GetUINT64(MF_MT_FRAME_SIZE, &t.frameSize);
    type->GetUINT64(MF_MT_FRAME_RATE, &t.frameRate);
    type->GetUINT32(MF_MT_AVG_BITRATE, &t.bitrate);
    type->GetUINT32(MF_MT_AUDIO_SAMPLES_PER_SECOND, &t.rate);
    type->GetUINT32(MF_MT_AUDIO_NUM_CHANNELS, &t.channels);
    type->GetUINT32(MF_MT_AUDIO_AVG_BYTES_PER_SECOND, &t.avgBytes);
    return t;
}

struct SampleSeen {
    DWORD stream;
    LONGLONG time, duration;
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
        if (riid == __uuidof(IUnknown) || riid == __uuidof(IMFSinkWriter)) {
            *out = static_cast<IMFSinkWriter*>(this);
            AddRef();
            return S_OK;
        }
        *out = nullptr;
        return E_NOINTERFACE;
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
    STDMETHODIMP BeginWriting() override {
        if (refuse == kBegin) return kRefused;
        ++begun;
        return S_OK;
    }
    STDMETHODIMP WriteSample(DWORD index, IMFSample* sample) override {
        if (refuse == kWrite) return kRefused;
        SampleSeen seen{index, -1, -1, {}};
        sample->GetSampleTime(&seen.time);
        sample->GetSampleDuration(&seen.duration);
        IMFMediaBuffer* buffer = nullptr;
        BYTE* data = nullptr;
        DWORD length = 0;
        if (SUCCEEDED(sample->ConvertToContiguousBuffer(&buffer)) && SUCCEEDED(buffer->Lock(&data, nullptr, &length)))
            seen.bytes.assign(data, data + length), buffer->Unlock();
        if (buffer) buffer->Release();
        samples.push_back(std::move(seen));
        return S_OK;
    }
    STDMETHODIMP SendStreamTick(DWORD, LONGLONG) override { return S_OK; }
    STDMETHODIMP PlaceMarker(DWORD, LPVOID) override { return S_OK; }
    STDMETHODIMP NotifyEndOfSegment(DWORD) override { return S_OK; }
    STDMETHODIMP Flush(DWORD) override { return S_OK; }
    STDMETHODIMP Finalize() override {
        ++finalized;
        // What a real writer leaves behind: a file at the address it was given.
        if (FILE* f = _wfopen(url.c_str(), L"wb")) {
            std::fwrite("finished", 1, 8, f);
            std::fclose(f);
        }
        return S_OK;
    }
    STDMETHODIMP GetServiceForStream(DWORD, REFGUID, REFIID, LPVOID* out) override {
        *out = nullptr;
        return E_NOTIMPL;
    }
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
        path_ = kivtest::Wide(kivtest::TempDir("sink_writer_encoder") + "\\out.mp4");
        settings_.file = path_.c_str();
        settings_.width = 64;
        settings_.height = 48;
        settings_.fps = 25;
        settings_.bitrate = 2000000;
        settings_.audio = true;
        settings_.sampleRate = 44100;
        settings_.channels = 1;
    }
    void TearDown() override {
        kiv::SetSinkWriterFactory(nullptr);
        g_fake = nullptr;
    }

    kivtest::LibraryScope library_;
    FakeSinkWriter fake_;
    std::basic_string<KivWChar> path_;
    kiv::VideoEncoderSettings settings_;
};

UINT64 Pair(UINT32 high, UINT32 low) { return (static_cast<UINT64>(high) << 32) | low; }

TEST_F(SinkWriterEncoderTest, AsksForH264AndAacAndHandsOverTimedSamples) {
    std::unique_ptr<kiv::VideoEncoder> encoder = kiv::CreatePlatformVideoEncoder();
    const kiv::EncoderOpenReport open = encoder->Open(settings_);
    ASSERT_EQ(open.failedStep, kiv::EncoderOpenStep::kNone);
    EXPECT_TRUE(open.audioReady);
    EXPECT_TRUE(encoder->IsOpen());
    EXPECT_EQ(fake_.url, std::wstring(path_.begin(), path_.end()));
    EXPECT_EQ(fake_.throttlingOff, 1u);
    EXPECT_EQ(fake_.begun, 1);

    ASSERT_EQ(fake_.outputs.size(), 2u);
    ASSERT_EQ(fake_.inputs.size(), 2u);
    const TypeSeen &h264 = fake_.outputs[0], &nv12 = fake_.inputs[0], &aac = fake_.outputs[1], &pcm = fake_.inputs[1];
    EXPECT_TRUE(IsEqualGUID(h264.subtype, MFVideoFormat_H264) && IsEqualGUID(nv12.subtype, MFVideoFormat_NV12));
    EXPECT_TRUE(IsEqualGUID(aac.subtype, MFAudioFormat_AAC) && IsEqualGUID(pcm.subtype, MFAudioFormat_PCM));
    EXPECT_EQ(std::vector<UINT64>({h264.frameSize, h264.frameRate, h264.bitrate, nv12.frameSize, nv12.frameRate}),
              std::vector<UINT64>({Pair(64, 48), Pair(25, 1), 2000000, Pair(64, 48), Pair(25, 1)}));
    // 16000 bytes a second is one of the rates the AAC encoder takes.
    EXPECT_EQ(std::vector<UINT32>({aac.rate, aac.channels, aac.avgBytes, pcm.rate, pcm.channels}),
              std::vector<UINT32>({44100, 1, 16000, 44100, 1}));

    std::vector<uint8_t> picture(64 * 48 * 3 / 2);
    for (size_t i = 0; i < picture.size(); ++i) picture[i] = static_cast<uint8_t>(i * 7);
    const std::vector<uint8_t> pcmBytes(882, 0x33);
    EXPECT_EQ(encoder->WriteVideo(picture.data(), picture.size(), 0, 400000), 0u);
    EXPECT_EQ(encoder->WriteAudio(pcmBytes.data(), pcmBytes.size(), 0, 100000), 0u);
    EXPECT_EQ(encoder->WriteVideo(picture.data(), picture.size(), 400000, 400000), 0u);
    ASSERT_EQ(fake_.samples.size(), 3u);
    std::vector<std::vector<LONGLONG>> seen;  // stream, time, duration
    for (const SampleSeen& sample : fake_.samples) seen.push_back({LONGLONG(sample.stream), sample.time, sample.duration});
    EXPECT_EQ(seen, (std::vector<std::vector<LONGLONG>>{{0, 0, 400000}, {1, 0, 100000}, {0, 400000, 400000}}));
    EXPECT_EQ(fake_.samples[0].bytes, picture);
    EXPECT_EQ(fake_.samples[1].bytes, pcmBytes);

    const kiv::EncoderFinalizeReport done = encoder->Finalize();
    EXPECT_EQ(done.hr, 0u);
    EXPECT_EQ(done.fileBytes, 8u);
    EXPECT_EQ(fake_.finalized, 1);
    EXPECT_FALSE(encoder->IsOpen());
    EXPECT_EQ(fake_.refs, 0) << "the writer is released once the file is finished";
    EXPECT_EQ(encoder->WriteVideo(picture.data(), picture.size(), 800000, 400000), static_cast<uint32_t>(E_UNEXPECTED));
    EXPECT_EQ(encoder->Finalize().hr, 0u);
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
        std::unique_ptr<kiv::VideoEncoder> encoder = kiv::CreatePlatformVideoEncoder();
        const kiv::EncoderOpenReport report = encoder->Open(settings_);
        EXPECT_EQ(report.failedStep, c.step);
        EXPECT_EQ(report.hr, static_cast<uint32_t>(kRefused));
        EXPECT_FALSE(encoder->IsOpen());
        EXPECT_EQ(fake_.refs, 0);
        EXPECT_EQ(fake_.finalized, 0);
        // It can be opened again once the writer agrees.
        fake_.refuse = FakeSinkWriter::kNothing;
        EXPECT_EQ(encoder->Open(settings_).failedStep, kiv::EncoderOpenStep::kNone);
        encoder->Finalize();
        EXPECT_EQ(fake_.refs, 0);
    }
}

TEST_F(SinkWriterEncoderTest, RefusedAudioLeavesAVideoOnlyFile) {
    fake_.refuse = FakeSinkWriter::kAudioStream;
    std::unique_ptr<kiv::VideoEncoder> encoder = kiv::CreatePlatformVideoEncoder();
    const kiv::EncoderOpenReport report = encoder->Open(settings_);
    EXPECT_EQ(report.failedStep, kiv::EncoderOpenStep::kNone);
    EXPECT_FALSE(report.audioReady);
    EXPECT_EQ(report.audioHr, static_cast<uint32_t>(kRefused));
    EXPECT_EQ(fake_.begun, 1);
    const std::vector<uint8_t> bytes(64 * 48 * 3 / 2, 16);
    EXPECT_EQ(encoder->WriteAudio(bytes.data(), 100, 0, 1000), static_cast<uint32_t>(E_UNEXPECTED));
    EXPECT_EQ(encoder->WriteVideo(bytes.data(), bytes.size(), 0, 400000), 0u);
    fake_.refuse = FakeSinkWriter::kWrite;
    EXPECT_EQ(encoder->WriteVideo(bytes.data(), bytes.size(), 400000, 400000), static_cast<uint32_t>(kRefused));
    EXPECT_EQ(fake_.samples.size(), 1u);
    encoder->Finalize();
    EXPECT_EQ(fake_.refs, 0);
}

}  // namespace
