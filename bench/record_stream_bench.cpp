// Pass-through recording of 1080p H.264: frame analysis, conversion to
// length-prefixed samples and buffered MP4 writing.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <random>
#include <string>
#include <vector>

#include "record/h264_stream.h"
#include "record/mp4_writer.h"

namespace {

using Bytes = std::vector<uint8_t>;

// Random slice data escaped the way an encoder escapes it.
Bytes Nal(uint8_t header, size_t size, uint32_t seed) {
    std::mt19937 rng(seed);
    Bytes nal{header};
    int zeros = 0;
    while (nal.size() < size) {
        uint8_t b = uint8_t(rng());
        if (zeros >= 2 && b <= 3) {
            nal.push_back(3);
            zeros = 0;
        }
        nal.push_back(b);
        zeros = b == 0 ? zeros + 1 : 0;
    }
    if (nal.back() == 0) nal.back() = 0x80;
    return nal;
}

void Append(Bytes* out, const Bytes& nal, bool lengthPrefixed) {
    if (lengthPrefixed) {
        const uint32_t n = uint32_t(nal.size());
        out->insert(out->end(), {uint8_t(n >> 24), uint8_t(n >> 16), uint8_t(n >> 8), uint8_t(n)});
    } else {
        out->insert(out->end(), {0, 0, 0, 1});
    }
    out->insert(out->end(), nal.begin(), nal.end());
}

const Bytes kSps = {0x67, 0x64, 0x00, 0x28, 0xAC, 0xD9, 0x40, 0x78, 0x02, 0x27, 0xE5, 0x84};
const Bytes kPps = {0x68, 0xEB, 0xE3, 0xCB, 0x22, 0xC0};

// A 1080p frame at about 8 Mbit/s and 30 fps: a 33 kB P slice, or a key
// frame with parameter sets and a 200 kB IDR slice.
Bytes Frame(bool key, bool lengthPrefixed) {
    Bytes frame;
    if (key) {
        Append(&frame, kSps, lengthPrefixed);
        Append(&frame, kPps, lengthPrefixed);
        Append(&frame, Nal(0x65, 200000, 1), lengthPrefixed);
    } else {
        Append(&frame, Nal(0x41, 33000, 2), lengthPrefixed);
    }
    return frame;
}

void BM_AnalyzeFrame(benchmark::State& state) {
    const bool lengthPrefixed = state.range(0) != 0;
    const Bytes frame = Frame(false, lengthPrefixed);
    kiv::H264StreamAnalyzer analyzer;
    for (auto _ : state) {
        const kiv::H264FrameInfo info = analyzer.Analyze(frame.data(), frame.size());
        benchmark::DoNotOptimize(info);
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(frame.size()));
}
BENCHMARK(BM_AnalyzeFrame)->Arg(0)->Arg(1)->ArgNames({"avcc"});

void BM_ParseSps(benchmark::State& state) {
    kiv::H264SpsInfo info;
    for (auto _ : state) {
        kiv::ParseH264Sps(kSps.data(), kSps.size(), &info);
        benchmark::DoNotOptimize(info);
    }
}
BENCHMARK(BM_ParseSps);

// Analyse and write one second of 30 fps video (one key frame) per
// iteration into a fresh file.
void BM_PassThroughSecond(benchmark::State& state) {
    const Bytes key = Frame(true, false);
    const Bytes frame = Frame(false, false);
    const std::string path = "/tmp/kiv_record_stream_bench.mp4";
    std::basic_string<KivWChar> wide(path.begin(), path.end());
    kiv::H264StreamAnalyzer analyzer;
    kiv::Mp4Writer writer;
    analyzer.Analyze(key.data(), key.size());
    kiv::H264SpsInfo sps;
    kiv::ParseH264Sps(analyzer.Sps().data(), analyzer.Sps().size(), &sps);
    int64_t bytes = 0;
    int files = 0;
    for (auto _ : state) {
        if (files++ % 20 == 0) {
            state.PauseTiming();
            writer.Open(wide.c_str(), 1920, 1080, analyzer.Sps(), analyzer.Pps(), sps);
            state.ResumeTiming();
        }
        for (int i = 0; i < 30; ++i) {
            const Bytes& input = i == 0 ? key : frame;
            const kiv::H264FrameInfo info = analyzer.Analyze(input.data(), input.size());
            writer.WriteVideoSample(analyzer.Sample().data(), analyzer.Sample().size(), i * 333333, 333333, info.key);
            bytes += int64_t(input.size());
        }
    }
    writer.Finalize();
    std::remove(path.c_str());
    state.SetBytesProcessed(bytes);
    state.counters["frames/s"] = benchmark::Counter(double(state.iterations()) * 30, benchmark::Counter::kIsRate);
}
BENCHMARK(BM_PassThroughSecond)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
