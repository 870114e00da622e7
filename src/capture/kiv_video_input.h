// The video capture port. The first port that starts on a device becomes its
// source and owns the device's capture graph; later ports on the same device
// become shared clients fed through a client slot. Captured buffers are
// copied into a short queue and delivered by one dispatch thread per source,
// so slow consumers cost frames, never capture stalls.
#pragma once
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "capture_frame_queue.h"
#include "capture_graph.h"
#include "capture_wait.h"
#include "ports/kiv_port_base.h"

class KivVideoInput : public KivPortBase, private kiv::capture::SampleSink {
public:
    // What a source keeps per shared client. Shared-owned, so that a slot
    // being closed stays valid for a delivery still in flight.
    struct SharedClientSlot {
        std::mutex mutex;
        KivVideoInput* client = nullptr;  // cleared when the slot closes
        bool closed = false;
        std::atomic<uint32_t> inFlight{0};
    };

    KivVideoInput();
    ~KivVideoInput() override;

    int32_t Start() override;
    int32_t Stop() override;
    int32_t SetVideoFrameCallback(KivVideoFrameCallback fn, void* userData) override;

    int32_t SetDevice(int32_t index);
    int32_t SetFormat(int32_t width, int32_t height, int32_t fps, int32_t format);
    int32_t SetConfig(const KivVideoInputConfig* config);

    // Sample intake, on the capture graph's thread.
    void OnCapturedBuffer(const uint8_t* data, long length) override;

    // Frames waiting for the dispatch thread.
    size_t QueuedFrames() { return queue_.Size(); }

private:
    using Slot = std::shared_ptr<SharedClientSlot>;
    enum class StopOutcome { kStopped, kRejected };

    // Graph lifetime (kiv_video_input_graph.cpp).
    int32_t OpenGraph();  // requires graphLock_
    StopOutcome StopDirectShow();  // requires graphLock_ unless on the dispatch thread
    bool WaitDispatchThread();
    void WaitCaptureCallbacks();

    // Dispatch (kiv_video_input_dispatch.cpp).
    static void DispatchMain(void* self);
    void DispatchLoop();
    void DeliverDownstream(const KivVideoFrame* frame, KivVideoInput* diagnostics);
    void DeliverToClients(const KivVideoFrame* frame);

    // Shared sources (kiv_video_input_shared.cpp).
    int32_t AttachAsClient();
    void CheckSharedRequests();
    int32_t StopSharedClient();
    Slot RegisterSlotLocked(KivVideoInput* client);
    void WaitSlotIdle(SharedClientSlot& slot, const char* reason, KivVideoInput* source);
    void RegisterOwnRequest();
    void RemoveOwnRequest();

    // Settings, written by application threads.
    std::atomic<int32_t> device_{0};
    std::atomic<int32_t> reqWidth_{0}, reqHeight_{0}, reqFps_{0}, reqFormat_{0};
    std::atomic<int32_t> colorSpace_{0}, colorRange_{0}, bufferCount_{4};

    // Graph state, under graphLock_.
    std::mutex graphLock_;
    std::unique_ptr<kiv::capture::CaptureGraph> graph_;
    kiv::capture::CaptureThread dispatchThread_;
    std::atomic<int32_t> actWidth_{0}, actHeight_{0}, actFps_{0}, actFormat_{0};
    std::atomic<bool> running_{false};

    // Per-frame state, under captureLock_.
    std::mutex captureLock_;
    int32_t connWidth_ = 0, connHeight_ = 0, connFormat_ = 0;
    bool bottomUp_ = false;
    uint64_t frameCounter_ = 0;
    KivVideoFrameCallback callback_ = nullptr;
    void* callbackUser_ = nullptr;

    kiv::capture::FrameQueue queue_;

    // Shared-source state. slots_ is the source's list of clients; the
    // remaining fields describe this port as a client.
    std::mutex slotsLock_;
    std::vector<Slot> slots_;
    std::vector<Slot> dispatchSlots_;  // the dispatch thread's copy, reused
    std::atomic<bool> sharedClient_{false};
    KivVideoInput* sharedSource_ = nullptr;  // under graphLock_
    Slot slot_;                              // under graphLock_

    // Diagnostics read by a stopping thread without taking locks.
    std::atomic<uint32_t> callbacksInFlight_{0};
    std::atomic<unsigned long> callbackTid_{0};
    std::atomic<uint64_t> callbackTick_{0};
    std::atomic<int32_t> dispatchStage_{0};
    std::atomic<unsigned long> dispatchTid_{0};
    std::atomic<uint64_t> dispatchTick_{0};
    std::atomic<KivPortBase*> dispatchTarget_{nullptr};
    std::atomic<int32_t> dispatchTargetType_{0};
};
