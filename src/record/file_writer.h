// Buffered binary file output with 64-bit positions. Paths are UTF-16: the
// Windows build opens them as wide-character paths, the native build converts
// them to UTF-8.
#pragma once
#include <cstddef>
#include <cstdint>
#include <vector>

#include "kivcapture.h"

namespace kiv {

// The operating system's file, unbuffered. Implemented per platform.
class RawFile {
public:
    RawFile() = default;
    ~RawFile() { Close(); }
    RawFile(const RawFile&) = delete;
    RawFile& operator=(const RawFile&) = delete;

    // Creates or truncates the file for writing.
    bool Create(const KivWChar* path);
    bool IsOpen() const { return handle_ != nullptr; }
    bool WriteAll(const uint8_t* data, size_t size);
    bool SeekTo(uint64_t offset);
    // The file's size as the system has it (0 when unknown).
    uint64_t SizeOnDisk() const;
    // Cuts the file to `size` bytes and leaves the position there.
    bool Truncate(uint64_t size);
    // Bytes the volume still gives this program (quotas counted), or
    // UINT64_MAX when the system cannot tell.
    uint64_t FreeSpace() const;
    // Returns false when closing (flushing to the system) failed.
    bool Close();

private:
    void* handle_ = nullptr;
    std::vector<KivWChar> folder_;  // where the file is (Windows asks about a folder)
};

// Tests stand in for the volume: the probe gets the bytes the file holds and
// returns the free space. Null goes back to asking the system.
void SetFreeSpaceProbe(uint64_t (*probe)(uint64_t bytesOnDisk));

// Writes through a large buffer so that many small box fields and samples
// become few system calls. Position() counts bytes written so far, buffered
// or not. After a failed write or seek the writer stays failed.
class FileWriter {
public:
    static constexpr size_t kDefaultBufferSize = 4u << 20;

    explicit FileWriter(size_t bufferSize = kDefaultBufferSize);
    ~FileWriter();
    FileWriter(const FileWriter&) = delete;
    FileWriter& operator=(const FileWriter&) = delete;

    bool Open(const KivWChar* path);
    bool IsOpen() const { return file_.IsOpen(); }
    // Bytes that must stay free on the volume after every write, so that
    // whatever has to end the file still fits when the disk fills up. A write
    // that would eat into them fails (and the writer with it) without
    // writing anything. 0 turns the check off.
    void SetReserve(uint64_t bytes) { reserve_ = bytes; }
    bool Failed() const { return failed_; }

    bool Write(const void* data, size_t size);
    bool WriteU8(uint8_t v) { return Write(&v, 1); }
    bool WriteU16BE(uint16_t v);
    bool WriteU32BE(uint32_t v);
    bool WriteU64BE(uint64_t v);

    uint64_t Position() const { return position_; }
    uint64_t Size() const { return end_; }
    // Overwrites bytes at an earlier position, then returns to the end.
    bool Patch(uint64_t offset, const void* data, size_t size);

    // After a failure: how many bytes reached the file. Writes are appends,
    // so every byte below this is in place.
    uint64_t BytesOnDisk() const { return file_.SizeOnDisk(); }
    // After a failure: forgets the buffered bytes, clears the failure and
    // goes on writing at `end` (at most BytesOnDisk()); Close then cuts the
    // file there, so what follows `end` now is all the file holds.
    bool RewindAfterFailure(uint64_t end);

    // Hands the buffered bytes to the system; false once the writer failed.
    bool Flush();

    // Flushes and closes; true when everything reached the file. Safe to call
    // more than once and on a writer that never opened.
    bool Close();

private:
    bool RoomFor(size_t bytes) const;

    RawFile file_;
    size_t bufferSize_;
    uint64_t reserve_ = 0;
    std::vector<uint8_t> buffer_;
    size_t used_ = 0;
    uint64_t position_ = 0;  // logical position of the next byte
    uint64_t end_ = 0;       // file size including buffered bytes
    bool failed_ = false;
    bool cutAtClose_ = false;  // rewound: bytes beyond end_ are left-overs
};

// UTF-8 form of a UTF-16 path (unpaired surrogates become U+FFFD).
std::vector<char> Utf16PathToUtf8(const KivWChar* path);

}  // namespace kiv
