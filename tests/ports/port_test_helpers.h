// Small ports for driving the graph from tests.
#pragma once
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "ports/kiv_port_base.h"
#include "test_support.h"

namespace porttest {

// One library start-up for a whole suite: on Windows it starts COM and Media
// Foundation and enumerates devices, which is slow under emulation.
class LibrarySuite : public ::testing::Test {
protected:
    static void SetUpTestSuite() { library_ = std::make_unique<kivtest::LibraryScope>(); }
    static void TearDownTestSuite() { library_.reset(); }

private:
    static inline std::unique_ptr<kivtest::LibraryScope> library_;
};

// A port of any type value, with the base behaviour.
class TypedPort : public KivPortBase {
public:
    explicit TypedPort(int32_t type) : KivPortBase(type) {}
};

// Appends "<name>" to a shared journal for every frame it receives.
class Journal {
public:
    void Add(const std::string& entry) {
        std::lock_guard<std::mutex> lock(mutex_);
        entries_.push_back(entry);
    }
    std::vector<std::string> Take() {
        std::lock_guard<std::mutex> lock(mutex_);
        std::vector<std::string> out;
        out.swap(entries_);
        return out;
    }

private:
    std::mutex mutex_;
    std::vector<std::string> entries_;
};

class RecordingSink : public KivPortBase {
public:
    RecordingSink(Journal* journal, std::string name, int32_t type = KIV_PORT_VIDEO_RENDER)
        : KivPortBase(type), journal_(journal), name_(std::move(name)) {}
    int32_t OnVideoFrame(const KivVideoFrame* frame) override {
        lastVideo = frame;
        if (journal_) journal_->Add(name_);
        return 0;
    }
    int32_t OnAudioFrame(const KivAudioFrame* frame) override {
        lastAudio = frame;
        if (journal_) journal_->Add(name_);
        return 0;
    }
    const KivVideoFrame* lastVideo = nullptr;
    const KivAudioFrame* lastAudio = nullptr;

private:
    Journal* journal_;
    std::string name_;
};

// Counts frames; safe to share between threads.
class CountingSink : public KivPortBase {
public:
    explicit CountingSink(int32_t type = KIV_PORT_VIDEO_RENDER) : KivPortBase(type) {}
    int32_t OnVideoFrame(const KivVideoFrame*) override {
        video.fetch_add(1, std::memory_order_relaxed);
        return 0;
    }
    int32_t OnAudioFrame(const KivAudioFrame*) override {
        audio.fetch_add(1, std::memory_order_relaxed);
        return 0;
    }
    std::atomic<int> video{0};
    std::atomic<int> audio{0};
};


// A pass-through filter: emits every video frame it receives.
class ForwardingPort : public KivPortBase {
public:
    explicit ForwardingPort(int32_t type = KIV_PORT_VIDEO_CROP) : KivPortBase(type) {}
    int32_t OnVideoFrame(const KivVideoFrame* frame) override {
        EmitVideo(frame);
        return 0;
    }
};

}  // namespace porttest
