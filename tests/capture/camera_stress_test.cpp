// Start, stop and destroy under load: two ports share one camera, one
// consumer sleeps at random, the other SendMessages to the window of the
// thread that stops them. A stop that takes over ten seconds aborts the run;
// no frame may arrive after its port's stop returned.
#include <objbase.h>

#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <random>

#include "camera_fixture.h"

using namespace camtest;

namespace {

struct Consumer {
    std::atomic<bool> stopped{false};
    std::atomic<uint64_t> frames{0}, late{0};  // late: frames after the stop returned
    HWND window = nullptr;                     // set for the consumer that SendMessages
    static void KIV_CALL OnFrame(const KivVideoFrame*, void* user) {
        auto* self = static_cast<Consumer*>(user);
        if (self->stopped.load()) self->late.fetch_add(1);
        self->frames.fetch_add(1);
        thread_local std::minstd_rand random(std::random_device{}());
        if (self->window) SendMessageW(self->window, WM_USER + 1, 0, 0);
        else Sleep(random() % 4);
    }
};

TEST_F(CameraTest, StartStopDestroyCyclesUnderLoadNeverHang) {
    Install(L"cap=YUY2:64:48:vih:100000:100000:100000");
    KIV_EnableLog(0);  // thousands of cycles would fill the log
    // The stopping thread owns a window and waits for work without pumping:
    // only the library's waits deliver the consumer's SendMessage.
    std::mutex mutex;
    std::condition_variable changed;
    void* toStop[2] = {};
    bool sourceFirst = false, work = false, quit = false;
    HWND window = nullptr;
    uint64_t longestStopMs = 0;
    Consumer consumers[2];  // source, client
    std::thread stopper([&] {
        CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
        HWND own = CreateWindowExW(0, L"STATIC", L"", 0, 0, 0, 0, 0, HWND_MESSAGE, nullptr, nullptr, nullptr);
        std::unique_lock<std::mutex> lock(mutex);
        window = own;
        changed.notify_all();
        for (;;) {
            changed.wait(lock, [&] { return work || quit; });
            if (quit) break;
            lock.unlock();
            for (int i : {sourceFirst ? 0 : 1, sourceFirst ? 1 : 0}) {
                const uint64_t begin = GetTickCount64();
                KIV_Stop(toStop[i]);
                consumers[i].stopped.store(true);
                longestStopMs = std::max(longestStopMs, GetTickCount64() - begin);
            }
            lock.lock();
            work = false;
            changed.notify_all();
        }
        DestroyWindow(own);
        CoUninitialize();
    });
    {
        std::unique_lock<std::mutex> lock(mutex);
        changed.wait(lock, [&] { return window != nullptr; });
        consumers[1].window = window;
    }
    std::minstd_rand random(12345);
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(75);
    int cycles = 0;
    uint64_t startFailures = 0;
    for (; cycles < 1000 && std::chrono::steady_clock::now() < end; ++cycles) {
        void* source = KIV_CreateVideoInput();
        void* client = KIV_CreateVideoInput();
        void* clientOut = KIV_CreateVideoMux();
        for (void* p : {source, client}) KIV_SetVideoInputFormat(p, 64, 48, 100, KIV_PIXEL_FORMAT_YUY2);
        KIV_SetVideoFrameCallback(source, &Consumer::OnFrame, &consumers[0]);
        KIV_SetVideoFrameCallback(clientOut, &Consumer::OnFrame, &consumers[1]);
        KIV_Connect(client, clientOut);
        for (Consumer& c : consumers) c.stopped.store(false);
        startFailures += (KIV_Start(source) != KIV_OK) + (KIV_Start(client) != KIV_OK);
        Sleep(random() % 30);
        std::unique_lock<std::mutex> lock(mutex);
        toStop[0] = source, toStop[1] = client;
        sourceFirst = random() % 2 == 0, work = true;
        changed.notify_all();
        // Both stops together get at most ten seconds.
        if (!changed.wait_for(lock, std::chrono::seconds(10), [&] { return !work; })) {
            std::fprintf(stderr, "capture stress: a stop has not returned after 10 s (cycle %d)\n", cycles);
            std::fflush(stderr);
            std::abort();
        }
        lock.unlock();
        KIV_Disconnect(client, clientOut);
        for (void* p : {clientOut, client, source}) KIV_DestroyPort(p);
    }
    {
        std::lock_guard<std::mutex> lock(mutex);
        quit = true;
    }
    changed.notify_all();
    stopper.join();
    std::printf("capture stress: %d cycles, longest stop %llu ms, start failures %llu\n", cycles,
                static_cast<unsigned long long>(longestStopMs), static_cast<unsigned long long>(startFailures));
    EXPECT_GT(cycles, 50);
    EXPECT_EQ(startFailures, 0u);
    for (Consumer& c : consumers) {
        EXPECT_EQ(c.late.load(), 0u);
        EXPECT_GT(c.frames.load(), 0u);
    }
}

}  // namespace
