#include "kiv_port_base.h"

#include <algorithm>

KivPortBase::KivPortBase(int32_t type) : type_(type) {}

KivPortBase::~KivPortBase() {
    closing_.exchange(1, std::memory_order_acq_rel);
    {
        std::lock_guard<std::mutex> lock(mutex_);
        downstream_.clear();
        wideDownstream_.reset();
    }
    videoCallback_.store(nullptr, std::memory_order_relaxed);
    videoCallbackUser_.store(nullptr, std::memory_order_relaxed);
    audioCallback_.store(nullptr, std::memory_order_relaxed);
    audioCallbackUser_.store(nullptr, std::memory_order_relaxed);
}

int32_t KivPortBase::Start() { return KIV_OK; }
int32_t KivPortBase::Stop() { return KIV_OK; }
int32_t KivPortBase::OnVideoFrame(const KivVideoFrame*) { return KIV_OK; }
int32_t KivPortBase::OnAudioFrame(const KivAudioFrame*) { return KIV_OK; }

int32_t KivPortBase::SetVideoFrameCallback(KivVideoFrameCallback fn, void* userData) {
    videoCallbackUser_.store(userData, std::memory_order_relaxed);
    videoCallback_.store(fn, std::memory_order_release);  // publishes the user pointer with it
    return KIV_OK;
}

int32_t KivPortBase::SetAudioFrameCallback(KivAudioFrameCallback fn, void* userData) {
    audioCallbackUser_.store(userData, std::memory_order_relaxed);
    audioCallback_.store(fn, std::memory_order_release);
    return KIV_OK;
}

int32_t KivPortBase::AddDownstream(KivPortBase* dst) {
    if (!dst) return KIV_ERROR_INVALID_ARG;
    std::lock_guard<std::mutex> lock(mutex_);
    if (IsClosing()) return KIV_ERROR_FAILED;
    if (std::find(downstream_.begin(), downstream_.end(), dst) == downstream_.end()) {
        downstream_.push_back(dst);
        RebuildWideSnapshotLocked();
    }
    return KIV_OK;
}

void KivPortBase::RemoveDownstream(KivPortBase* dst) {
    std::lock_guard<std::mutex> lock(mutex_);
    downstream_.erase(std::remove(downstream_.begin(), downstream_.end(), dst), downstream_.end());
    RebuildWideSnapshotLocked();
}

size_t KivPortBase::DownstreamCount() {
    std::lock_guard<std::mutex> lock(mutex_);
    return downstream_.size();
}

void KivPortBase::RebuildWideSnapshotLocked() {
    if (downstream_.size() > kInlineSnapshot) {
        wideDownstream_ = std::make_shared<const std::vector<KivPortBase*>>(downstream_);
    } else {
        wideDownstream_.reset();
    }
}

void KivPortBase::TakeSnapshot(Snapshot& out) {
    std::lock_guard<std::mutex> lock(mutex_);
    out.count = downstream_.size();
    if (out.count <= kInlineSnapshot) {
        std::copy(downstream_.begin(), downstream_.end(), out.inlineTargets);
        out.targets = out.inlineTargets;
    } else {
        out.wide = wideDownstream_;  // shares the list; emits in flight keep it alive
        out.targets = out.wide->data();
    }
}

void KivPortBase::EmitVideo(const KivVideoFrame* frame) {
    if (IsClosing()) return;
    if (KivVideoFrameCallback fn = videoCallback_.load(std::memory_order_acquire)) {
        fn(frame, videoCallbackUser_.load(std::memory_order_relaxed));
    }
    if (IsClosing()) return;  // the callback may have started tearing the port down
    Snapshot snapshot;
    TakeSnapshot(snapshot);
    for (size_t i = 0; i < snapshot.count; ++i) {
        if (KivPortBase* target = snapshot.targets[i]) target->OnVideoFrame(frame);
    }
}

void KivPortBase::VisitDownstream(void (*visit)(KivPortBase* target, void* context), void* context) {
    Snapshot snapshot;
    TakeSnapshot(snapshot);
    for (size_t i = 0; i < snapshot.count; ++i) {
        if (KivPortBase* target = snapshot.targets[i]) visit(target, context);
    }
}

// Same road as video, without the second closing check after the callback.
void KivPortBase::EmitAudio(const KivAudioFrame* frame) {
    if (IsClosing()) return;
    if (KivAudioFrameCallback fn = audioCallback_.load(std::memory_order_acquire)) {
        fn(frame, audioCallbackUser_.load(std::memory_order_relaxed));
    }
    Snapshot snapshot;
    TakeSnapshot(snapshot);
    for (size_t i = 0; i < snapshot.count; ++i) {
        if (KivPortBase* target = snapshot.targets[i]) target->OnAudioFrame(frame);
    }
}
