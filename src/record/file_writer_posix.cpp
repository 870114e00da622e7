#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

#include "file_writer.h"

namespace kiv {

namespace {
int Fd(void* handle) { return int(reinterpret_cast<intptr_t>(handle)) - 1; }
}  // namespace

bool RawFile::Create(const KivWChar* path) {
    Close();
    const std::vector<char> utf8 = Utf16PathToUtf8(path);
    const int fd = ::open(utf8.data(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) return false;
    handle_ = reinterpret_cast<void*>(intptr_t(fd) + 1);  // +1 keeps fd 0 distinct from "closed"
    return true;
}

bool RawFile::WriteAll(const uint8_t* data, size_t size) {
    if (!handle_) return false;
    while (size > 0) {
        const ssize_t n = ::write(Fd(handle_), data, size);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        data += n;
        size -= size_t(n);
    }
    return true;
}

bool RawFile::SeekTo(uint64_t offset) {
    if (!handle_ || offset > uint64_t(INT64_MAX)) return false;
    return ::lseek(Fd(handle_), off_t(offset), SEEK_SET) == off_t(offset);
}

uint64_t RawFile::SizeOnDisk() const {
    struct stat st {};
    if (!handle_ || ::fstat(Fd(handle_), &st) != 0 || st.st_size < 0) return 0;
    return uint64_t(st.st_size);
}

bool RawFile::Truncate(uint64_t size) {
    if (!handle_ || size > uint64_t(INT64_MAX)) return false;
    return ::ftruncate(Fd(handle_), off_t(size)) == 0 && SeekTo(size);
}

uint64_t RawFile::FreeSpace() const {
    struct statvfs fs {};
    if (!handle_ || ::fstatvfs(Fd(handle_), &fs) != 0) return UINT64_MAX;
    return uint64_t(fs.f_bavail) * uint64_t(fs.f_frsize);
}

bool RawFile::Close() {
    if (!handle_) return true;
    const int rc = ::close(Fd(handle_));
    handle_ = nullptr;
    return rc == 0;
}

}  // namespace kiv
