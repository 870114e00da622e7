// Without a window system there are no sent messages: waits are plain waits.
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "capture_wait.h"
#include "kiv_platform.h"

namespace kiv::capture {

struct CaptureThread::State {
    std::thread thread;
    std::mutex mutex;
    std::condition_variable ended;
    bool done = false;
    unsigned long id = 0;
    Entry entry = nullptr;
    void* context = nullptr;
};

WaitResult PumpedSleep(uint32_t timeoutMs) {
    std::this_thread::sleep_for(std::chrono::milliseconds(timeoutMs));
    return WaitResult::kTimeout;
}

uint64_t TickMs() { return static_cast<uint64_t>(platform::SteadyNow100ns() / 10000); }

CaptureThread::CaptureThread() : state_(new State) {}

CaptureThread::~CaptureThread() {
    if (state_->thread.joinable()) state_->thread.join();
    delete state_;
}

bool CaptureThread::Start(Entry entry, void* context) {
    if (state_->thread.joinable()) return false;
    State* s = state_;
    s->done = false;
    s->entry = entry;
    s->context = context;
    s->id = 0;
    s->thread = std::thread([s] {
        {
            std::lock_guard<std::mutex> lock(s->mutex);
            s->id = platform::CurrentThreadId();
        }
        s->ended.notify_all();
        s->entry(s->context);
        std::lock_guard<std::mutex> lock(s->mutex);
        s->done = true;
        s->ended.notify_all();
    });
    // The id is published before Start returns, so a stop can recognise it.
    std::unique_lock<std::mutex> lock(s->mutex);
    s->ended.wait(lock, [s] { return s->id != 0; });
    return true;
}

bool CaptureThread::Joinable() const { return state_->thread.joinable(); }
bool CaptureThread::HandleValid() const { return state_->thread.joinable(); }

unsigned long CaptureThread::Id() const {
    std::lock_guard<std::mutex> lock(state_->mutex);
    return state_->thread.joinable() ? state_->id : 0;
}

WaitResult CaptureThread::WaitPumped(uint32_t timeoutMs) {
    std::unique_lock<std::mutex> lock(state_->mutex);
    return state_->ended.wait_for(lock, std::chrono::milliseconds(timeoutMs), [this] { return state_->done; })
               ? WaitResult::kDone
               : WaitResult::kTimeout;
}

void CaptureThread::Join() {
    if (state_->thread.joinable()) state_->thread.join();
}

}  // namespace kiv::capture
