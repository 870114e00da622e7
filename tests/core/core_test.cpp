// Library start-up and shutdown through the exported functions, and the
// runtime log beside the executable: header, line format, truncation,
// appending, and lines staying whole while threads log and switch it.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <ctime>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <map>
#include <thread>

#include "kiv_log.h"
#include "kiv_platform.h"
#include "kivcapture.h"
#include "ports/kiv_port_base.h"
#include "test_support.h"

#ifdef _WIN32
#include <process.h>
#define getpid _getpid
#else
#include <unistd.h>
#endif

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;

namespace {

const int32_t kModeAtLoad = KIV_GetDefaultPipelineMode();  // read before any test changes it
const std::string kEnabled = "[LOG] runtime logging enabled, file is recreated for this application run.\r\n";
const std::string kDisabled = "[LOG] runtime logging disabled.\r\n";
const std::string kClosed = "==== kivcapture log closed ====\r\n";

// "kivcapture.log" beside this executable, worked out from argv[0].
std::string LogPath() {
    const auto argv = ::testing::internal::GetArgvs();
    return (fs::absolute(fs::path(argv.empty() ? std::string() : argv[0])).parent_path() / "kivcapture.log").string();
}
std::string ReadLog() { return kivtest::ReadFile(LogPath()); }
int CountInLog(const std::string& text) { return int(kivtest::CountOf(ReadLog(), text)); }
Lines LogLines() {  // each line keeps its "\r\n"
    const std::string text = ReadLog();
    Lines lines;
    for (size_t start = 0, end; start < text.size(); start = end) {
        end = text.find("\r\n", start);
        end = end == std::string::npos ? text.size() : end + 2;
        lines.push_back(text.substr(start, end - start));
    }
    return lines;
}
bool HasMessage(const std::string& text) {
    for (const kivtest::LogMessage& m : kivtest::LogMessages(ReadLog()))
        if (m.text == text) return true;
    return false;
}
// The header read back and written again: matches only if both spellings agree byte for byte.
bool IsHeader(const std::string& raw, unsigned long* pid = nullptr, std::tm* date = nullptr) {
    unsigned y, mo, d, h, mi, se;
    unsigned long p;
    if (std::sscanf(raw.c_str(), "==== kivcapture log started %4u-%2u-%2u %2u:%2u:%2u pid=%lu ====", &y, &mo, &d, &h,
                    &mi, &se, &p) != 7)
        return false;
    char again[128];
    std::snprintf(again, sizeof(again), "==== kivcapture log started %04u-%02u-%02u %02u:%02u:%02u pid=%lu ====\r\n",
                  y, mo, d, h, mi, se, p);
    if (pid) *pid = p;
    if (date) date->tm_year = int(y) - 1900, date->tm_mon = int(mo) - 1, date->tm_mday = int(d);
    return raw == again && y >= 2020 && mo >= 1 && mo <= 12 && d >= 1 && d <= 31 && h <= 23 && mi <= 59 && se <= 60;
}

class Core : public ::testing::Test {
protected:
    void SetUp() override { Reset(); }
    void TearDown() override { Reset(); }
    static void Reset() {
        KIV_EnableLog(0);
        KIV_Shutdown();
        KIV_SetDefaultPipelineMode(0);
        std::error_code ec;
        fs::remove_all(LogPath(), ec);
    }
};

using CreateFn = void*(KIV_CALL*)();
void* KIV_CALL RecorderWithoutText() { return KIV_CreateRecorder(nullptr); }
void* KIV_CALL RecorderWithText() { return KIV_CreateRecorder("kivcapture"); }
const std::pair<CreateFn, int32_t> kCreators[] = {
    {KIV_CreateVideoFrameSource, KIV_PORT_VIDEO_FRAME_SOURCE}, {KIV_CreateVideoMux, KIV_PORT_VIDEO_MUX},
    {KIV_CreateAudioMux, KIV_PORT_AUDIO_MUX}, {KIV_CreateVideoOsd, KIV_PORT_VIDEO_OSD},
    {KIV_CreateVideoCrop, KIV_PORT_VIDEO_CROP}, {KIV_CreateVideoColorEngine, KIV_PORT_VIDEO_COLOR_ENGINE},
    {RecorderWithoutText, KIV_PORT_RECORDER}, {RecorderWithText, KIV_PORT_RECORDER}};

// Rejected queries leave the record alone; listed devices are the Windows tests' business.
template <class Count, class Info>
void CheckDeviceList(Count count, Info info) {
    const int32_t n = count();
    KivDeviceInfo out;
    std::memset(&out, 0x5A, sizeof(out));
    EXPECT_EQ(std::vector<int>({info(0, nullptr), info(-1, &out), info(n, &out)}), std::vector<int>(3, KIV_ERROR_INVALID_ARG));
    EXPECT_EQ(out.index, 0x5A5A5A5A);
#ifndef _WIN32
    EXPECT_EQ(n, 0);  // no platform layer, no devices
#endif
}

}  // namespace

