// Waits that deliver cross-thread sent messages: MsgWaitForMultipleObjectsEx
// wakes for them and PeekMessageW without removal dispatches them, while
// posted messages stay queued for the caller's own message loop.
#include <windows.h>
#include <objbase.h>
#include <process.h>

#include "capture_wait.h"

namespace kiv::capture {

namespace {

WaitResult MsgWait(HANDLE handle, uint32_t timeoutMs) {
    const DWORD count = handle ? 1 : 0;
    const DWORD r = MsgWaitForMultipleObjectsEx(count, handle ? &handle : nullptr, timeoutMs, QS_SENDMESSAGE,
                                                MWMO_INPUTAVAILABLE);
    if (handle && r == WAIT_OBJECT_0) return WaitResult::kDone;
    if (r == WAIT_OBJECT_0 + count) {
        MSG msg;
        PeekMessageW(&msg, nullptr, 0, 0, PM_NOREMOVE | PM_QS_SENDMESSAGE);
        return WaitResult::kSentMessage;
    }
    if (r == WAIT_TIMEOUT) return WaitResult::kTimeout;
    return WaitResult::kFailed;
}

struct Trampoline {
    CaptureThread::Entry entry;
    void* context;
};

unsigned __stdcall ThreadMain(void* arg) {
    Trampoline t = *static_cast<Trampoline*>(arg);
    delete static_cast<Trampoline*>(arg);
    // The library's own threads bring their own COM apartment.
    const HRESULT com = CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    t.entry(t.context);
    if (SUCCEEDED(com)) CoUninitialize();
    return 0;
}

}  // namespace

struct CaptureThread::State {
    HANDLE handle = nullptr;
    unsigned id = 0;
};

WaitResult PumpedSleep(uint32_t timeoutMs) { return MsgWait(nullptr, timeoutMs); }

uint64_t TickMs() { return GetTickCount64(); }

CaptureThread::CaptureThread() : state_(new State) {}

CaptureThread::~CaptureThread() {
    Join();
    delete state_;
}

bool CaptureThread::Start(Entry entry, void* context) {
    if (state_->handle) return false;
    Trampoline* t = new Trampoline{entry, context};
    const uintptr_t h = _beginthreadex(nullptr, 0, &ThreadMain, t, 0, &state_->id);
    if (!h) {
        delete t;
        state_->id = 0;
        return false;
    }
    state_->handle = reinterpret_cast<HANDLE>(h);
    return true;
}

bool CaptureThread::Joinable() const { return state_->handle != nullptr; }
bool CaptureThread::HandleValid() const {
    return state_->handle != nullptr && state_->handle != INVALID_HANDLE_VALUE;
}
unsigned long CaptureThread::Id() const { return state_->handle ? state_->id : 0; }

WaitResult CaptureThread::WaitPumped(uint32_t timeoutMs) { return MsgWait(state_->handle, timeoutMs); }

void CaptureThread::Join() {
    if (!state_->handle) return;
    WaitForSingleObject(state_->handle, INFINITE);
    CloseHandle(state_->handle);
    state_->handle = nullptr;
    state_->id = 0;
}

}  // namespace kiv::capture
