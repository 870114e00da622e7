// The AAC encoder's set-up and sample pump driven through a stand-in transform
// (Wine ships no AAC encoder).
#include <windows.h>
#include <mfapi.h>
#include <mferror.h>
#include <mfidl.h>
#include <mftransform.h>

#include <gtest/gtest.h>

#include <algorithm>

#include "aac_encoder.h"
#include "test_support.h"

namespace {

using Values = std::vector<LONGLONG>;

// Subtype's first field, rate, channels, bytes a second, profile level, payload type (-1: not set).
Values Read(IMFMediaType* type) {
    GUID subtype{};
    type->GetGUID(MF_MT_SUBTYPE, &subtype);
    Values v = {LONGLONG(subtype.Data1)};
    for (const GUID& key : {MF_MT_AUDIO_SAMPLES_PER_SECOND, MF_MT_AUDIO_NUM_CHANNELS, MF_MT_AUDIO_AVG_BYTES_PER_SECOND,
                            MF_MT_AAC_AUDIO_PROFILE_LEVEL_INDICATION, MF_MT_AAC_PAYLOAD_TYPE}) {
        UINT32 value = 0;
        v.push_back(SUCCEEDED(type->GetUINT32(key, &value)) ? LONGLONG(value) : -1);
    }
    return v;
}

// Streams 3 and 5 (the encoder must ask); an access unit of 100 + n bytes, starting with byte n, per 1024 frames.
class FakeAacTransform : public IMFTransform {
public:
    bool providesSamples = false, streamChangeOnce = false;
    HRESULT setOutputTypeResult = S_OK, processOutputFailure = S_OK;
    LONG refs = 1;
    std::vector<MFT_MESSAGE_TYPE> messages;
    std::vector<Values> types, inputs;  // inputs: time, duration
    DWORD smallestOutputBuffer = 0xFFFFFFFF;