TEST_F(Core, VersionPipelineModeAndWhatNeedsInit) {
    KivVersionInfo v{};
    EXPECT_EQ(KIV_GetVersionEx(&v), &v);
    EXPECT_EQ(std::to_string(v.major) + "." + std::to_string(v.minor) + "." + std::to_string(v.patch), KIV_GetVersion());
    EXPECT_EQ(KIV_GetApiVersion(), v.major * 10000 + v.minor * 100 + v.patch);
    EXPECT_EQ(KIV_GetVersionEx(nullptr), nullptr);
#ifndef _WIN32
    // Frame clocks count 100 ns steps of the monotonic clock: bracketed by two reads of it.
    using std::chrono::steady_clock;
    auto steady = [] { return std::chrono::nanoseconds(steady_clock::now().time_since_epoch()).count() / 100; };
    const int64_t before = steady(), now = kiv::platform::SteadyNow100ns(), after = steady();
    EXPECT_TRUE(before <= now && now <= after) << before << " " << now << " " << after;
#endif
    // The default mode takes only 0 or 1, before, during and after KIV_Init.
    EXPECT_EQ(kModeAtLoad, 0);
    EXPECT_EQ(KIV_SetDefaultPipelineMode(1), KIV_OK);
    EXPECT_EQ(KIV_SetDefaultPipelineMode(2), KIV_ERROR_INVALID_ARG);
    EXPECT_EQ(KIV_SetDefaultPipelineMode(-1), KIV_ERROR_INVALID_ARG);

    KivDeviceInfo info{};
    for (const auto& c : kCreators) EXPECT_EQ(c.first(), nullptr) << c.second << " before KIV_Init";
    EXPECT_EQ(KIV_RefreshDeviceList(), KIV_ERROR_NOT_INITIALIZED);
    EXPECT_EQ(KIV_GetVideoDeviceCount(), 0);
    EXPECT_EQ(KIV_GetAudioInputDeviceCount(), 0);
    EXPECT_EQ(KIV_GetVideoDeviceInfo(-1, nullptr), KIV_ERROR_NOT_INITIALIZED);  // wins over a bad argument
    EXPECT_EQ(KIV_GetAudioInputDeviceInfo(0, &info), KIV_ERROR_NOT_INITIALIZED);

    ASSERT_EQ(KIV_Init(), KIV_OK);
    ASSERT_EQ(KIV_Init(), KIV_OK);  // repeated
    EXPECT_EQ(KIV_GetDefaultPipelineMode(), 1);
    EXPECT_EQ(KIV_SetDefaultPipelineMode(0), KIV_OK);
    EXPECT_EQ(KIV_RefreshDeviceList(), KIV_OK);
    CheckDeviceList(KIV_GetVideoDeviceCount, KIV_GetVideoDeviceInfo);
    CheckDeviceList(KIV_GetAudioInputDeviceCount, KIV_GetAudioInputDeviceInfo);
    for (const auto& c : kCreators) {
        void* port = c.first();
        ASSERT_NE(port, nullptr) << c.second;
        EXPECT_EQ(static_cast<KivPortBase*>(port)->Type(), c.second);
        EXPECT_EQ(KIV_DestroyPort(port), KIV_OK);
    }
    ASSERT_EQ(KIV_Shutdown(), KIV_OK);
    EXPECT_EQ(KIV_Shutdown(), KIV_OK);
    EXPECT_EQ(KIV_GetDefaultPipelineMode(), 0);
    for (const auto& c : kCreators) EXPECT_EQ(c.first(), nullptr) << c.second << " after KIV_Shutdown";
    EXPECT_EQ(KIV_RefreshDeviceList(), KIV_ERROR_NOT_INITIALIZED);
    EXPECT_EQ(KIV_GetAudioInputDeviceCount(), 0);
}

