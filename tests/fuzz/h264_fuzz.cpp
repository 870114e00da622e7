// Feeds arbitrary bytes to the frame analyser, the SPS reader, the Annex B
// conversion and the MP4 writer's sample path; none may crash or read out of
// bounds, and the results must be self-consistent.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "record/h264_stream.h"
#include "record/mp4_writer.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // Exact-size copies so that any over-read hits the sanitizer's redzone.
    std::vector<uint8_t> input(data, data + size);
    const uint8_t* bytes = input.empty() ? nullptr : input.data();

    static kiv::H264StreamAnalyzer analyzer;
    const kiv::H264FrameInfo info = analyzer.Analyze(bytes, input.size());
    if (size > 0 && (analyzer.Sample().empty() || info.nalCount < 1)) std::abort();
    if (size == 0 && !analyzer.Sample().empty()) std::abort();

    kiv::H264SpsInfo sps;
    kiv::ParseH264Sps(bytes, input.size(), &sps);
    if (sps.parsed && (sps.chromaFormat > 3 || sps.lumaBitDepth > 14 || sps.chromaBitDepth > 14)) std::abort();
    if (sps.sizeParsed && (sps.width <= 0 || sps.height <= 0)) std::abort();
    if (!analyzer.Sps().empty()) {
        std::vector<uint8_t> stored(analyzer.Sps());
        kiv::ParseH264Sps(stored.data(), stored.size(), &sps);
    }

    std::vector<uint8_t> prefixed;
    const size_t units = kiv::AnnexBToLengthPrefixed(bytes, input.size(), &prefixed);
    if (units > 0 && prefixed.size() < units * 5) std::abort();

    std::vector<uint8_t> sample(analyzer.Sample());
    kiv::AnnexBToLengthPrefixed(sample.data(), sample.size(), &prefixed);

    std::vector<uint8_t> record;
    if (!analyzer.Pps().empty() && analyzer.Sps().size() >= 4) {
        if (!kiv::BuildAvcC(analyzer.Sps().data(), analyzer.Sps().size(), analyzer.Pps().data(),
                            analyzer.Pps().size(), sps, &record)) {
            std::abort();
        }
    }
    // Every sample goes through the MP4 writer too; each file is closed after
    // a few hundred inputs so the sample tables get built.
    static kiv::Mp4Writer writer;
    static int inputs = 0;
    if (inputs++ % 256 == 0) {
        static const std::vector<uint8_t> kSps = {0x67, 0x64, 0x00, 0x1F, 0xAC, 0xD9};
        static const std::vector<uint8_t> kPps = {0x68, 0xEE, 0x3C, 0x80};
        static const KivWChar kPath[] = {'/', 't', 'm', 'p', '/', 'h', '2', '6', '4', '_', 'f', 'u', 'z', 'z', '.',
                                         'm', 'p', '4', 0};
        writer.Finalize();
        if (writer.Open(kPath, 320, 240, kSps, kPps, sps) != kiv::Mp4OpenResult::kOk) std::abort();
    }
    const bool written = writer.WriteVideoSample(sample.data(), sample.size(), inputs * 1000, 1000, info.key);
    if (written && writer.VideoSampleCount() == 0) std::abort();
    return 0;
}
