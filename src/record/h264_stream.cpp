#include "h264_stream.h"

#include <cstring>

namespace kiv {

namespace {

const uint8_t kStartCode[4] = {0, 0, 0, 1};

uint32_t ReadU32BE(const uint8_t* p) {
    return (uint32_t(p[0]) << 24) | (uint32_t(p[1]) << 16) | (uint32_t(p[2]) << 8) | uint32_t(p[3]);
}

bool StartsWithFourByteStartCode(const uint8_t* data, size_t size) {
    return size >= 4 && data[0] == 0 && data[1] == 0 && data[2] == 0 && data[3] == 1;
}

// True when the buffer is exactly a chain of non-empty units, each preceded
// by its 4-byte big-endian length. With `plausibleHeaders`, every unit must
// also start with a NAL header that has the forbidden bit clear and a type.
bool IsExactAvcc(const uint8_t* data, size_t size, bool plausibleHeaders) {
    if (size < 5) return false;
    size_t pos = 0;
    while (size - pos >= 4) {
        const uint32_t length = ReadU32BE(data + pos);
        pos += 4;
        if (length == 0 || length > size - pos) return false;
        if (plausibleHeaders && ((data[pos] & 0x80) != 0 || (data[pos] & 0x1F) == 0)) return false;
        pos += length;
    }
    return pos == size;
}

// Exp-Golomb and fixed-width reads over an RBSP that fail (sticky) instead of
// reading past the end.
class BitReader {
public:
    BitReader(const uint8_t* data, size_t size) : data_(data), bits_(uint64_t(size) * 8) {}

    bool Ok() const { return ok_; }

    uint32_t Bits(int count) {
        uint32_t value = 0;
        for (int i = 0; i < count; ++i) value = (value << 1) | Bit();
        return value;
    }

    uint32_t Bit() {
        if (pos_ >= bits_) {
            ok_ = false;
            return 0;
        }
        const uint32_t bit = (data_[pos_ >> 3] >> (7 - (pos_ & 7))) & 1u;
        ++pos_;
        return bit;
    }

    // ue(v): n leading zeros, a 1, then n bits; value 2^n - 1 + those bits.
    // More than 31 leading zeros cannot come from a valid stream.
    uint32_t Ue() {
        int zeros = 0;
        while (Bit() == 0) {
            if (!ok_ || ++zeros > 31) {
                ok_ = false;
                return 0;
            }
        }
        if (!ok_) return 0;
        const uint64_t value = ((uint64_t(1) << zeros) - 1) + Bits(zeros);
        return ok_ ? uint32_t(value) : 0;
    }