TEST_F(Core, LogFileHeaderLineFormatAndFileColumn) {
    ASSERT_TRUE(fs::create_directory(LogPath()));  // a folder where the file should be: logging stays off
    EXPECT_EQ(KIV_EnableLog(1), KIV_ERROR_FAILED);
    fs::remove_all(LogPath());
    KivLogWrite("f.cpp", 1, "before enabling");
    EXPECT_FALSE(fs::exists(LogPath()));
    ASSERT_EQ(KIV_EnableLog(1), KIV_OK);
    ASSERT_EQ(LogLines().size(), 2u);  // header and enabled line are on disk at once
    KivLogWrite("/src/kiv_core.cpp", 42, "value=%d name=%s", 7, "cam");
    std::thread([] { KivLogWrite("/src/kiv_core.cpp", 43, "from another thread"); }).join();
    const Lines lines = LogLines();
    ASSERT_EQ(lines.size(), 4u);
    unsigned long pid = 0;
    std::tm date{};
    const std::time_t now = std::time(nullptr);
    ASSERT_TRUE(IsHeader(lines[0], &pid, &date)) << lines[0];
    EXPECT_EQ(pid, static_cast<unsigned long>(getpid()));
    bool today = false;  // the local date, either side of a midnight
    for (std::time_t t : {now - 5, now + 5}) {
        const std::tm local = *std::localtime(&t);
        today |= local.tm_year == date.tm_year && local.tm_mon == date.tm_mon && local.tm_mday == date.tm_mday;
    }
    EXPECT_TRUE(today) << lines[0];
    EXPECT_EQ(lines[1], kEnabled);
    kivtest::LogMessage first, second;
    ASSERT_TRUE(kivtest::ParseLogMessage(lines[2], &first) && kivtest::ParseLogMessage(lines[3], &second)) << lines[2];
    EXPECT_EQ(first.file + ":" + std::to_string(first.line) + " " + first.text, "kiv_core.cpp:42 value=7 name=cam");
    EXPECT_EQ(second.line, 43);
    EXPECT_TRUE(first.tid != second.tid && first.tid != 0u);

    ASSERT_EQ(KIV_EnableLog(1), KIV_OK);  // already on: not truncated again
    const std::string fits(2047, 'x');
    const std::pair<const char*, std::string> cases[] = {
        {"C:\\work/src\\core/kiv_a.cpp", "kiv_a.cpp"}, {"/work\\src/kiv_b.cpp\\kiv_c.cpp", "kiv_c.cpp"},
        {"plain.cpp", "plain.cpp"}, {nullptr, ""}, {"dir/", ""}};
    for (const auto& c : cases) KivLogWrite(c.first, 1, "a");
    KivLogWrite("f.cpp", 6, "%s", fits.c_str());
    KivLogWrite("f.cpp", 7, "long=%s", std::string(3000, 'z').c_str());  // overlong: replaced whole
    KivLogWrite("f.cpp", 8, "%s", std::string(2048, 'y').c_str());
    KivLogWrite("f.cpp", 9, nullptr);
    std::vector<std::pair<std::string, std::string>> seen, expected;
    for (const auto& c : cases) expected.emplace_back(c.second, "a");
    for (const char* text : {fits.c_str(), "<log format failed: long=%s>", "<log format failed: %s>", "<log format failed: >"})
        expected.emplace_back("f.cpp", text);
    const auto messages = kivtest::LogMessages(ReadLog());
    for (size_t i = 2; i < messages.size(); ++i) seen.emplace_back(messages[i].file, messages[i].text);
    EXPECT_EQ(seen, expected);
    EXPECT_EQ(CountInLog("log started"), 1);
    EXPECT_EQ(CountInLog(kEnabled), 1);

    ASSERT_EQ(KIV_EnableLog(0), KIV_OK);
    KivLogWrite("f.cpp", 3, "after disabling");
    EXPECT_FALSE(HasMessage("after disabling"));
    EXPECT_EQ(LogLines().back(), kDisabled);
    ASSERT_EQ(KIV_EnableLog(1), KIV_OK);  // on again: a new file
    EXPECT_FALSE(HasMessage("a"));
    EXPECT_EQ(CountInLog(kDisabled), 0);
    EXPECT_EQ(CountInLog("log started"), 1);
}

