#include "test_support.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "../../src/core/kiv_platform.h"
#include "../../src/core/kiv_state.h"
#include "../../src/ports/kiv_frame.h"

namespace kivtest {

LibraryScope::LibraryScope() { EXPECT_EQ(KIV_Init(), KIV_OK); }

OwnedFrame::OwnedFrame(int32_t format, int32_t width, int32_t height, uint8_t fill) {
    frame.format = format, frame.width = width, frame.height = height;
    const int64_t need = kiv::RequiredFrameBytes(format, width, height);
    bytes.assign(static_cast<size_t>(need > 0 ? need : 1), fill);
    kiv::FillPackedLayout(&frame, bytes.data());
}

KivVideoFrame FrameOver(int32_t format, int32_t width, int32_t height, const uint8_t* plane0, int32_t stride0,
                        const uint8_t* plane1, int32_t stride1) {
    KivVideoFrame f{};
    f.format = format, f.width = width, f.height = height;
    f.planes[0] = const_cast<uint8_t*>(plane0), f.planes[1] = const_cast<uint8_t*>(plane1);  // ports only read them
    f.strides[0] = stride0, f.strides[1] = stride1;
    return f;
}

void KIV_CALL FrameCatcher::OnFrame(const KivVideoFrame* f, void* user) {
    CaughtFrame c{*f, f, {}, {}};
    const size_t stride0 = f->strides[0] > 0 ? size_t(f->strides[0]) : 0, rows = f->height > 0 ? size_t(f->height) : 0;
    if (f->planes[0]) c.plane0.assign(f->planes[0], f->planes[0] + stride0 * (kiv::IsUncompressed(f->format) ? rows : 1));
    if (f->format == KIV_PIXEL_FORMAT_NV12 && f->planes[1] && f->strides[1] > 0)
        c.plane1.assign(f->planes[1], f->planes[1] + size_t(f->strides[1]) * ((rows + 1) / 2));
    auto* self = static_cast<FrameCatcher*>(user);
    std::lock_guard<std::mutex> lock(self->mutex_);
    self->frames.push_back(std::move(c));
}

std::basic_string<KivWChar> Wide(const std::string& text) {
    std::basic_string<KivWChar> out;
    for (size_t i = 0; i < text.size();) {
        const unsigned char c = static_cast<unsigned char>(text[i++]);
        const int extra = c >= 0xF0 ? 3 : c >= 0xE0 ? 2 : c >= 0xC0 ? 1 : 0;
        uint32_t cp = extra ? c & (0x3F >> extra) : c;
        for (int k = 0; k < extra && i < text.size(); ++k, ++i) cp = (cp << 6) | (static_cast<unsigned char>(text[i]) & 0x3F);
        if (cp < 0x10000) out.push_back(KivWChar(cp));
        else out.insert(out.end(), {KivWChar(0xD800 + ((cp - 0x10000) >> 10)), KivWChar(0xDC00 + (cp & 0x3FF))});
    }
    return out;
}

std::string ReadFile(const std::string& path) {
    std::ostringstream ss;
    ss << std::ifstream(std::filesystem::u8path(path), std::ios::binary).rdbuf();
    return ss.str();
}

bool WriteFile(const std::string& path, const std::string& bytes) {
    std::ofstream out(std::filesystem::u8path(path), std::ios::binary);
    return bool(out << bytes);
}

std::string LibraryLog() { return ReadFile(kiv::LogFilePath()); }

bool ParseLogMessage(const std::string& raw, LogMessage* out) {
    unsigned h, mi, se, ms;
    unsigned long tid;
    int at = -1;  // where file:line starts
    if (std::sscanf(raw.c_str(), "[%2u:%2u:%2u.%3u][tid=%lu][%n", &h, &mi, &se, &ms, &tid, &at) != 5 || at < 0) return false;
    const size_t close = raw.find("] ", size_t(at));
    if (close == std::string::npos || raw.size() < close + 4 || raw.compare(raw.size() - 2, 2, "\r\n") != 0) return false;
    const std::string fileAndLine = raw.substr(size_t(at), close - size_t(at));
    const size_t colon = fileAndLine.rfind(':');
    if (colon == std::string::npos) return false;
    *out = {tid, fileAndLine.substr(0, colon), std::atoi(fileAndLine.c_str() + colon + 1), raw.substr(close + 2, raw.size() - close - 4)};
    char again[256];
    std::snprintf(again, sizeof(again), "[%02u:%02u:%02u.%03u][tid=%lu][%s:%d] ", h, mi, se, ms, tid, out->file.c_str(), out->line);
    return raw.compare(0, close + 2, again) == 0 && h <= 23 && mi <= 59 && se <= 60 && ms <= 999;
}

std::vector<LogMessage> LogMessages(const std::string& log) {
    std::vector<LogMessage> out;
    for (size_t start = 0, end = 0; start < log.size(); start = end == std::string::npos ? log.size() : end + 2) {
        end = log.find("\r\n", start);
        LogMessage m;
        if (ParseLogMessage(log.substr(start, end == std::string::npos ? std::string::npos : end + 2 - start), &m))
            out.push_back(m);
    }
    return out;
}

size_t CountOf(const std::string& text, const std::string& what) {
    size_t count = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++count;
    return count;
}

namespace {

// Removes TempDir's folders once their test (outside a test: the program) passed; a failure keeps them.
class TempDirCleaner : public ::testing::EmptyTestEventListener {
public:
    static TempDirCleaner& Instance() {
        static TempDirCleaner* cleaner = [] {
            auto* c = new TempDirCleaner;
            ::testing::UnitTest::GetInstance()->listeners().Append(c);  // gtest owns it from here
            return c;
        }();
        return *cleaner;
    }
    void Add(const std::filesystem::path& dir) {
        std::lock_guard<std::mutex> lock(mutex_);
        (::testing::UnitTest::GetInstance()->current_test_info() ? testDirs_ : programDirs_).push_back(dir);
    }
    void OnTestEnd(const ::testing::TestInfo& info) override { Finish(&testDirs_, !info.result()->Failed()); }
    void OnTestProgramEnd(const ::testing::UnitTest& unit) override { Finish(&programDirs_, unit.Passed()); }

private:
    void Finish(std::vector<std::filesystem::path>* dirs, bool passed) {
        std::lock_guard<std::mutex> lock(mutex_);
        std::error_code ec;
        for (const auto& dir : *dirs) {
            if (passed) std::filesystem::remove_all(dir, ec);
            else std::printf("test files kept in %s\n", dir.u8string().c_str());
        }
        dirs->clear();
    }
    std::mutex mutex_;
    std::vector<std::filesystem::path> testDirs_, programDirs_;
};

}  // namespace

std::string TempDir(const std::string& name) {
    const auto dir = std::filesystem::temp_directory_path() / ("kivtest_" + name + "_" + std::to_string(kiv::platform::CurrentProcessId()));
    std::error_code ec;
    std::filesystem::remove_all(dir, ec);
    std::filesystem::create_directories(dir, ec);
    TempDirCleaner::Instance().Add(dir);
    return dir.u8string();
}

}  // namespace kivtest
