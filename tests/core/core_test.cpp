// Library start-up and shutdown through the exported functions, and the runtime log beside the executable.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
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

std::string LogPath() {  // beside this executable
    const auto argv = ::testing::internal::GetArgvs();
    return (fs::absolute(fs::path(argv.empty() ? std::string() : argv[0])).parent_path() / "kivcapture.log").string();
}
int CountInLog(const std::string& text) { return int(kivtest::CountOf(kivtest::ReadFile(LogPath()), text)); }
Lines LogLines() {  // each line keeps its "\r\n"
    const std::string text = kivtest::ReadFile(LogPath());
    Lines lines;
    for (size_t start = 0, end; start < text.size(); start = end) {
        end = std::min(text.find("\r\n", start), text.size() - 2) + 2;
        lines.push_back(text.substr(start, end - start));
    }
    return lines;
}
// The header read back and written again: matches only if both spellings agree byte for byte.
bool IsHeader(const std::string& raw) {
    unsigned y, mo, d, h, mi, se;
    unsigned long p;
    if (std::sscanf(raw.c_str(), "==== kivcapture log started %4u-%2u-%2u %2u:%2u:%2u pid=%lu ====", &y, &mo, &d, &h,
                    &mi, &se, &p) != 7)
        return false;
    char again[128];
    std::snprintf(again, sizeof(again), "==== kivcapture log started %04u-%02u-%02u %02u:%02u:%02u pid=%lu ====\r\n",
                  y, mo, d, h, mi, se, p);
    return raw == again && y >= 2020 && mo >= 1 && mo <= 12 && d >= 1 && d <= 31 && h <= 23 && mi <= 59 && se <= 60;
}