    STDMETHODIMP QueryInterface(REFIID riid, void** out) override {
        *out = riid == __uuidof(IUnknown) || riid == __uuidof(IMFTransform) ? static_cast<IMFTransform*>(this) : nullptr;
        return *out ? (AddRef(), S_OK) : E_NOINTERFACE;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return ULONG(InterlockedIncrement(&refs)); }
    STDMETHODIMP_(ULONG) Release() override { return ULONG(InterlockedDecrement(&refs)); }
    STDMETHODIMP GetStreamLimits(DWORD*, DWORD*, DWORD*, DWORD*) override { return E_NOTIMPL; }
    STDMETHODIMP GetStreamCount(DWORD* inputs, DWORD* outputs) override { return *inputs = *outputs = 1, S_OK; }
    STDMETHODIMP GetStreamIDs(DWORD, DWORD* inputIds, DWORD, DWORD* outputIds) override { return *inputIds = 3, *outputIds = 5, S_OK; }
    STDMETHODIMP GetInputStreamInfo(DWORD, MFT_INPUT_STREAM_INFO*) override { return E_NOTIMPL; }
    STDMETHODIMP GetOutputStreamInfo(DWORD id, MFT_OUTPUT_STREAM_INFO* info) override {
        if (id != 5) return MF_E_INVALIDSTREAMNUMBER;
        return *info = {DWORD(providesSamples ? MFT_OUTPUT_STREAM_PROVIDES_SAMPLES : 0), 4096, 0}, S_OK;
    }
    STDMETHODIMP GetAttributes(IMFAttributes**) override { return E_NOTIMPL; }
    STDMETHODIMP GetInputStreamAttributes(DWORD, IMFAttributes**) override { return E_NOTIMPL; }
    STDMETHODIMP GetOutputStreamAttributes(DWORD, IMFAttributes**) override { return E_NOTIMPL; }
    STDMETHODIMP DeleteInputStream(DWORD) override { return E_NOTIMPL; }
    STDMETHODIMP AddInputStreams(DWORD, DWORD*) override { return E_NOTIMPL; }
    STDMETHODIMP GetInputAvailableType(DWORD, DWORD, IMFMediaType**) override { return E_NOTIMPL; }
    STDMETHODIMP GetOutputAvailableType(DWORD, DWORD index, IMFMediaType** type) override {
        if (index > 0) return MF_E_NO_MORE_TYPES;
        const HRESULT hr = MFCreateMediaType(type);
        if (SUCCEEDED(hr)) (*type)->SetGUID(MF_MT_MAJOR_TYPE, MFMediaType_Audio), (*type)->SetGUID(MF_MT_SUBTYPE, MFAudioFormat_AAC);
        return hr;
    }
    STDMETHODIMP SetInputType(DWORD id, IMFMediaType* type, DWORD) override {
        return id != 3 ? MF_E_INVALIDSTREAMNUMBER : (types.push_back(Read(type)), S_OK);
    }
    STDMETHODIMP SetOutputType(DWORD id, IMFMediaType* type, DWORD) override {
        if (id != 5) return MF_E_INVALIDSTREAMNUMBER;
        return FAILED(setOutputTypeResult) ? setOutputTypeResult : (types.push_back(Read(type)), S_OK);
    }
    STDMETHODIMP GetInputCurrentType(DWORD, IMFMediaType**) override { return E_NOTIMPL; }
    STDMETHODIMP GetOutputCurrentType(DWORD, IMFMediaType**) override { return E_NOTIMPL; }
    STDMETHODIMP GetInputStatus(DWORD, DWORD*) override { return E_NOTIMPL; }
    STDMETHODIMP GetOutputStatus(DWORD*) override { return E_NOTIMPL; }
    STDMETHODIMP SetOutputBounds(LONGLONG, LONGLONG) override { return E_NOTIMPL; }
    STDMETHODIMP ProcessEvent(DWORD, IMFMediaEvent*) override { return E_NOTIMPL; }
    STDMETHODIMP ProcessMessage(MFT_MESSAGE_TYPE message, ULONG_PTR) override {
        messages.push_back(message);
        if (message == MFT_MESSAGE_COMMAND_DRAIN && pendingFrames_ > 0) pendingFrames_ = 0, ++readyUnits_;
        return S_OK;
    }
    STDMETHODIMP ProcessInput(DWORD id, IMFSample* sample, DWORD) override {
        if (id != 3) return MF_E_INVALIDSTREAMNUMBER;
        LONGLONG time = -1, duration = -1;
        DWORD bytes = 0;
        sample->GetSampleTime(&time);
        sample->GetSampleDuration(&duration);
        sample->GetTotalLength(&bytes);
        inputs.push_back({time, duration});
        pendingFrames_ += bytes / (DWORD(types[0][2]) * 2);
        readyUnits_ += pendingFrames_ / 1024;
        pendingFrames_ %= 1024;
        return S_OK;
    }
    STDMETHODIMP ProcessOutput(DWORD, DWORD count, MFT_OUTPUT_DATA_BUFFER* out, DWORD*) override {
        if (count != 1 || out->dwStreamID != 5 || providesSamples != !out->pSample) return E_INVALIDARG;
        if (readyUnits_ == 0) return MF_E_TRANSFORM_NEED_MORE_INPUT;
        if (streamChangeOnce) return streamChangeOnce = false, MF_E_TRANSFORM_STREAM_CHANGE;
        if (FAILED(processOutputFailure)) return processOutputFailure;
        IMFMediaBuffer* buffer = nullptr;
        if (providesSamples) {
            MFCreateMemoryBuffer(1000, &buffer);
            MFCreateSample(&out->pSample);
            out->pSample->AddBuffer(buffer);
        } else {
            DWORD max = 0;
            out->pSample->GetBufferByIndex(0, &buffer);
            buffer->GetMaxLength(&max);
            smallestOutputBuffer = std::min(smallestOutputBuffer, max);
        }
        BYTE* data = nullptr;
        buffer->Lock(&data, nullptr, nullptr);
        for (int i = 0; i < 100 + unitsMade_; ++i) data[i] = BYTE(unitsMade_ + i);
        buffer->Unlock();
        buffer->SetCurrentLength(DWORD(100 + unitsMade_));
        buffer->Release();
        out->pSample->SetSampleTime(LONGLONG(unitsMade_++) * 1024 * 10000000 / 48000);
        --readyUnits_;
        return S_OK;
    }

private:
    DWORD pendingFrames_ = 0;
    int readyUnits_ = 0, unitsMade_ = 0;
};

// Size, first byte, time and duration of each access unit.
struct Collector : kiv::AacSink {
    std::vector<Values> units;
    void OnAccessUnit(const uint8_t* data, size_t size, int64_t time, int64_t duration) override {
        units.push_back({LONGLONG(size), data[0], time, duration});
    }
};

class AacTransformPump : public ::testing::TestWithParam<bool> {};  // the transform provides the output samples

}  // namespace

