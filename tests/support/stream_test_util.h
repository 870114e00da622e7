// Helpers of the stream tests: bitstreams built by hand, MP4 boxes, the ffmpeg tools.
#pragma once
#include <cstdint>
#include <cstdio>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "test_support.h"

namespace streamtest {

using Bytes = std::vector<uint8_t>;

// MSB-first bit writer with Exp-Golomb codes, the encoder's side of the reader under test.
class BitWriter {
public:
    void Bit(uint32_t b) {
        if (used_ == 8) bytes_.push_back(0), used_ = 0;
        if (b & 1) bytes_.back() |= uint8_t(0x80 >> used_);
        ++used_;
    }
    void Bits(uint32_t value, int count) { while (count-- > 0) Bit((value >> count) & 1); }
    void Ue(uint32_t value) {
        const uint64_t v = uint64_t(value) + 1;
        int bits = 0;
        for (; (v >> bits) > 1; ++bits) Bit(0);
        for (int i = bits; i >= 0; --i) Bit(uint32_t(v >> i) & 1);
    }
    void Se(int32_t value) { Ue(value > 0 ? uint32_t(value) * 2 - 1 : uint32_t(-value) * 2); }
    // rbsp_stop_one_bit and zero padding to a byte boundary.
    Bytes Finish() {
        for (Bit(1); used_ != 8;) Bit(0);
        return bytes_;
    }

private:
    Bytes bytes_;
    int used_ = 8;
};

// A NAL unit: header byte then the payload with emulation-prevention bytes.
inline Bytes Nal(uint8_t header, const Bytes& rbsp) {
    Bytes out{header};
    int zeros = 0;
    for (uint8_t b : rbsp) {
        if (zeros >= 2 && b <= 3) out.push_back(3), zeros = 0;
        out.push_back(b);
        zeros = b == 0 ? zeros + 1 : 0;
    }
    return out;
}

inline Bytes AnnexB(const std::vector<Bytes>& nals) {
    Bytes out;
    for (const Bytes& n : nals) {
        out.insert(out.end(), {0, 0, 0, 1});
        out.insert(out.end(), n.begin(), n.end());
    }
    return out;
}

inline Bytes LengthPrefixed(const std::vector<Bytes>& nals) {
    Bytes out;
    for (const Bytes& n : nals) {
        const uint32_t size = uint32_t(n.size());
        out.insert(out.end(), {uint8_t(size >> 24), uint8_t(size >> 16), uint8_t(size >> 8), uint8_t(size)});
        out.insert(out.end(), n.begin(), n.end());
    }
    return out;
}

// The NAL units of one Annex B buffer (trailing zero bytes belong to the next start code).
inline std::vector<Bytes> NalUnits(const Bytes& s) {
    std::vector<size_t> starts;  // payload starts after each 00 00 01
    for (size_t i = 0; i + 2 < s.size(); ++i)
        if (s[i] == 0 && s[i + 1] == 0 && s[i + 2] == 1) starts.push_back(i + 3), i += 2;
    std::vector<Bytes> nals;
    for (size_t k = 0; k < starts.size(); ++k) {
        size_t end = k + 1 < starts.size() ? starts[k + 1] - 3 : s.size();
        while (end > starts[k] && s[end - 1] == 0) --end;
        if (end > starts[k]) nals.emplace_back(s.begin() + long(starts[k]), s.begin() + long(end));
    }
    return nals;
}

// The access units of an Annex B stream, each in Annex B form.
inline std::vector<Bytes> SplitAccessUnits(const Bytes& stream) {
    std::vector<Bytes> units, current;
    bool haveSlice = false;
    for (const Bytes& nal : NalUnits(stream)) {
        const int type = nal[0] & 0x1F;
        const bool slice = type == 1 || type == 5;
        // After a slice: SEI, parameter sets, delimiters, reserved 14-18, or a
        // slice with first_mb_in_slice 0 (its ue(v) code is a single 1 bit).
        if (haveSlice && ((type >= 6 && type <= 9) || (type >= 14 && type <= 18) || (slice && nal.size() > 1 && (nal[1] & 0x80))))
            units.push_back(AnnexB(current)), current.clear(), haveSlice = false;
        current.push_back(nal);
        haveSlice = haveSlice || slice;
    }
    if (!current.empty()) units.push_back(AnnexB(current));
    return units;
}

// One frame of an ADTS stream: raw payload and the header's fields.
struct AdtsFrame { Bytes payload; int sampleRateIndex, channels; };
inline std::vector<AdtsFrame> ParseAdts(const Bytes& s) {
    std::vector<AdtsFrame> frames;
    for (size_t pos = 0; pos + 7 <= s.size() && s[pos] == 0xFF && (s[pos + 1] & 0xF0) == 0xF0;) {
        const size_t length = (size_t(s[pos + 3] & 3) << 11) | (size_t(s[pos + 4]) << 3) | (s[pos + 5] >> 5);
        const size_t header = (s[pos + 1] & 1) ? 7 : 9;  // protection_absent
        if (length <= header || pos + length > s.size()) break;
        frames.push_back({Bytes(s.begin() + long(pos + header), s.begin() + long(pos + length)), (s[pos + 2] >> 2) & 0xF,
                          ((s[pos + 2] & 1) << 2) | (s[pos + 3] >> 6)});
        pos += length;
    }
    return frames;
}

inline uint32_t U32(const Bytes& b, uint64_t at) {
    return (uint32_t(b[at]) << 24) | (uint32_t(b[at + 1]) << 16) | (uint32_t(b[at + 2]) << 8) | b[at + 3];
}
inline uint64_t U64(const Bytes& b, uint64_t at) { return (uint64_t(U32(b, at)) << 32) | U32(b, at + 4); }

// An MP4 box: type, offset, full size and where its payload starts.
struct Box { std::string type; uint64_t offset, size, payload; };
// Finds a box by path ("moov/trak/mdia"); the n-th match of the last step.
inline bool FindBox(const Bytes& file, const std::string& path, Box* out, int index = 0) {
    uint64_t begin = 0, end = file.size();
    for (size_t from = 0;;) {
        const size_t slash = path.find('/', from);
        const bool last = slash == std::string::npos;
        const std::string step = path.substr(from, last ? std::string::npos : slash - from);
        int seen = 0;
        bool found = false;
        for (uint64_t pos = begin; !found && pos + 8 <= end;) {  // the boxes of the range
            uint64_t size = U32(file, pos), header = 8;
            if (size == 1 && pos + 16 > end) break;
            if (size == 1) size = U64(file, pos + 8), header = 16;
            else if (size == 0) size = end - pos;
            if (size < header || pos + size > end) break;
            const Box box{std::string(file.begin() + long(pos + 4), file.begin() + long(pos + 8)), pos, size, pos + header};
            if (box.type == step && (!last || seen++ == index)) *out = box, found = true;
            pos += size;
        }
        if (!found || last) return found;
        begin = out->payload, end = out->offset + out->size, from = slash + 1;
    }
}

inline Bytes ReadAll(const std::string& path) {
    const std::string bytes = kivtest::ReadFile(path);
    return {bytes.begin(), bytes.end()};
}
inline std::basic_string<KivWChar> WidePath(const std::string& path) { return kivtest::Wide(path); }

// Runs a shell command: exit status and standard output (fails outside the native build: no ffmpeg tools).
inline int Run(const std::string& command, std::string* output = nullptr) {
#ifdef _WIN32
    return (void)command, (void)output, -1;
#else
    FILE* pipe = popen(command.c_str(), "r");
    if (!pipe) return -1;
    std::string text;
    char buffer[4096];
    for (size_t n; (n = fread(buffer, 1, sizeof(buffer), pipe)) > 0;) text.append(buffer, n);
    const int status = pclose(pipe);
    if (output) *output = text;
    return status;
#endif
}
inline bool HaveFfmpegTools() {
    return Run("ffmpeg -version >/dev/null 2>&1") == 0 && Run("ffprobe -version >/dev/null 2>&1") == 0;
}

// "key=value" lines of `ffprobe -v error <args> -of default=nw=1`, first value of each key.
inline std::map<std::string, std::string> Probe(const std::string& args) {
    std::string out;
    Run("ffprobe -v error " + args + " -of default=nw=1 2>&1", &out);
    std::map<std::string, std::string> values;
    std::istringstream lines(out);
    for (std::string line; std::getline(lines, line);)
        if (line.find('=') != std::string::npos) values.emplace(line.substr(0, line.find('=')), line.substr(line.find('=') + 1));
    return values;
}

// framemd5 checksums of one stream's ("0:v", "0:a") decoded frames in output order; "ffmpeg failed..." alone on failure.
inline std::vector<std::string> DecodedFrameHashes(const std::string& path, const std::string& map = "0:v") {
    std::string out;
    if (Run("ffmpeg -v error -i '" + path + "' -map " + map + " -fps_mode passthrough -f framemd5 - 2>&1", &out) != 0)
        return {"ffmpeg failed: " + out};
    std::vector<std::string> hashes;
    std::istringstream lines(out);
    for (std::string line; std::getline(lines, line);)
        if (!line.empty() && line[0] != '#') hashes.push_back(line.substr(line.rfind(',') + 1));
    return hashes;
}

}  // namespace streamtest
