#include "kiv_port_base.h"

#include <algorithm>

KivPortBase::KivPortBase(int32_t type) : type_(type) {}

KivPortBase::~KivPortBase() {
    closing_.exchange(1, std::memory_order_acq_rel);
    {
        std::lock_guard<std::mutex> lock(mutex_);
        downstream_.clear();
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
    videoCallback_.store(fn, std::memory_order_release);
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
    if (std::find(downstream_.begin(), downstream_.end(), dst) == downstream_.end()) downstream_.push_back(dst);
    return KIV_OK;
}

void KivPortBase::RemoveDownstream(KivPortBase* dst) {
    std::lock_guard<std::mutex> lock(mutex_);
    downstream_.erase(std::remove(downstream_.begin(), downstream_.end(), dst), downstream_.end());
}

size_t KivPortBase::DownstreamCount() {
    std::lock_guard<std::mutex> lock(mutex_);
    return downstream_.size();
}

size_t KivPortBase::SnapshotDownstream(KivPortBase** local, std::vector<KivPortBase*>& overflow,
                                       KivPortBase*** out) {
    std::lock_guard<std::mutex> lock(mutex_);
    const size_t n = downstream_.size();
    if (n <= kInlineSnapshot) {
        std::copy(downstream_.begin(), downstream_.end(), local);
        *out = local;
    } else {
        overflow = downstream_;  // rare: wide fan-outs pay one allocation
        *out = overflow.data();
    }
    return n;
}

void KivPortBase::EmitVideo(const KivVideoFrame* frame) {
    if (IsClosing()) return;
    if (KivVideoFrameCallback fn = videoCallback_.load(std::memory_order_acquire)) {
        fn(frame, videoCallbackUser_.load(std::memory_order_relaxed));
        if (IsClosing()) return;
    }
    KivPortBase* local[kInlineSnapshot];
    std::vector<KivPortBase*> overflow;
    KivPortBase** targets = nullptr;
    const size_t n = SnapshotDownstream(local, overflow, &targets);
    for (size_t i = 0; i < n; ++i) {
        if (targets[i]) targets[i]->OnVideoFrame(frame);
    }
}

void KivPortBase::EmitAudio(const KivAudioFrame* frame) {
    if (IsClosing()) return;
    if (KivAudioFrameCallback fn = audioCallback_.load(std::memory_order_acquire)) {
        fn(frame, audioCallbackUser_.load(std::memory_order_relaxed));
    }
    KivPortBase* local[kInlineSnapshot];
    std::vector<KivPortBase*> overflow;
    KivPortBase** targets = nullptr;
    const size_t n = SnapshotDownstream(local, overflow, &targets);
    for (size_t i = 0; i < n; ++i) {
        if (targets[i]) targets[i]->OnAudioFrame(frame);
    }
}
