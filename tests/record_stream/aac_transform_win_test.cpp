// The AAC encoder's set-up and sample pump driven through a stand-in
// transform, since Wine ships no AAC encoder.
#include <windows.h>
#include <mfapi.h>
#include <mferror.h>
#include <mfidl.h>
#include <mftransform.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "aac_encoder.h"
#include "test_support.h"

namespace {

// Makes an access unit of 100 + n bytes for every 1024 sample frames it was given.
class FakeAacTransform : public IMFTransform {
public:
    bool providesSamples = false, streamChangeOnce = false;
    HRESULT setOutputTypeResult = S_OK, processOutputFailure = S_OK;
    // What the encoder told us.
    std::vector<MFT_MESSAGE_TYPE> messages;
    std::vector<LONGLONG> inputTimes, inputDurations;
    int wrongIds = 0;  // ProcessInput calls not on stream 3, ProcessOutput calls not on 5
    DWORD smallestOutputBuffer = 0xFFFFFFFF;
    GUID inSubtype{}, outSubtype{};
    // Input rate and channels; output rate, channels, bytes a second, profile level.
    std::vector<UINT32> fields = std::vector<UINT32>(6);
    bool outPayloadTypeSet = false;
    LONG refs = 1;

    STDMETHODIMP QueryInterface(REFIID riid, void** out) override {
        *out = riid == __uuidof(IUnknown) || riid == __uuidof(IMFTransform) ? static_cast<IMFTransform*>(this) : nullptr;
        return *out ? (AddRef(), S_OK) : E_NOINTERFACE;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return ULONG(InterlockedIncrement(&refs)); }
    STDMETHODIMP_(ULONG) Release() override { return ULONG(InterlockedDecrement(&refs)); }
    STDMETHODIMP GetStreamLimits(DWORD*, DWORD*, DWORD*, DWORD*) override { return E_NOTIMPL; }
    STDMETHODIMP GetStreamCount(DWORD* inputs, DWORD* outputs) override { return *inputs = *outputs = 1, S_OK; }
    STDMETHODIMP GetStreamIDs(DWORD, DWORD* inputIds, DWORD, DWORD* outputIds) override {
        return *inputIds = 3, *outputIds = 5, S_OK;  // not 0 and 1: the encoder must ask
    }
    STDMETHODIMP GetInputStreamInfo(DWORD, MFT_INPUT_STREAM_INFO*) override { return E_NOTIMPL; }
    STDMETHODIMP GetOutputStreamInfo(DWORD id, MFT_OUTPUT_STREAM_INFO* info) override {
        if (id != 5) return MF_E_INVALIDSTREAMNUMBER;
        *info = {DWORD(providesSamples ? MFT_OUTPUT_STREAM_PROVIDES_SAMPLES : 0), 4096, 0};
        return S_OK;
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
        if (id != 3) return MF_E_INVALIDSTREAMNUMBER;
        type->GetGUID(MF_MT_SUBTYPE, &inSubtype);
        type->GetUINT32(MF_MT_AUDIO_SAMPLES_PER_SECOND, &fields[0]);
        type->GetUINT32(MF_MT_AUDIO_NUM_CHANNELS, &fields[1]);
        return S_OK;
    }
    STDMETHODIMP SetOutputType(DWORD id, IMFMediaType* type, DWORD) override {
        if (id != 5) return MF_E_INVALIDSTREAMNUMBER;
        if (FAILED(setOutputTypeResult)) return setOutputTypeResult;
        type->GetGUID(MF_MT_SUBTYPE, &outSubtype);
        type->GetUINT32(MF_MT_AUDIO_SAMPLES_PER_SECOND, &fields[2]);
        type->GetUINT32(MF_MT_AUDIO_NUM_CHANNELS, &fields[3]);
        type->GetUINT32(MF_MT_AUDIO_AVG_BYTES_PER_SECOND, &fields[4]);
        type->GetUINT32(MF_MT_AAC_AUDIO_PROFILE_LEVEL_INDICATION, &fields[5]);
        UINT32 payload = 0;
        outPayloadTypeSet = SUCCEEDED(type->GetUINT32(MF_MT_AAC_PAYLOAD_TYPE, &payload));
        return S_OK;
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
        LONGLONG time = -1, duration = -1;
        DWORD bytes = 0;
        sample->GetSampleTime(&time);
        sample->GetSampleDuration(&duration);
        sample->GetTotalLength(&bytes);
        wrongIds += id != 3;
        inputTimes.push_back(time);
        inputDurations.push_back(duration);
        pendingFrames_ += bytes / (fields[1] * 2);
        readyUnits_ += pendingFrames_ / 1024;
        pendingFrames_ %= 1024;
        return S_OK;
    }
    STDMETHODIMP ProcessOutput(DWORD, DWORD count, MFT_OUTPUT_DATA_BUFFER* out, DWORD* status) override {
        *status = 0;
        if (count != 1) return E_INVALIDARG;
        wrongIds += out->dwStreamID != 5;
        if (readyUnits_ == 0) return MF_E_TRANSFORM_NEED_MORE_INPUT;
        if (streamChangeOnce) return streamChangeOnce = false, MF_E_TRANSFORM_STREAM_CHANGE;
        if (FAILED(processOutputFailure)) return processOutputFailure;
        IMFMediaBuffer* buffer = nullptr;
        if (providesSamples != !out->pSample) return E_INVALIDARG;
        if (providesSamples) {
            MFCreateMemoryBuffer(1000, &buffer);
            MFCreateSample(&out->pSample);
            out->pSample->AddBuffer(buffer);
        } else {
            out->pSample->GetBufferByIndex(0, &buffer);
            DWORD max = 0;
            buffer->GetMaxLength(&max);
            smallestOutputBuffer = std::min(smallestOutputBuffer, max);
        }
        BYTE* data = nullptr;
        buffer->Lock(&data, nullptr, nullptr);
        const DWORD size = 100 + DWORD(unitsMade_);
        for (DWORD i = 0; i < size; ++i) data[i] = BYTE(unitsMade_ + i);
        buffer->Unlock();
        buffer->SetCurrentLength(size);
        buffer->Release();
        out->pSample->SetSampleTime(LONGLONG(unitsMade_++) * 1024 * 10000000 / fields[0]);
        --readyUnits_;
        return S_OK;
    }

private:
    DWORD pendingFrames_ = 0;
    int readyUnits_ = 0, unitsMade_ = 0;
};

struct Collector : kiv::AacSink {
    std::vector<std::vector<uint8_t>> units;
    std::vector<std::vector<int64_t>> firstByteTimeDuration;
    void OnAccessUnit(const uint8_t* data, size_t size, int64_t time, int64_t duration) override {
        units.emplace_back(data, data + size);
        firstByteTimeDuration.push_back({data[0], time, duration});
    }
};

class AacTransformPump : public ::testing::TestWithParam<bool> {
protected:
    kivtest::LibraryScope library_;
};

}  // namespace

