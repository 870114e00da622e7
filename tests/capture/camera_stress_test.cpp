// Start, stop and destroy under load: two ports share one camera, one
// consumer sleeps at random, the other SendMessages to the window of the
// thread that stops them. Every stop runs under a watchdog; no frame may
// arrive after its port's stop returned.
#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <random>

#include "camera_fixture.h"

using namespace camtest;

namespace {

constexpr auto kBudget = std::chrono::seconds(75);
constexpr int kMaxCycles = 1000;
constexpr uint64_t kStopLimitMs = 10000;

struct Consumer {
    std::atomic<bool> stopped{false};
    std::atomic<uint64_t> frames{0};
    std::atomic<uint64_t> late{0};  // frames that came after the stop returned
    HWND window = nullptr;          // set for the consumer that SendMessages
    void Take() {
        if (stopped.load()) late.fetch_add(1);
        frames.fetch_add(1);
    }
    static void KIV_CALL Sleepy(const KivVideoFrame*, void* user) {
        static_cast<Consumer*>(user)->Take();
        thread_local std::minstd_rand random(std::random_device{}());
        Sleep(random() % 4);
    }
    static void KIV_CALL Sender(const KivVideoFrame*, void* user) {
        auto* self = static_cast<Consumer*>(user);
        self->Take();
        SendMessageW(self->window, WM_USER + 1, 0, 0);
    }
};

// Fails the test, loudly, when one stop takes too long.
class Watchdog {
public:
    Watchdog() : thread_([this] { Run(); }) {}
    ~Watchdog() {
        done_.store(true);
        thread_.join();
    }
    void Arm() { armedAt_.store(GetTickCount64()); }
    void Disarm() { armedAt_.store(0); }

private:
    void Run() {
        while (!done_.load()) {
            const uint64_t at = armedAt_.load();
            if (at && GetTickCount64() - at > kStopLimitMs) {
                std::fprintf(stderr, "watchdog: a stop has not returned after %llu ms\n",
                             static_cast<unsigned long long>(kStopLimitMs));
                std::fflush(stderr);
                std::abort();
            }
            Sleep(50);
        }
    }
    std::atomic<bool> done_{false};
    std::atomic<uint64_t> armedAt_{0};
    std::thread thread_;
};

TEST_F(CameraTest, StartStopDestroyCyclesUnderLoadNeverHang) {
    Install(L"cap=YUY2:64:48:vih:100000:100000:100000");
    KIV_EnableLog(0);  // thousands of cycles would fill the log

    // The stopping thread owns a window and waits for work without pumping:
    // only the library's waits deliver the consumer's SendMessage.
    std::mutex mutex;
    std::condition_variable changed;
    void* toStop[2] = {};
    bool stopSourceFirst = false;
    bool work = false, quit = false;
    HWND window = nullptr;
    uint64_t longestStopMs = 0;
    Watchdog watchdog;
    Consumer sleepy, sender;
    std::thread stopper([&] {
        CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
        HWND own = CreateWindowExW(0, L"STATIC", L"", 0, 0, 0, 0, 0, HWND_MESSAGE, nullptr, nullptr, nullptr);
        {
            std::lock_guard<std::mutex> lock(mutex);
            window = own;
        }
        changed.notify_all();
        std::unique_lock<std::mutex> lock(mutex);
        for (;;) {
            changed.wait(lock, [&] { return work || quit; });
            if (quit) break;
            lock.unlock();
            const int order[2] = {stopSourceFirst ? 0 : 1, stopSourceFirst ? 1 : 0};
            for (int i : order) {
                Consumer& consumer = i == 0 ? sleepy : sender;
                watchdog.Arm();
                const uint64_t begin = GetTickCount64();
                KIV_Stop(toStop[i]);
                consumer.stopped.store(true);
                const uint64_t took = GetTickCount64() - begin;
                watchdog.Disarm();
                longestStopMs = std::max(longestStopMs, took);
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
    }
    sender.window = window;

    std::minstd_rand random(12345);
    const auto end = std::chrono::steady_clock::now() + kBudget;
    int cycles = 0;
    uint64_t startFailures = 0;
    while (cycles < kMaxCycles && std::chrono::steady_clock::now() < end) {
        void* source = KIV_CreateVideoInput();
        void* client = KIV_CreateVideoInput();
        void* clientOut = KIV_CreateVideoMux();
        KIV_SetVideoInputFormat(source, 64, 48, 100, KIV_PIXEL_FORMAT_YUY2);
        KIV_SetVideoInputFormat(client, 64, 48, 100, KIV_PIXEL_FORMAT_YUY2);
        KIV_SetVideoFrameCallback(source, &Consumer::Sleepy, &sleepy);
        KIV_SetVideoFrameCallback(clientOut, &Consumer::Sender, &sender);
        KIV_Connect(client, clientOut);
        sleepy.stopped.store(false);
        sender.stopped.store(false);
        if (KIV_Start(source) != KIV_OK) ++startFailures;
        if (KIV_Start(client) != KIV_OK) ++startFailures;
        Sleep(random() % 30);
        {
            std::lock_guard<std::mutex> lock(mutex);
            toStop[0] = source;
            toStop[1] = client;
            stopSourceFirst = random() % 2 == 0;
            work = true;
        }
        changed.notify_all();
        {
            std::unique_lock<std::mutex> lock(mutex);
            changed.wait(lock, [&] { return !work; });
        }
        KIV_Disconnect(client, clientOut);
        KIV_DestroyPort(clientOut);
        KIV_DestroyPort(client);
        KIV_DestroyPort(source);
        ++cycles;
    }
    {
        std::lock_guard<std::mutex> lock(mutex);
        quit = true;
    }
    changed.notify_all();
    stopper.join();

    std::printf("capture stress: %d cycles, longest stop %llu ms, frames %llu + %llu, start failures %llu\n", cycles,
                static_cast<unsigned long long>(longestStopMs), static_cast<unsigned long long>(sleepy.frames.load()),
                static_cast<unsigned long long>(sender.frames.load()), static_cast<unsigned long long>(startFailures));
    EXPECT_GT(cycles, 50);
    EXPECT_EQ(sleepy.late.load(), 0u);
    EXPECT_EQ(sender.late.load(), 0u);
    EXPECT_GT(sleepy.frames.load(), 0u);
    EXPECT_GT(sender.frames.load(), 0u);
    EXPECT_EQ(startFailures, 0u);
}

}  // namespace
