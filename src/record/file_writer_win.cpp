#include <windows.h>

#include "file_writer.h"

namespace kiv {

bool RawFile::Create(const KivWChar* path) {
    Close();
    HANDLE file = ::CreateFileW(reinterpret_cast<const wchar_t*>(path), GENERIC_WRITE, FILE_SHARE_READ, nullptr,
                                CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL | FILE_FLAG_SEQUENTIAL_SCAN, nullptr);
    if (file == INVALID_HANDLE_VALUE) return false;
    handle_ = file;
    // The folder part of the path, kept for the free-space query.
    folder_.clear();
    size_t cut = 0;
    for (size_t i = 0; path[i] != 0; ++i) {
        if (path[i] == L'\\' || path[i] == L'/') cut = i + 1;
    }
    folder_.assign(path, path + cut);
    folder_.push_back(0);
    return true;
}

bool RawFile::WriteAll(const uint8_t* data, size_t size) {
    if (!handle_) return false;
    while (size > 0) {
        const DWORD chunk = size > 0x40000000u ? 0x40000000u : DWORD(size);
        DWORD written = 0;
        if (!::WriteFile(static_cast<HANDLE>(handle_), data, chunk, &written, nullptr) || written == 0) return false;
        data += written;
        size -= written;
    }
    return true;
}

bool RawFile::SeekTo(uint64_t offset) {
    if (!handle_) return false;
    LARGE_INTEGER to;
    to.QuadPart = LONGLONG(offset);
    return ::SetFilePointerEx(static_cast<HANDLE>(handle_), to, nullptr, FILE_BEGIN) != FALSE;
}

uint64_t RawFile::SizeOnDisk() const {
    LARGE_INTEGER size;
    if (!handle_ || !::GetFileSizeEx(static_cast<HANDLE>(handle_), &size) || size.QuadPart < 0) return 0;
    return uint64_t(size.QuadPart);
}

bool RawFile::Truncate(uint64_t size) {
    return SeekTo(size) && ::SetEndOfFile(static_cast<HANDLE>(handle_)) != FALSE;
}

uint64_t RawFile::FreeSpace() const {
    ULARGE_INTEGER available;
    const wchar_t* folder = folder_.size() > 1 ? reinterpret_cast<const wchar_t*>(folder_.data()) : nullptr;
    if (!handle_ || !::GetDiskFreeSpaceExW(folder, &available, nullptr, nullptr)) return UINT64_MAX;
    return uint64_t(available.QuadPart);
}

bool RawFile::Close() {
    if (!handle_) return true;
    const BOOL ok = ::CloseHandle(static_cast<HANDLE>(handle_));
    handle_ = nullptr;
    return ok != FALSE;
}

}  // namespace kiv
