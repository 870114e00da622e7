// Helpers of the stream tests: building bitstreams by hand, walking MP4 boxes
// and running the ffmpeg tools.
#pragma once
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "kivcapture.h"

namespace streamtest {

using Bytes = std::vector<uint8_t>;

// MSB-first bit writer with Exp-Golomb codes, the encoder's side of the reader under test.
class BitWriter {
public:
    void Bit(uint32_t b);
    void Bits(uint32_t value, int count);
    void Ue(uint32_t value);
    void Se(int32_t value);
    // rbsp_stop_one_bit and zero padding to a byte boundary.
    Bytes Finish();

private:
    Bytes bytes_;
    int used_ = 8;
};

// A NAL unit: header byte then the payload with emulation-prevention bytes.
Bytes Nal(uint8_t header, const Bytes& rbsp);

Bytes AnnexB(const std::vector<Bytes>& nals, bool fourByteCodes = true);
Bytes LengthPrefixed(const std::vector<Bytes>& nals);

// The access units of an Annex B stream, each in Annex B form; the NAL units of one buffer.
std::vector<Bytes> SplitAccessUnits(const Bytes& stream);
std::vector<Bytes> NalUnits(const Bytes& annexB);

// One frame of an ADTS stream: raw payload and the header's fields.
struct AdtsFrame {
    Bytes payload;
    int sampleRateIndex;
    int channels;
};
std::vector<AdtsFrame> ParseAdts(const Bytes& stream);

// An MP4 box: type, offset, full size and where its payload starts.
struct Box {
    std::string type;
    uint64_t offset;
    uint64_t size;
    uint64_t payload;
};
// Top-level boxes of a file, or the children of a box (payload range).
std::vector<Box> Boxes(const Bytes& file, uint64_t begin, uint64_t end);
// Finds a box by path ("moov/trak/mdia"); the n-th match of the last step.
bool FindBox(const Bytes& file, const std::string& path, Box* out, int index = 0);

uint32_t U32(const Bytes& b, uint64_t at);
uint64_t U64(const Bytes& b, uint64_t at);

Bytes ReadAll(const std::string& path);
bool WriteAll(const std::string& path, const Bytes& data);
std::basic_string<KivWChar> WidePath(const std::string& path);

// Runs a shell command: exit status and standard output. Native build only
// (elsewhere it fails, and so there are no ffmpeg tools).
int Run(const std::string& command, std::string* output = nullptr);
bool HaveFfmpegTools();

// "key=value" lines of `ffprobe -v error <args> -of default=nw=1`, first value of each key.
std::map<std::string, std::string> Probe(const std::string& args);

// framemd5 checksums of one stream's ("0:v", "0:a") decoded frames in output
// order; a single "ffmpeg failed" entry when decoding fails.
std::vector<std::string> DecodedFrameHashes(const std::string& path, const std::string& map = "0:v");

}  // namespace streamtest
