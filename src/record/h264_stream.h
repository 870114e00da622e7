// H.264 elementary stream handling for the pass-through recording path:
// recognising how a compressed frame is framed (Annex B, 4-byte length
// prefixes or one bare NAL unit), normalising it to Annex B, capturing the
// parameter sets, reading the SPS, and converting samples to the
// length-prefixed form stored in MP4 files.
#pragma once
#include <cstddef>
#include <cstdint>
#include <vector>

namespace kiv {

// How the bytes of a frame were read.
enum H264Source : int32_t {
    kH264SourceUnknown = 0,
    kH264SourceAnnexB = 1,
    kH264SourceAvcc = 2,
    kH264SourceSingleNal = 3,
};

// "AnnexB", "AVCC", "SingleNAL" or "Unknown" (for log lines).
const char* H264SourceName(int32_t source);

enum H264NalType : int32_t {
    kH264NalIdrSlice = 5,
    kH264NalSps = 7,
    kH264NalPps = 8,
};

// Result of analysing one frame.
struct H264FrameInfo {
    int32_t source = kH264SourceUnknown;
    int32_t nalCount = 0;
    int32_t firstNalType = -1;  // -1 when no unit was found
    bool key = false;           // an IDR slice was present
};

// Values read from a sequence parameter set. `parsed` covers the fields up to
// the bit depths (all that the MP4 sample description needs); `sizeParsed`
// tells whether the walk went on to the picture size, which then holds the
// displayed width and height after frame cropping.
struct H264SpsInfo {
    int32_t profile = 0;
    int32_t constraintFlags = 0;
    int32_t level = 0;
    int32_t chromaFormat = 1;
    int32_t lumaBitDepth = 8;
    int32_t chromaBitDepth = 8;
    bool parsed = false;
    int32_t width = 0;
    int32_t height = 0;
    bool sizeParsed = false;
};

// Reads an SPS NAL unit (header byte included, no start code or length).
// Never reads outside [data, data + size); returns info->parsed.
bool ParseH264Sps(const uint8_t* data, size_t size, H264SpsInfo* info);

// True for the profiles whose SPS carries chroma format and bit depths (and
// whose avcC record carries the extension bytes).
bool H264ProfileHasChromaInfo(int32_t profile);

// Walks the NAL units of an Annex B buffer. Trailing zero bytes of a unit
// (the first byte of a following 4-byte start code, or padding) are not part
// of it; empty units are skipped.
class AnnexBReader {
public:
    AnnexBReader(const uint8_t* data, size_t size);
    // False when no unit is left.
    bool Next(const uint8_t** nal, size_t* nalSize);

private:
    const uint8_t* data_;
    size_t size_;
    size_t pos_;
};

// Offset of the first byte after the first start code (00 00 01) at or after
// `from`; `size` when there is none.
size_t FindAnnexBStart(const uint8_t* data, size_t size, size_t from);

// Rewrites an Annex B buffer as NAL units each preceded by a 4-byte
// big-endian length. `out` is cleared first and its capacity reused.
// Returns the number of units written.
size_t AnnexBToLengthPrefixed(const uint8_t* data, size_t size, std::vector<uint8_t>* out);

// Per-recording analyser: keeps the normalised sample of the last frame and
// the newest SPS and PPS. Buffers are reused, so once warmed up a frame
// allocates nothing.
class H264StreamAnalyzer {
public:
    // Analyses one frame (Annex B, then AVCC, then single NAL). Any non-empty
    // buffer yields a sample; empty or null input yields an empty one. A
    // buffer that is exactly a chain of length-prefixed units with sound NAL
    // headers is read as AVCC even when a length looks like a start code
    // (lengths of 256 to 511 bytes read 00 00 01 xx).
    H264FrameInfo Analyze(const uint8_t* data, size_t size);

    // Annex B form of the last analysed frame (00 00 00 01 before each unit).
    const std::vector<uint8_t>& Sample() const { return sample_; }
    const std::vector<uint8_t>& Sps() const { return sps_; }
    const std::vector<uint8_t>& Pps() const { return pps_; }
    bool HasParameterSets() const { return !sps_.empty() && !pps_.empty(); }

    // Forgets the sample and the parameter sets (a new recording).
    void Reset();

private:
    bool ReadAnnexB(const uint8_t* data, size_t size, H264FrameInfo* info);
    bool ReadAvcc(const uint8_t* data, size_t size, H264FrameInfo* info);
    void AddUnit(const uint8_t* nal, size_t size, H264FrameInfo* info);

    std::vector<uint8_t> sample_;
    std::vector<uint8_t> sps_;
    std::vector<uint8_t> pps_;
};

}  // namespace kiv
