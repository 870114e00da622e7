#include "stream_test_util.h"

#include <cstdio>
#include <sstream>

#include "test_support.h"

namespace streamtest {

void BitWriter::Bit(uint32_t b) {
    if (used_ == 8) bytes_.push_back(0), used_ = 0;
    if (b & 1) bytes_.back() |= uint8_t(0x80 >> used_);
    ++used_;
}

void BitWriter::Bits(uint32_t value, int count) {
    while (count-- > 0) Bit((value >> count) & 1);
}

void BitWriter::Ue(uint32_t value) {
    const uint64_t v = uint64_t(value) + 1;
    int bits = 0;
    while ((v >> bits) > 1) ++bits;
    Bits(0, bits);
    for (int i = bits; i >= 0; --i) Bit(uint32_t(v >> i) & 1);
}

void BitWriter::Se(int32_t value) { Ue(value > 0 ? uint32_t(value) * 2 - 1 : uint32_t(-value) * 2); }
Bytes BitWriter::Finish() {
    for (Bit(1); used_ != 8;) Bit(0);
    return bytes_;
}

Bytes Nal(uint8_t header, const Bytes& rbsp) {
    Bytes out{header};
    int zeros = 0;
    for (uint8_t b : rbsp) {
        if (zeros >= 2 && b <= 3) out.push_back(3), zeros = 0;  // emulation prevention
        out.push_back(b);
        zeros = b == 0 ? zeros + 1 : 0;
    }
    return out;
}

Bytes AnnexB(const std::vector<Bytes>& nals, bool fourByteCodes) {
    Bytes out;
    for (const Bytes& n : nals) {
        if (fourByteCodes) out.push_back(0);
        out.insert(out.end(), {0, 0, 1});
        out.insert(out.end(), n.begin(), n.end());
    }
    return out;
}

Bytes LengthPrefixed(const std::vector<Bytes>& nals) {
    Bytes out;
    for (const Bytes& n : nals) {
        const uint32_t size = uint32_t(n.size());
        out.insert(out.end(), {uint8_t(size >> 24), uint8_t(size >> 16), uint8_t(size >> 8), uint8_t(size)});
        out.insert(out.end(), n.begin(), n.end());
    }
    return out;
}

std::vector<Bytes> NalUnits(const Bytes& s) {
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

std::vector<Bytes> SplitAccessUnits(const Bytes& stream) {
    std::vector<Bytes> units, current;
    bool haveSlice = false;
    for (const Bytes& nal : NalUnits(stream)) {
        const int type = nal[0] & 0x1F;
        const bool slice = type == 1 || type == 5;
        // After a slice: SEI, parameter sets, delimiters, reserved 14-18, or a
        // slice with first_mb_in_slice 0 (its ue(v) code is a single 1 bit).
        if (haveSlice && ((type >= 6 && type <= 9) || (type >= 14 && type <= 18) ||
                          (slice && nal.size() > 1 && (nal[1] & 0x80)))) {
            units.push_back(AnnexB(current));
            current.clear();
            haveSlice = false;
        }
        current.push_back(nal);
        haveSlice = haveSlice || slice;
    }
    if (!current.empty()) units.push_back(AnnexB(current));
    return units;
}

std::vector<AdtsFrame> ParseAdts(const Bytes& s) {
    std::vector<AdtsFrame> frames;
    size_t pos = 0;
    while (pos + 7 <= s.size()) {
        if (s[pos] != 0xFF || (s[pos + 1] & 0xF0) != 0xF0) break;
        const bool protectionAbsent = s[pos + 1] & 1;
        const int rateIndex = (s[pos + 2] >> 2) & 0xF;
        const int channels = ((s[pos + 2] & 1) << 2) | (s[pos + 3] >> 6);
        const size_t length = (size_t(s[pos + 3] & 3) << 11) | (size_t(s[pos + 4]) << 3) | (s[pos + 5] >> 5);
        const size_t header = protectionAbsent ? 7 : 9;
        if (length <= header || pos + length > s.size()) break;
        frames.push_back({Bytes(s.begin() + long(pos + header), s.begin() + long(pos + length)), rateIndex, channels});
        pos += length;
    }
    return frames;
}

uint32_t U32(const Bytes& b, uint64_t at) {
    return (uint32_t(b[at]) << 24) | (uint32_t(b[at + 1]) << 16) | (uint32_t(b[at + 2]) << 8) | b[at + 3];
}
uint64_t U64(const Bytes& b, uint64_t at) { return (uint64_t(U32(b, at)) << 32) | U32(b, at + 4); }

std::vector<Box> Boxes(const Bytes& file, uint64_t begin, uint64_t end) {
    std::vector<Box> boxes;
    uint64_t pos = begin;
    while (pos + 8 <= end) {
        uint64_t size = U32(file, pos), header = 8;
        if (size == 1) {
            if (pos + 16 > end) break;
            size = U64(file, pos + 8);
            header = 16;
        } else if (size == 0) {
            size = end - pos;
        }
        if (size < header || pos + size > end) break;
        boxes.push_back({std::string(file.begin() + long(pos + 4), file.begin() + long(pos + 8)), pos, size,
                         pos + header});
        pos += size;
    }
    return boxes;
}

bool FindBox(const Bytes& file, const std::string& path, Box* out, int index) {
    uint64_t begin = 0, end = file.size();
    for (size_t from = 0;;) {
        const size_t slash = path.find('/', from);
        const std::string step = path.substr(from, slash == std::string::npos ? std::string::npos : slash - from);
        const bool last = slash == std::string::npos;
        int seen = 0;
        bool found = false;
        for (const Box& box : Boxes(file, begin, end))
            if (box.type == step && (!last || seen++ == index)) {
                *out = box, found = true;
                break;
            }
        if (!found) return false;
        if (last) return true;
        begin = out->payload;
        end = out->offset + out->size;
        from = slash + 1;
    }
}

Bytes ReadAll(const std::string& path) {
    const std::string bytes = kivtest::ReadFile(path);
    return Bytes(bytes.begin(), bytes.end());
}
bool WriteAll(const std::string& path, const Bytes& data) { return kivtest::WriteFile(path, std::string(data.begin(), data.end())); }
std::basic_string<KivWChar> WidePath(const std::string& path) {
    return std::basic_string<KivWChar>(reinterpret_cast<const unsigned char*>(path.data()),
                                       reinterpret_cast<const unsigned char*>(path.data()) + path.size());
}

int Run(const std::string& command, std::string* output) {
#ifdef _WIN32
    return (void)command, (void)output, -1;
#else
    FILE* pipe = popen(command.c_str(), "r");
    if (!pipe) return -1;
    std::string text;
    char buffer[4096];
    size_t n;
    while ((n = fread(buffer, 1, sizeof(buffer), pipe)) > 0) text.append(buffer, n);
    const int status = pclose(pipe);
    if (output) *output = text;
    return status;
#endif
}

bool HaveFfmpegTools() { return Run("ffmpeg -version >/dev/null 2>&1") == 0 && Run("ffprobe -version >/dev/null 2>&1") == 0; }

std::map<std::string, std::string> Probe(const std::string& args) {
    std::string out;
    Run("ffprobe -v error " + args + " -of default=nw=1 2>&1", &out);
    std::map<std::string, std::string> values;
    std::istringstream lines(out);
    for (std::string line; std::getline(lines, line);)
        if (line.find('=') != std::string::npos) values.emplace(line.substr(0, line.find('=')), line.substr(line.find('=') + 1));
    return values;
}

std::vector<std::string> DecodedFrameHashes(const std::string& path, const std::string& map) {
    std::string out;
    const int status = Run("ffmpeg -v error -i '" + path + "' -map " + map + " -fps_mode passthrough -f framemd5 - 2>&1", &out);
    if (status != 0) return {"ffmpeg failed: " + out};
    std::vector<std::string> hashes;
    std::istringstream lines(out);
    for (std::string line; std::getline(lines, line);)
        if (!line.empty() && line[0] != '#') hashes.push_back(line.substr(line.rfind(',') + 1));
    return hashes;
}

}  // namespace streamtest