TEST_P(AacTransformPump, ConfiguresPumpsDrainsAndReleases) {
    kivtest::LibraryScope library;
    FakeAacTransform fake;
    fake.providesSamples = GetParam();
    fake.streamChangeOnce = true;
    {
        kiv::AacEncoder encoder;
        ASSERT_TRUE(encoder.InitializeWithTransform(&fake, 48000, 2));
        const kiv::AacInitReport& report = encoder.InitReport();
        EXPECT_EQ(std::make_tuple(encoder.Ready(), report.stage, report.outputBufferSize, report.providesSamples),
                  std::make_tuple(true, kiv::AacInitStage::kReady, 16384u, GetParam()))
            << "4096 reported, 16384 used";
        EXPECT_EQ(fake.messages, (std::vector<MFT_MESSAGE_TYPE>{MFT_MESSAGE_NOTIFY_BEGIN_STREAMING, MFT_MESSAGE_NOTIFY_START_OF_STREAM}));

        // Ten buffers of 20 ms: 9600 frames make 9 full access units.
        Collector sink;
        const std::vector<uint8_t> pcm(960 * 4, 0x11);
        for (int i = 0; i < 10; ++i) ASSERT_EQ(encoder.Encode(pcm.data(), pcm.size(), int64_t(i) * 200000, &sink), 0u) << i;
        EXPECT_EQ(sink.units.size(), 9u);
        // PCM in; AAC-LC level 2 out at 128 kbit/s, raw; the output type set again after a stream change.
        EXPECT_EQ(fake.types,
                  (std::vector<Values>{{1, 48000, 2, 192000, -1, -1}, {0x1610, 48000, 2, 16000, 0x29, -1}, {0x1610, -1, -1, -1, -1, -1}}));
        ASSERT_EQ(fake.inputs.size(), 10u);
        EXPECT_EQ(fake.inputs[3], (Values{600000, 200000}));
        EXPECT_GE(GetParam() ? 16384u : fake.smallestOutputBuffer, 16384u);
        EXPECT_EQ(encoder.Drain(&sink), 0u);
        ASSERT_EQ(sink.units.size(), 10u) << "the last partial frame comes out on drain";
        for (LONGLONG k = 0; k < 10; ++k) EXPECT_EQ(sink.units[size_t(k)], (Values{100 + k, k, k * 1024 * 10000000 / 48000, 1024LL * 10000000 / 48000}));
        encoder.Release();
        EXPECT_FALSE(encoder.Ready());
        EXPECT_EQ(fake.messages.back(), MFT_MESSAGE_NOTIFY_END_OF_STREAM);
        EXPECT_NE(encoder.Encode(pcm.data(), pcm.size(), 0, &sink), 0u);
    }
    EXPECT_EQ(fake.refs, 1) << "every reference the encoder took was released";
}

INSTANTIATE_TEST_SUITE_P(OutputSamples, AacTransformPump, ::testing::Bool());

TEST(AacTransformFailures, ConfigureAndOutputFailuresReleaseTheTransform) {
    kivtest::LibraryScope library;
    FakeAacTransform refusing, failing, second;
    refusing.setOutputTypeResult = MF_E_INVALIDMEDIATYPE;
    kiv::AacEncoder encoder;
    EXPECT_FALSE(encoder.InitializeWithTransform(&refusing, 44100, 1));
    EXPECT_EQ(std::make_tuple(encoder.Ready(), encoder.InitReport().stage, encoder.InitReport().hr),
              std::make_tuple(false, kiv::AacInitStage::kConfigureFailed, uint32_t(MF_E_INVALIDMEDIATYPE)));
    EXPECT_EQ(refusing.messages, std::vector<MFT_MESSAGE_TYPE>{MFT_MESSAGE_NOTIFY_END_OF_STREAM});
    EXPECT_EQ(refusing.refs, 1);

    failing.processOutputFailure = E_FAIL;
    ASSERT_TRUE(encoder.InitializeWithTransform(&failing, 48000, 2));
    Collector sink;
    const std::vector<uint8_t> pcm(2048 * 4, 0);
    EXPECT_EQ(encoder.Encode(pcm.data(), pcm.size(), 0, &sink), uint32_t(E_FAIL));
    EXPECT_TRUE(sink.units.empty());
    ASSERT_TRUE(encoder.InitializeWithTransform(&second, 48000, 2));
    EXPECT_EQ(failing.messages.back(), MFT_MESSAGE_NOTIFY_END_OF_STREAM);
    EXPECT_EQ(failing.refs, 1) << "a second Initialize releases the first transform";
    encoder.Release();
    EXPECT_EQ(second.refs, 1);
}
