// Small ports and a journal for driving the graph from tests.
#pragma once
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "ports/kiv_port_base.h"
#include "test_support.h"

namespace porttest {

using Entries = std::vector<std::string>;

// One library start-up per suite: slow under emulation on Windows.
class LibrarySuite : public ::testing::Test {
protected:
    static void SetUpTestSuite() { library_ = std::make_unique<kivtest::LibraryScope>(); }
    static void TearDownTestSuite() { library_.reset(); }

private:
    static inline std::unique_ptr<kivtest::LibraryScope> library_;
};

class TypedPort : public KivPortBase {
public:
    explicit TypedPort(int32_t type) : KivPortBase(type) {}
};

struct Journal {
    std::mutex mutex;
    Entries entries;
    void Add(const std::string& e) {
        std::lock_guard<std::mutex> lock(mutex);
        entries.push_back(e);
    }
    Entries Take() {
        std::lock_guard<std::mutex> lock(mutex);
        Entries out;
        out.swap(entries);
        return out;
    }
};

// Journals its name for every frame, keeps the last records, runs an action.
class RecordingSink : public KivPortBase {
public:
    RecordingSink(Journal* journal, std::string name, int32_t type = KIV_PORT_VIDEO_RENDER)
        : KivPortBase(type), journal_(journal), name_(std::move(name)) {}
    int32_t OnVideoFrame(const KivVideoFrame* frame) override {
        lastVideo = frame;
        journal_->Add(name_);
        if (action) action();
        return 0;
    }
    int32_t OnAudioFrame(const KivAudioFrame* frame) override {
        lastAudio = frame;
        journal_->Add(name_);
        return 0;
    }
    const KivVideoFrame* lastVideo = nullptr;
    const KivAudioFrame* lastAudio = nullptr;
    std::function<void()> action;

private:
    Journal* journal_;
    std::string name_;
};

}  // namespace porttest