class Core : public ::testing::Test {
protected:
    void SetUp() override { Reset(); }
    void TearDown() override { Reset(); }
    static void Reset() {
        std::error_code ec;
        KIV_EnableLog(0), KIV_Shutdown(), KIV_SetDefaultPipelineMode(0), fs::remove_all(LogPath(), ec);
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

}  // namespace

TEST_F(Core, VersionPipelineModeAndWhatNeedsInit) {
    KivVersionInfo v{};
    EXPECT_EQ(KIV_GetVersionEx(&v), &v);
    EXPECT_EQ(std::to_string(v.major) + "." + std::to_string(v.minor) + "." + std::to_string(v.patch), KIV_GetVersion());
    EXPECT_EQ(KIV_GetApiVersion(), v.major * 10000 + v.minor * 100 + v.patch);
    EXPECT_EQ(KIV_GetVersionEx(nullptr), nullptr);
#ifndef _WIN32
    // Frame clocks count 100 ns steps of the monotonic clock: bracketed by two reads of it.
    auto steady = [] { return std::chrono::nanoseconds(std::chrono::steady_clock::now().time_since_epoch()).count() / 100; };
    const int64_t before = steady(), now = kiv::platform::SteadyNow100ns(), after = steady();
    EXPECT_TRUE(before <= now && now <= after) << before << " " << now << " " << after;
#endif
    // The default mode takes only 0 or 1, before, during and after KIV_Init.
    EXPECT_EQ(std::vector<int>({kModeAtLoad, KIV_SetDefaultPipelineMode(1), KIV_SetDefaultPipelineMode(2),
                                KIV_SetDefaultPipelineMode(-1)}),
              std::vector<int>({0, KIV_OK, KIV_ERROR_INVALID_ARG, KIV_ERROR_INVALID_ARG}));
    KivDeviceInfo info;
    std::memset(&info, 0x5A, sizeof(info));
    for (const auto& c : kCreators) EXPECT_EQ(c.first(), nullptr) << c.second << " before KIV_Init";
    // Not initialised wins over a bad argument.
    EXPECT_EQ(std::vector<int>({KIV_RefreshDeviceList(), KIV_GetVideoDeviceCount(), KIV_GetAudioInputDeviceCount(),
                                KIV_GetVideoDeviceInfo(-1, nullptr), KIV_GetAudioInputDeviceInfo(0, &info)}),
              std::vector<int>({KIV_ERROR_NOT_INITIALIZED, 0, 0, KIV_ERROR_NOT_INITIALIZED, KIV_ERROR_NOT_INITIALIZED}));

    for (int i = 0; i < 2; ++i) ASSERT_EQ(KIV_Init(), KIV_OK);  // repeated too
    EXPECT_EQ(std::vector<int>({KIV_GetDefaultPipelineMode(), KIV_SetDefaultPipelineMode(0), KIV_RefreshDeviceList()}),
              std::vector<int>({1, KIV_OK, KIV_OK}));
    // Rejected queries leave the record alone; listed devices are the Windows tests' business.
    const int32_t video = KIV_GetVideoDeviceCount(), audio = KIV_GetAudioInputDeviceCount();
    EXPECT_EQ(std::vector<int>({KIV_GetVideoDeviceInfo(0, nullptr), KIV_GetVideoDeviceInfo(-1, &info),
                                KIV_GetVideoDeviceInfo(video, &info), KIV_GetAudioInputDeviceInfo(0, nullptr),
                                KIV_GetAudioInputDeviceInfo(-1, &info), KIV_GetAudioInputDeviceInfo(audio, &info)}),
              std::vector<int>(6, KIV_ERROR_INVALID_ARG));
    EXPECT_EQ(info.index, 0x5A5A5A5A);
    for (const auto& c : kCreators) {
        void* port = c.first();
        ASSERT_NE(port, nullptr) << c.second;
        EXPECT_EQ(static_cast<KivPortBase*>(port)->Type(), c.second);
        EXPECT_EQ(KIV_DestroyPort(port), KIV_OK);
    }
    for (int i = 0; i < 2; ++i) ASSERT_EQ(KIV_Shutdown(), KIV_OK);
    for (const auto& c : kCreators) EXPECT_EQ(c.first(), nullptr) << c.second << " after KIV_Shutdown";
    EXPECT_EQ(std::vector<int>({KIV_GetDefaultPipelineMode(), KIV_RefreshDeviceList(), KIV_GetAudioInputDeviceCount()}),
              std::vector<int>({0, KIV_ERROR_NOT_INITIALIZED, 0}));
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
    ASSERT_TRUE(IsHeader(lines[0])) << lines[0];
    EXPECT_NE(lines[0].find(" pid=" + std::to_string(getpid()) + " "), std::string::npos) << lines[0];
    char days[2][16];  // the local date, either side of a midnight
    for (int i = 0; i < 2; ++i) {
        const std::time_t t = std::time(nullptr) + (i ? 5 : -5);
        std::strftime(days[i], sizeof days[i], " %Y-%m-%d ", std::localtime(&t));
    }
    EXPECT_TRUE(lines[0].find(days[0]) != std::string::npos || lines[0].find(days[1]) != std::string::npos) << lines[0];
    EXPECT_EQ(lines[1], kEnabled);
    kivtest::LogMessage first, second;
    ASSERT_TRUE(kivtest::ParseLogMessage(lines[2], &first) && kivtest::ParseLogMessage(lines[3], &second)) << lines[2];
    EXPECT_EQ(first.file + ":" + std::to_string(first.line) + " " + first.text, "kiv_core.cpp:42 value=7 name=cam");
    EXPECT_TRUE(second.line == 43 && first.tid != second.tid && first.tid != 0u);

    ASSERT_EQ(KIV_EnableLog(1), KIV_OK);  // already on: not truncated again
    const std::string fits(2047, 'x');
    const std::pair<const char*, std::string> files[] = {
        {"C:\\work/src\\core/kiv_a.cpp", "kiv_a.cpp"}, {"/work\\src/kiv_b.cpp\\kiv_c.cpp", "kiv_c.cpp"},
        {"plain.cpp", "plain.cpp"}, {nullptr, ""}, {"dir/", ""}};
    std::vector<std::pair<std::string, std::string>> seen, expected;
    for (const auto& [path, name] : files) KivLogWrite(path, 1, "a"), expected.emplace_back(name, "a");
    KivLogWrite("f.cpp", 6, "%s", fits.c_str());
    KivLogWrite("f.cpp", 7, "long=%s", std::string(3000, 'z').c_str());  // overlong: replaced whole
    KivLogWrite("f.cpp", 8, "%s", std::string(2048, 'y').c_str());
    KivLogWrite("f.cpp", 9, nullptr);
    for (const char* text : {fits.c_str(), "<log format failed: long=%s>", "<log format failed: %s>", "<log format failed: >"})
        expected.emplace_back("f.cpp", text);
    const auto messages = kivtest::LogMessages(kivtest::ReadFile(LogPath()));
    for (size_t i = 2; i < messages.size(); ++i) seen.emplace_back(messages[i].file, messages[i].text);
    EXPECT_EQ(seen, expected);
    EXPECT_EQ(std::make_pair(CountInLog("log started"), CountInLog(kEnabled)), std::make_pair(1, 1));

    ASSERT_EQ(KIV_EnableLog(0), KIV_OK);
    KivLogWrite("f.cpp", 3, "after disabling");
    EXPECT_EQ(CountInLog("after disabling"), 0);
    EXPECT_EQ(LogLines().back(), kDisabled);
    ASSERT_EQ(KIV_EnableLog(1), KIV_OK);  // on again: a new file
    EXPECT_EQ(LogLines().size(), 2u);
    EXPECT_TRUE(IsHeader(LogLines()[0]));
}

TEST_F(Core, InitRefreshAndShutdownAreLoggedAndTheFileReopensForAppending) {
    ASSERT_EQ(KIV_EnableLog(1), KIV_OK);
    ASSERT_EQ(KIV_SetDefaultPipelineMode(1), KIV_OK);
    ASSERT_EQ(KIV_Shutdown(), KIV_OK);  // closes the file, logging stays on
    ASSERT_EQ(KIV_Init(), KIV_OK);
    ASSERT_EQ(KIV_RefreshDeviceList(), KIV_OK);
    ASSERT_EQ(KIV_Shutdown(), KIV_OK);
    EXPECT_EQ(std::make_pair(CountInLog(kEnabled), CountInLog(kClosed)), std::make_pair(1, 2));
    EXPECT_EQ(CountInLog("] KIV_Init version=" + std::string(KIV_GetVersion()) + " defaultPipelineMode=1\r\n"), 1);
    EXPECT_EQ(LogLines().back(), kClosed);

    KivLogWrite("f.cpp", 1, "after shutdown");  // reopens: closed line, new header, message
    const Lines lines = LogLines();
    ASSERT_GE(lines.size(), 4u);
    EXPECT_EQ(CountInLog("log started"), 3);
    EXPECT_EQ(lines[lines.size() - 3], kClosed);
    EXPECT_TRUE(IsHeader(lines[lines.size() - 2])) << lines[lines.size() - 2];
    EXPECT_EQ(CountInLog("] after shutdown\r\n"), 1);
}

// Threads logging at once, with and without another switching the log: lines reaching the file are whole and keep
// each thread's order. Switching writers stop after a bound even if the (unfair) lock starves the switcher.
TEST_F(Core, ConcurrentLinesStayWholeAndInOrder) {
    constexpr int kThreads = 4, kLines = 300;
    for (bool switching : {false, true}) {
        SCOPED_TRACE(switching);
        ASSERT_EQ(KIV_EnableLog(1), KIV_OK);
        std::atomic<bool> stop{false};
        std::vector<std::thread> workers;
        for (int t = 0; t < kThreads; ++t)
            workers.emplace_back([&, t] {
                for (int i = 0; i < (switching ? 4000 : kLines) && !stop; ++i) KivLogWrite("race.cpp", t, "worker %d line %d", t, i);
            });
        for (int round = 0; switching && round < 50; ++round) KIV_EnableLog(round % 2), std::this_thread::yield();
        KIV_EnableLog(1);
        stop = switching;
        for (std::thread& w : workers) w.join();
        if (switching) KIV_EnableLog(0);
        const Lines lines = LogLines();
        ASSERT_GE(lines.size(), 3u);
        EXPECT_TRUE(IsHeader(lines[0]) && lines[1] == kEnabled) << lines[1];
        std::map<int, int> next;
        for (size_t k = 2; k < lines.size() - (switching ? 1 : 0); ++k) {
            const size_t at = lines[k].find("] worker ");
            int t = -1, i = -1;
            ASSERT_TRUE(at != std::string::npos && std::sscanf(lines[k].c_str() + at, "] worker %d line %d\r\n", &t, &i) == 2 &&
                        t >= 0 && t < kThreads)
                << lines[k];
            EXPECT_TRUE(switching ? i >= next[t] : i == next[t]) << lines[k];
            next[t] = i + 1;
        }
        EXPECT_EQ(switching ? lines.back() : std::to_string(lines.size()),
                  switching ? kDisabled : std::to_string(2 + kThreads * kLines));
        Reset();
    }
}
