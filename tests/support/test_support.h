// Helpers shared by the test suites.
#pragma once
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "kivcapture.h"

namespace kivtest {

// Initialises the library for the duration of a test.
struct LibraryScope { LibraryScope(); ~LibraryScope() { KIV_Shutdown(); } };

// A tightly packed frame over an owned buffer.
struct OwnedFrame {
    std::vector<uint8_t> bytes;
    KivVideoFrame frame{};
    OwnedFrame(int32_t format, int32_t width, int32_t height, uint8_t fill = 0);
};

// A frame record over the caller's bytes (compressed: stride0 is the payload length).
KivVideoFrame FrameOver(int32_t format, int32_t width, int32_t height, const uint8_t* plane0, int32_t stride0,
                        const uint8_t* plane1 = nullptr, int32_t stride1 = 0);

// A frame handed to a callback: the record, where it was, and copies of the planes (height rows of
// strides[0] bytes, NV12 chroma rows; compressed: strides[0] payload bytes).
struct CaughtFrame { KivVideoFrame meta{}; const KivVideoFrame* record = nullptr; std::vector<uint8_t> plane0, plane1; };

// Keeps every frame a port hands to its video callback.
class FrameCatcher {
public:
    FrameCatcher() = default;
    explicit FrameCatcher(void* port) { KIV_SetVideoFrameCallback(port, &FrameCatcher::OnFrame, this); }
    static void KIV_CALL OnFrame(const KivVideoFrame* frame, void* user);
    size_t Count() { return std::lock_guard<std::mutex>(mutex_), frames.size(); }  // under the lock
    std::vector<CaughtFrame> frames;

private:
    std::mutex mutex_;
};

// UTF-16 copy of a UTF-8 string for the wide-character interfaces.
std::basic_string<KivWChar> Wide(const std::string& text);

// Whole files, UTF-8 paths: empty when unreadable; false when not written.
std::string ReadFile(const std::string& path);
bool WriteFile(const std::string& path, const std::string& bytes);

// The library's log file, read whole; empty when logging never started.
std::string LibraryLog();

// A message line of the library log: "[hh:mm:ss.mmm][tid=N][file:line] text\r\n".
struct LogMessage { unsigned long tid = 0; std::string file; int line = 0; std::string text; };
// Parses one line with its "\r\n"; matches only if writing it again in the log's format gives the same bytes.
bool ParseLogMessage(const std::string& raw, LogMessage* out);
// The message lines of a log text in order; header and service lines skipped.
std::vector<LogMessage> LogMessages(const std::string& log);

// How many times `what` occurs in `text` (overlapping matches count).
size_t CountOf(const std::string& text, const std::string& what);

// A fresh folder under the system temp folder (the process id keeps concurrent runs apart), removed when the test
// that made it passes (outside a test: when the program passes); a failing test keeps it and prints where.
std::string TempDir(const std::string& name);

}  // namespace kivtest