TEST_P(AacTransformPump, ConfiguresPumpsDrainsAndReleases) {
    FakeAacTransform fake;
    fake.providesSamples = GetParam();
    fake.streamChangeOnce = true;
    {
        kiv::AacEncoder encoder;
        ASSERT_TRUE(encoder.InitializeWithTransform(&fake, 48000, 2));
        EXPECT_TRUE(encoder.Ready());
        const kiv::AacInitReport& report = encoder.InitReport();
        EXPECT_EQ(report.stage, kiv::AacInitStage::kReady);
        EXPECT_EQ(report.outputBufferSize, 16384u) << "4096 reported, 16384 used";
        EXPECT_EQ(report.providesSamples, GetParam());
        // PCM in, AAC out (rate, channels, 128 kbit/s, AAC-LC level 2), raw access units.
        EXPECT_TRUE(IsEqualGUID(fake.inSubtype, MFAudioFormat_PCM) && IsEqualGUID(fake.outSubtype, MFAudioFormat_AAC));
        EXPECT_EQ(fake.fields, (std::vector<UINT32>{48000, 2, 48000, 2, 16000, 0x29}));
        EXPECT_FALSE(fake.outPayloadTypeSet);
        EXPECT_EQ(fake.messages, (std::vector<MFT_MESSAGE_TYPE>{MFT_MESSAGE_NOTIFY_BEGIN_STREAMING,
                                                                 MFT_MESSAGE_NOTIFY_START_OF_STREAM}));

        // Ten buffers of 20 ms: 9600 frames make 9 full access units.
        Collector sink;
        const std::vector<uint8_t> pcm(960 * 4, 0x11);
        for (int i = 0; i < 10; ++i) ASSERT_EQ(encoder.Encode(pcm.data(), pcm.size(), int64_t(i) * 200000, &sink), 0u) << i;
        EXPECT_EQ(sink.units.size(), 9u);
        ASSERT_EQ(fake.inputTimes.size(), 10u);
        EXPECT_EQ(std::make_pair(fake.inputTimes[3], fake.inputDurations[3]), std::make_pair(LONGLONG(600000), LONGLONG(200000)));
        EXPECT_EQ(fake.wrongIds, 0);
        EXPECT_GE(GetParam() ? 16384u : fake.smallestOutputBuffer, 16384u);
        EXPECT_EQ(encoder.Drain(&sink), 0u);
        ASSERT_EQ(sink.units.size(), 10u) << "the last partial frame comes out on drain";
        for (size_t k = 0; k < sink.units.size(); ++k) {
            EXPECT_EQ(sink.units[k].size(), 100 + k);
            EXPECT_EQ(sink.firstByteTimeDuration[k],
                      (std::vector<int64_t>{uint8_t(k), int64_t(k) * 1024 * 10000000 / 48000, int64_t(1024) * 10000000 / 48000}));
        }
        encoder.Release();
        EXPECT_FALSE(encoder.Ready());
        EXPECT_EQ(fake.messages.back(), MFT_MESSAGE_NOTIFY_END_OF_STREAM);
        EXPECT_NE(encoder.Encode(pcm.data(), pcm.size(), 0, &sink), 0u);
    }
    EXPECT_EQ(fake.refs, 1) << "every reference the encoder took was released";
}

INSTANTIATE_TEST_SUITE_P(OutputSamples, AacTransformPump, ::testing::Values(false, true),
                         [](const ::testing::TestParamInfo<bool>& info) {
                             return std::string(info.param ? "TransformProvides" : "CallerProvides");
                         });

TEST(AacTransformFailures, ConfigureAndOutputFailuresReleaseTheTransform) {
    kivtest::LibraryScope library;
    FakeAacTransform refusing, failing, second;
    refusing.setOutputTypeResult = MF_E_INVALIDMEDIATYPE;
    kiv::AacEncoder encoder;
    EXPECT_FALSE(encoder.InitializeWithTransform(&refusing, 44100, 1));
    EXPECT_FALSE(encoder.Ready());
    EXPECT_EQ(encoder.InitReport().stage, kiv::AacInitStage::kConfigureFailed);
    EXPECT_EQ(encoder.InitReport().hr, uint32_t(MF_E_INVALIDMEDIATYPE));
    ASSERT_FALSE(refusing.messages.empty());
    EXPECT_EQ(refusing.messages.back(), MFT_MESSAGE_NOTIFY_END_OF_STREAM);
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
