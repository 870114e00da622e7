// Several threads logging at once while another switches the log off and on:
// every line that reaches the file is whole, and a thread's lines keep their
// order. Run under the thread sanitizer too.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "kiv_log.h"
#include "kivcapture.h"
#include "log_file.h"

using namespace kivtest;

namespace {

constexpr int kThreads = 4;
constexpr int kLinesPerThread = 300;
// Writers in the switching test stop after this many lines even if the
// switching thread is slow to get the lock (the lock is not fair, and under
// Wine on a busy machine it can starve the switcher for a long time).
constexpr int kMaxSwitchingLines = 4000;

struct LogReset {
    LogReset() { Reset(); }
    ~LogReset() { Reset(); }
    static void Reset() {
        KIV_EnableLog(0);
        RemoveLog();
    }
};

// "[..][tid=N][race.cpp:T] worker T line I" -> (T, I); false for other lines.
bool ParseWorkerLine(const std::string& line, int* thread, int* index) {
    const size_t at = line.find("] worker ");
    if (at == std::string::npos) return false;
    return std::sscanf(line.c_str() + at, "] worker %d line %d\r\n", thread, index) == 2;
}

TEST(LogConcurrency, LinesStayWholeAndInOrderPerThread) {
    LogReset reset;
    ASSERT_EQ(KIV_EnableLog(1), KIV_OK);
    std::vector<std::thread> workers;
    for (int t = 0; t < kThreads; ++t) {
        workers.emplace_back([t] {
            for (int i = 0; i < kLinesPerThread; ++i) KivLogWrite("race.cpp", t, "worker %d line %d", t, i);
        });
    }
    for (std::thread& w : workers) w.join();

    std::map<int, int> next;
    int total = 0;
    for (const std::string& line : LogLines()) {
        int t = -1, i = -1;
        if (!ParseWorkerLine(line, &t, &i)) continue;
        ASSERT_GE(t, 0);
        ASSERT_LT(t, kThreads);
        EXPECT_EQ(i, next[t]) << "thread " << t;
        next[t] = i + 1;
        ++total;
    }
    EXPECT_EQ(total, kThreads * kLinesPerThread);
    // header + enabled line + the workers' lines, nothing torn
    EXPECT_EQ(LogLines().size(), static_cast<size_t>(2 + kThreads * kLinesPerThread));
}

TEST(LogConcurrency, SwitchingWhileOthersWriteKeepsLinesWhole) {
    LogReset reset;
    ASSERT_EQ(KIV_EnableLog(1), KIV_OK);
    std::atomic<bool> stop{false};
    std::vector<std::thread> workers;
    for (int t = 0; t < kThreads; ++t) {
        workers.emplace_back([t, &stop] {
            for (int i = 0; i < kMaxSwitchingLines && !stop.load(); ++i)
                KivLogWrite("race.cpp", t, "worker %d line %d", t, i);
        });
    }
    for (int round = 0; round < 50; ++round) {
        KIV_EnableLog(round % 2);
        std::this_thread::yield();
    }
    KIV_EnableLog(1);
    stop = true;
    for (std::thread& w : workers) w.join();
    KIV_EnableLog(0);

    // The file was recreated on the last enable; whatever it holds is whole.
    const std::vector<std::string> lines = LogLines();
    ASSERT_GE(lines.size(), 3u);
    EXPECT_EQ(lines[1], "[LOG] runtime logging enabled, file is recreated for this application run.\r\n");
    EXPECT_EQ(lines.back(), "[LOG] runtime logging disabled.\r\n");
    std::map<int, int> last;
    for (size_t k = 2; k + 1 < lines.size(); ++k) {
        int t = -1, i = -1;
        ASSERT_TRUE(ParseWorkerLine(lines[k], &t, &i)) << lines[k];
        if (last.count(t)) {
            EXPECT_GT(i, last[t]);
        }
        last[t] = i;
    }
}

}  // namespace
