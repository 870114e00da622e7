// Threads and waits of the capture path. A stopping thread may be the
// application's UI thread while a dispatch thread is blocked in a SendMessage
// to it, so every wait here delivers sent (never posted) messages.
#pragma once
#include <cstdint>

namespace kiv::capture {

enum class WaitResult { kDone, kTimeout, kSentMessage, kFailed };

// Waits up to timeoutMs with no handle, delivering sent messages.
WaitResult PumpedSleep(uint32_t timeoutMs);

// Milliseconds of the steady clock.
uint64_t TickMs();

// The dispatch thread of a capture source.
class CaptureThread {
public:
    using Entry = void (*)(void* context);

    CaptureThread();
    ~CaptureThread();
    CaptureThread(const CaptureThread&) = delete;
    CaptureThread& operator=(const CaptureThread&) = delete;

    bool Start(Entry entry, void* context);
    bool Joinable() const;
    bool HandleValid() const;
    unsigned long Id() const;
    // Waits up to timeoutMs for the thread's end, delivering sent messages.
    WaitResult WaitPumped(uint32_t timeoutMs);
    // Blocks until the thread has ended and forgets it.
    void Join();

private:
    struct State;
    State* state_;
};

}  // namespace kiv::capture
