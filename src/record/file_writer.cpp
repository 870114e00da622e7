#include "file_writer.h"

#include <cstring>

namespace kiv {

namespace {
uint64_t (*g_freeSpaceProbe)(uint64_t) = nullptr;
}  // namespace

void SetFreeSpaceProbe(uint64_t (*probe)(uint64_t bytesOnDisk)) { g_freeSpaceProbe = probe; }

bool FileWriter::RoomFor(size_t bytes) const {
    if (reserve_ == 0) return true;
    const uint64_t free = g_freeSpaceProbe ? g_freeSpaceProbe(file_.SizeOnDisk()) : file_.FreeSpace();
    return free >= reserve_ && free - reserve_ >= bytes;
}

FileWriter::FileWriter(size_t bufferSize) : bufferSize_(bufferSize > 0 ? bufferSize : 1) {}

FileWriter::~FileWriter() { Close(); }

bool FileWriter::Open(const KivWChar* path) {
    Close();
    used_ = 0;
    position_ = 0;
    end_ = 0;
    failed_ = false;
    cutAtClose_ = false;
    if (path == nullptr || path[0] == 0 || !file_.Create(path)) {
        failed_ = true;
        return false;
    }
    // Allocated by the first file, so writers that never open cost nothing.
    if (buffer_.size() != bufferSize_) buffer_.resize(bufferSize_);
    return true;
}

bool FileWriter::Flush() {
    if (used_ == 0) return !failed_;
    const size_t pending = used_;
    used_ = 0;
    if (failed_ || !RoomFor(pending) || !file_.WriteAll(buffer_.data(), pending)) failed_ = true;
    return !failed_;
}

bool FileWriter::Write(const void* data, size_t size) {
    if (failed_ || !file_.IsOpen()) return false;
    const uint8_t* bytes = static_cast<const uint8_t*>(data);
    if (used_ + size > buffer_.size()) {
        if (!Flush()) return false;
        // Large blocks go straight to the file rather than through the buffer.
        if (size >= buffer_.size()) {
            if (!RoomFor(size) || !file_.WriteAll(bytes, size)) {
                failed_ = true;
                return false;
            }
            position_ += size;
            if (position_ > end_) end_ = position_;
            return true;
        }
    }
    if (size > 0) std::memcpy(buffer_.data() + used_, bytes, size);
    used_ += size;
    position_ += size;
    if (position_ > end_) end_ = position_;
    return true;
}

bool FileWriter::WriteU16BE(uint16_t v) {
    const uint8_t b[2] = {uint8_t(v >> 8), uint8_t(v)};
    return Write(b, 2);
}

bool FileWriter::WriteU32BE(uint32_t v) {
    const uint8_t b[4] = {uint8_t(v >> 24), uint8_t(v >> 16), uint8_t(v >> 8), uint8_t(v)};
    return Write(b, 4);
}

bool FileWriter::WriteU64BE(uint64_t v) {
    return WriteU32BE(uint32_t(v >> 32)) && WriteU32BE(uint32_t(v));
}

bool FileWriter::Patch(uint64_t offset, const void* data, size_t size) {
    if (failed_ || !file_.IsOpen() || offset + size > end_) return false;
    if (!Flush() || !file_.SeekTo(offset) || !file_.WriteAll(static_cast<const uint8_t*>(data), size) ||
        !file_.SeekTo(position_)) {
        failed_ = true;
        return false;
    }
    return true;
}

bool FileWriter::RewindAfterFailure(uint64_t end) {
    if (!file_.IsOpen() || end > file_.SizeOnDisk() || !file_.SeekTo(end)) return false;
    used_ = 0;
    position_ = end;
    end_ = end;
    failed_ = false;
    cutAtClose_ = true;
    return true;
}

bool FileWriter::Close() {
    if (!file_.IsOpen()) return false;
    bool flushed = Flush();
    if (flushed && cutAtClose_) flushed = file_.Truncate(end_);
    const bool closed = file_.Close();
    if (!closed) failed_ = true;
    return flushed && closed;
}

std::vector<char> Utf16PathToUtf8(const KivWChar* path) {
    std::vector<char> out;
    if (path != nullptr) {
        for (size_t i = 0; path[i] != 0; ++i) {
            uint32_t c = uint32_t(path[i]) & 0xFFFFu;
            if (c >= 0xD800 && c <= 0xDBFF) {
                const uint32_t low = uint32_t(path[i + 1]) & 0xFFFFu;
                if (low >= 0xDC00 && low <= 0xDFFF) {
                    c = 0x10000 + ((c - 0xD800) << 10) + (low - 0xDC00);
                    ++i;
                } else {
                    c = 0xFFFD;
                }
            } else if (c >= 0xDC00 && c <= 0xDFFF) {
                c = 0xFFFD;
            }
            if (c < 0x80) {
                out.push_back(char(c));
            } else if (c < 0x800) {
                out.push_back(char(0xC0 | (c >> 6)));
                out.push_back(char(0x80 | (c & 0x3F)));
            } else if (c < 0x10000) {
                out.push_back(char(0xE0 | (c >> 12)));
                out.push_back(char(0x80 | ((c >> 6) & 0x3F)));
                out.push_back(char(0x80 | (c & 0x3F)));
            } else {
                out.push_back(char(0xF0 | (c >> 18)));
                out.push_back(char(0x80 | ((c >> 12) & 0x3F)));
                out.push_back(char(0x80 | ((c >> 6) & 0x3F)));
                out.push_back(char(0x80 | (c & 0x3F)));
            }
        }
    }
    out.push_back('\0');
    return out;
}

}  // namespace kiv