    int32_t Se() {
        const uint32_t k = Ue();
        return (k & 1) ? int32_t((k + 1) / 2) : -int32_t(k / 2);
    }

private:
    const uint8_t* data_;
    uint64_t bits_;
    uint64_t pos_ = 0;
    bool ok_ = true;
};

void SkipScalingList(BitReader* bits, int size) {
    int last = 8;
    int next = 8;
    for (int j = 0; j < size && bits->Ok(); ++j) {
        if (next != 0) {
            const int delta = bits->Se();
            next = (last + delta + 256) % 256;
        }
        last = next == 0 ? last : next;
    }
}

// Reads on from log2_max_frame_num to the frame cropping and fills the
// displayed picture size. False when the data ends early or holds values no
// encoder writes.
bool ParsePictureSize(BitReader* bits, int chromaArrayType, H264SpsInfo* info) {
    bits->Ue();  // log2_max_frame_num_minus4
    const uint32_t pocType = bits->Ue();
    if (pocType == 0) {
        bits->Ue();  // log2_max_pic_order_cnt_lsb_minus4
    } else if (pocType == 1) {
        bits->Bit();  // delta_pic_order_always_zero_flag
        bits->Se();   // offset_for_non_ref_pic
        bits->Se();   // offset_for_top_to_bottom_field
        const uint32_t cycle = bits->Ue();
        if (cycle > 255) return false;
        for (uint32_t i = 0; i < cycle && bits->Ok(); ++i) bits->Se();
    } else if (pocType > 2) {
        return false;
    }
    bits->Ue();   // max_num_ref_frames
    bits->Bit();  // gaps_in_frame_num_value_allowed_flag
    const uint64_t widthMbs = uint64_t(bits->Ue()) + 1;
    const uint64_t heightMapUnits = uint64_t(bits->Ue()) + 1;
    const uint32_t frameMbsOnly = bits->Bit();
    if (!frameMbsOnly) bits->Bit();  // mb_adaptive_frame_field_flag
    bits->Bit();                     // direct_8x8_inference_flag
    uint64_t cropLeft = 0, cropRight = 0, cropTop = 0, cropBottom = 0;
    if (bits->Bit()) {
        cropLeft = bits->Ue();
        cropRight = bits->Ue();
        cropTop = bits->Ue();
        cropBottom = bits->Ue();
    }
    if (!bits->Ok()) return false;

    uint64_t cropUnitX = 1;
    uint64_t cropUnitY = 2 - frameMbsOnly;
    if (chromaArrayType != 0) {
        cropUnitX = (chromaArrayType == 1 || chromaArrayType == 2) ? 2 : 1;
        cropUnitY *= chromaArrayType == 1 ? 2 : 1;
    }
    // Level 6.2 allows 139264 macroblocks; anything wider or taller than
    // 2^16 pixels is not a picture size.
    const uint64_t codedWidth = widthMbs * 16;
    const uint64_t codedHeight = (2 - frameMbsOnly) * heightMapUnits * 16;
    if (codedWidth > 65536 || codedHeight > 65536) return false;
    const uint64_t cropX = cropUnitX * (cropLeft + cropRight);
    const uint64_t cropY = cropUnitY * (cropTop + cropBottom);
    if (cropX >= codedWidth || cropY >= codedHeight) return false;
    info->width = int32_t(codedWidth - cropX);
    info->height = int32_t(codedHeight - cropY);
    return true;
}

}  // namespace

const char* H264SourceName(int32_t source) {
    switch (source) {
        case kH264SourceAnnexB: return "AnnexB";
        case kH264SourceAvcc: return "AVCC";
        case kH264SourceSingleNal: return "SingleNAL";
        default: return "Unknown";
    }
}

bool H264ProfileHasChromaInfo(int32_t profile) {
    switch (profile) {
        case 44: case 83: case 86: case 100: case 110: case 118:
        case 122: case 128: case 134: case 138: case 139: case 244:
            return true;
        default:
            return false;
    }
}

bool ParseH264Sps(const uint8_t* data, size_t size, H264SpsInfo* info) {
    *info = H264SpsInfo();
    if (data == nullptr || size < 4) return false;

    // The parameters live in the RBSP: drop each 03 that follows two zeros.
    // An SPS is small; nothing past the first kilobyte is ever needed.
    uint8_t rbsp[1024];
    size_t rbspSize = 0;
    int zeros = 0;
    for (size_t i = 1; i < size && rbspSize < sizeof(rbsp); ++i) {
        const uint8_t byte = data[i];
        if (zeros >= 2 && byte == 3) {
            zeros = 0;
            continue;
        }
        zeros = byte == 0 ? zeros + 1 : 0;
        rbsp[rbspSize++] = byte;
    }
    if (rbspSize < 3) return false;

    BitReader bits(rbsp, rbspSize);
    H264SpsInfo parsed;
    parsed.profile = int32_t(bits.Bits(8));
    parsed.constraintFlags = int32_t(bits.Bits(8));
    parsed.level = int32_t(bits.Bits(8));
    const uint32_t spsId = bits.Ue();
    uint32_t separateColourPlane = 0;
    if (H264ProfileHasChromaInfo(parsed.profile)) {
        const uint32_t chroma = bits.Ue();
        if (chroma == 3) separateColourPlane = bits.Bit();
        const uint32_t lumaMinus8 = bits.Ue();
        const uint32_t chromaMinus8 = bits.Ue();
        // Bit depths beyond 14 and chroma formats beyond 4:4:4 do not exist.
        if (chroma > 3 || lumaMinus8 > 6 || chromaMinus8 > 6) return false;
        parsed.chromaFormat = int32_t(chroma);
        parsed.lumaBitDepth = int32_t(lumaMinus8) + 8;
        parsed.chromaBitDepth = int32_t(chromaMinus8) + 8;
    }
    if (!bits.Ok() || spsId > 31) return false;
    parsed.parsed = true;
    *info = parsed;

    // The picture size is extra: the sample description does not need it,
    // so a failure here leaves the fields above valid.
    if (H264ProfileHasChromaInfo(parsed.profile)) {
        bits.Bit();  // qpprime_y_zero_transform_bypass_flag
        if (bits.Bit()) {  // seq_scaling_matrix_present_flag
            const int lists = parsed.chromaFormat != 3 ? 8 : 12;
            for (int i = 0; i < lists && bits.Ok(); ++i) {
                if (bits.Bit()) SkipScalingList(&bits, i < 6 ? 16 : 64);
            }
        }
    }
    const int chromaArrayType = separateColourPlane ? 0 : parsed.chromaFormat;
    info->sizeParsed = ParsePictureSize(&bits, chromaArrayType, info);
    if (!info->sizeParsed) info->width = info->height = 0;
    return true;
}

size_t FindAnnexBStart(const uint8_t* data, size_t size, size_t from) {
    // Look for each 0x01 with memchr (vectorised in the C library) and check
    // the two bytes before it: in coded data a 0x01 turns up about once in
    // 256 bytes, so this skips far ahead of a byte-by-byte scan.
    size_t one = from + 2;
    while (one < size) {
        const void* hit = std::memchr(data + one, 1, size - one);
        if (!hit) return size;
        one = size_t(static_cast<const uint8_t*>(hit) - data);
        if (data[one - 1] == 0 && data[one - 2] == 0) return one + 1;
        ++one;
    }
    return size;
}

AnnexBReader::AnnexBReader(const uint8_t* data, size_t size)
    : data_(data), size_(data ? size : 0), pos_(FindAnnexBStart(data, data ? size : 0, 0)) {}

bool AnnexBReader::Next(const uint8_t** nal, size_t* nalSize) {
    while (pos_ < size_) {
        const size_t start = pos_;
        const size_t next = FindAnnexBStart(data_, size_, start);
        size_t end = next == size_ ? size_ : next - 3;
        pos_ = next;
        while (end > start && data_[end - 1] == 0) --end;
        if (end > start) {
            *nal = data_ + start;
            *nalSize = end - start;
            return true;
        }
    }
    return false;
}

size_t AnnexBToLengthPrefixed(const uint8_t* data, size_t size, std::vector<uint8_t>* out) {
    out->clear();
    AnnexBReader reader(data, size);
    const uint8_t* nal = nullptr;
    size_t nalSize = 0;
    size_t count = 0;
    while (reader.Next(&nal, &nalSize)) {
        if (nalSize > 0xFFFFFFFFu) return count;
        const size_t at = out->size();
        out->resize(at + 4 + nalSize);
        uint8_t* p = out->data() + at;
        p[0] = uint8_t(nalSize >> 24);
        p[1] = uint8_t(nalSize >> 16);
        p[2] = uint8_t(nalSize >> 8);
        p[3] = uint8_t(nalSize);
        std::memcpy(p + 4, nal, nalSize);
        ++count;
    }
    return count;
}

void H264StreamAnalyzer::Reset() {
    sample_.clear();
    sps_.clear();
    pps_.clear();
}

void H264StreamAnalyzer::AddUnit(const uint8_t* nal, size_t size, H264FrameInfo* info) {
    const int32_t type = nal[0] & 0x1F;
    if (info->nalCount == 0) info->firstNalType = type;
    ++info->nalCount;
    if (type == kH264NalIdrSlice) info->key = true;
    if (type == kH264NalSps) sps_.assign(nal, nal + size);
    if (type == kH264NalPps) pps_.assign(nal, nal + size);
    sample_.insert(sample_.end(), kStartCode, kStartCode + 4);
    sample_.insert(sample_.end(), nal, nal + size);
}

bool H264StreamAnalyzer::ReadAnnexB(const uint8_t* data, size_t size, H264FrameInfo* info) {
    if (size < 4 || FindAnnexBStart(data, size, 0) >= size) return false;
    // A length of 256 to 511 bytes reads 00 00 01 xx, which looks like a
    // start code. A buffer that is exactly a chain of length-prefixed units
    // with sound NAL headers is therefore left to the AVCC reading, unless it
    // opens with a 4-byte start code (a length of 1 is no real unit). Read
    // the other way, real Annex B data fails the header test: the byte after
    // a slice's NAL header has its top bit set.
    if (!StartsWithFourByteStartCode(data, size) && IsExactAvcc(data, size, true)) return false;
    AnnexBReader reader(data, size);
    const uint8_t* nal = nullptr;
    size_t nalSize = 0;
    while (reader.Next(&nal, &nalSize)) AddUnit(nal, nalSize, info);
    return info->nalCount > 0;
}

bool H264StreamAnalyzer::ReadAvcc(const uint8_t* data, size_t size, H264FrameInfo* info) {
    if (!IsExactAvcc(data, size, false)) return false;
    size_t pos = 0;
    while (pos < size) {
        const uint32_t length = ReadU32BE(data + pos);
        AddUnit(data + pos + 4, length, info);
        pos += 4 + size_t(length);
    }
    return true;
}

H264FrameInfo H264StreamAnalyzer::Analyze(const uint8_t* data, size_t size) {
    H264FrameInfo info;
    sample_.clear();
    if (data == nullptr || size == 0) return info;
    if (ReadAnnexB(data, size, &info)) {
        info.source = kH264SourceAnnexB;
    } else if (ReadAvcc(data, size, &info)) {
        info.source = kH264SourceAvcc;
    } else {
        AddUnit(data, size, &info);
        info.source = kH264SourceSingleNal;
    }
    return info;
}

}  // namespace kiv