TEST_F(Core, InitRefreshAndShutdownAreLoggedAndTheFileReopensForAppending) {
    ASSERT_EQ(KIV_EnableLog(1), KIV_OK);
    ASSERT_EQ(KIV_SetDefaultPipelineMode(1), KIV_OK);
    EXPECT_EQ(KIV_RefreshDeviceList(), KIV_ERROR_NOT_INITIALIZED);
    ASSERT_EQ(KIV_Shutdown(), KIV_OK);  // closes the file, logging stays on
    ASSERT_EQ(KIV_Init(), KIV_OK);
    const std::string counts = "video=" + std::to_string(KIV_GetVideoDeviceCount()) +
                               " audio=" + std::to_string(KIV_GetAudioInputDeviceCount());
    EXPECT_FALSE(HasMessage("KIV_RefreshDeviceList"));
    ASSERT_EQ(KIV_RefreshDeviceList(), KIV_OK);
    ASSERT_EQ(KIV_Shutdown(), KIV_OK);
    EXPECT_EQ(CountInLog(kEnabled), 1);
    EXPECT_EQ(CountInLog(kClosed), 2);
    for (const std::string& m : Lines{"Set default SDK pipeline mode=1", "KIV_Init version=6.0.6 defaultPipelineMode=1",
                                 "Device enum completed " + counts, "KIV_RefreshDeviceList",
                                 "Device refresh completed " + counts, std::string("KIV_Shutdown")})
        EXPECT_TRUE(HasMessage(m)) << m;
    EXPECT_EQ(LogLines().back(), kClosed);

    KivLogWrite("f.cpp", 1, "after shutdown");  // reopens: closed line, new header, message
    const Lines lines = LogLines();
    ASSERT_GE(lines.size(), 4u);
    EXPECT_EQ(CountInLog("log started"), 3);
    EXPECT_EQ(lines[lines.size() - 3], kClosed);
    EXPECT_TRUE(IsHeader(lines[lines.size() - 2])) << lines[lines.size() - 2];
    EXPECT_TRUE(HasMessage("after shutdown"));
}

namespace {

// "...] worker T line I" -> (T, I); false for other lines.
bool WorkerLine(const std::string& line, int* t, int* i) {
    const size_t at = line.find("] worker ");
    return at != std::string::npos && std::sscanf(line.c_str() + at, "] worker %d line %d\r\n", t, i) == 2;
}

}  // namespace

// Threads logging at once, with and without another switching the log:
// lines reaching the file are whole and keep each thread's order.
TEST_F(Core, ConcurrentLinesStayWholeAndInOrder) {
    constexpr int kThreads = 4, kLines = 300;
    // Switching writers stop after a bound even if the (unfair) lock starves the switcher.
    for (bool switching : {false, true}) {
        SCOPED_TRACE(switching);
        ASSERT_EQ(KIV_EnableLog(1), KIV_OK);
        std::atomic<bool> stop{false};
        std::vector<std::thread> workers;
        for (int t = 0; t < kThreads; ++t)
            workers.emplace_back([&, t] {
                for (int i = 0; i < (switching ? 4000 : kLines) && !stop; ++i) KivLogWrite("race.cpp", t, "worker %d line %d", t, i);
            });
        for (int round = 0; switching && round < 50; ++round) {
            KIV_EnableLog(round % 2);
            std::this_thread::yield();
        }
        KIV_EnableLog(1);
        stop = switching;
        for (std::thread& w : workers) w.join();
        if (switching) KIV_EnableLog(0);
        const Lines lines = LogLines();
        ASSERT_GE(lines.size(), 3u);
        EXPECT_TRUE(IsHeader(lines[0]));
        EXPECT_EQ(lines[1], kEnabled);
        std::map<int, int> next;
        const size_t end = lines.size() - (switching ? 1 : 0);
        for (size_t k = 2; k < end; ++k) {
            int t = -1, i = -1;
            ASSERT_TRUE(WorkerLine(lines[k], &t, &i)) << lines[k];
            ASSERT_TRUE(t >= 0 && t < kThreads) << lines[k];
            EXPECT_TRUE(switching ? i >= next[t] : i == next[t]) << lines[k];
            next[t] = i + 1;
        }
        EXPECT_EQ(switching ? lines.back() : std::to_string(lines.size()),
                  switching ? kDisabled : std::to_string(2 + kThreads * kLines));
        Reset();
    }
}
