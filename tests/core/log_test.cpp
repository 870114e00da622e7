// The runtime log as an application and a support engineer see it: the file
// beside the executable, its header and trailer lines, the line format and
// when the file is truncated or appended to.
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <string>
#include <thread>

#include "kiv_log.h"
#include "kivcapture.h"
#include "log_file.h"
#include "test_support.h"

using namespace kivtest;

namespace {

const char kEnabledLine[] = "[LOG] runtime logging enabled, file is recreated for this application run.\r\n";
const char kDisabledLine[] = "[LOG] runtime logging disabled.\r\n";
const char kClosedLine[] = "==== kivcapture log closed ====\r\n";

struct HeaderLine {
    unsigned year = 0, month = 0, day = 0;
    unsigned long pid = 0;
};

// Lines are read back with sscanf and written again with the documented
// format; a line matches only if both spellings agree byte for byte (so zero
// padding, separators and the CRLF ending are all checked).
bool ParseHeader(const std::string& raw, HeaderLine* out = nullptr) {
    unsigned y, mo, d, h, mi, se;
    unsigned long pid;
    if (std::sscanf(raw.c_str(), "==== kivcapture log started %4u-%2u-%2u %2u:%2u:%2u pid=%lu ====", &y, &mo, &d, &h,
                    &mi, &se, &pid) != 7)
        return false;
    char again[128];
    std::snprintf(again, sizeof(again), "==== kivcapture log started %04u-%02u-%02u %02u:%02u:%02u pid=%lu ====\r\n",
                  y, mo, d, h, mi, se, pid);
    if (raw != again || mo < 1 || mo > 12 || d < 1 || d > 31 || h > 23 || mi > 59 || se > 60) return false;
    if (out) *out = HeaderLine{y, mo, d, pid};
    return true;
}

// Messages of the log in order, skipping header and service lines.
std::vector<LogMessage> Messages() { return LogMessages(ReadLog()); }

bool HasMessage(const std::string& text) {
    for (const LogMessage& m : Messages())
        if (m.text == text) return true;
    return false;
}

class LogTest : public ::testing::Test {
protected:
    void SetUp() override { Reset(); }
    void TearDown() override { Reset(); }
    static void Reset() {
        KIV_EnableLog(0);
        KIV_Shutdown();
        KIV_SetDefaultPipelineMode(0);
        RemoveLog();
    }
};

TEST_F(LogTest, FileBesideExecutableStartsWithHeaderThenMessageLines) {
    ASSERT_EQ(KIV_EnableLog(1), KIV_OK);
    ASSERT_TRUE(LogExists()) << ExpectedLogPath();
    ASSERT_EQ(LogLines().size(), 2u);
    KivLogWrite("/src/kiv_core.cpp", 42, "value=%d name=%s", 7, "cam");
    std::thread([] { KivLogWrite("/src/kiv_core.cpp", 43, "from another thread"); }).join();

    const std::vector<std::string> lines = LogLines();
    ASSERT_EQ(lines.size(), 4u);
    HeaderLine header;
    ASSERT_TRUE(ParseHeader(lines[0], &header)) << lines[0];
    EXPECT_GE(header.year, 2020u);
    EXPECT_EQ(header.pid, OsProcessId());
    EXPECT_EQ(lines[1], kEnabledLine);
    LogMessage first, second;
    ASSERT_TRUE(ParseLogMessage(lines[2], &first)) << lines[2];
    ASSERT_TRUE(ParseLogMessage(lines[3], &second)) << lines[3];
    EXPECT_EQ(first.file, "kiv_core.cpp");
    EXPECT_EQ(first.line, 42);
    EXPECT_EQ(first.text, "value=7 name=cam");
    EXPECT_EQ(second.line, 43);
    EXPECT_NE(first.tid, second.tid);
    EXPECT_NE(first.tid, 0u);
}

TEST_F(LogTest, FileColumnIsTheBaseNameAndOverlongMessagesAreReplacedWhole) {
    ASSERT_EQ(KIV_EnableLog(1), KIV_OK);
    const std::string fits(2047, 'x');
    KivLogWrite("C:\\work/src\\core/kiv_a.cpp", 1, "a");
    KivLogWrite("/work\\src/kiv_b.cpp\\kiv_c.cpp", 2, "b");
    KivLogWrite("plain.cpp", 3, "c");
    KivLogWrite(nullptr, 4, "d");
    KivLogWrite("dir/", 5, "e");
    KivLogWrite("f.cpp", 6, "%s", fits.c_str());
    KivLogWrite("f.cpp", 7, "long=%s", std::string(3000, 'z').c_str());
    KivLogWrite("f.cpp", 8, "%s", std::string(2048, 'y').c_str());
    KivLogWrite("f.cpp", 9, nullptr);

    std::vector<std::pair<std::string, std::string>> seen;  // file column, text
    for (const LogMessage& m : Messages()) seen.emplace_back(m.file, m.text);
    const std::vector<std::pair<std::string, std::string>> expected = {
        {"kiv_a.cpp", "a"},
        {"kiv_c.cpp", "b"},
        {"plain.cpp", "c"},
        {"", "d"},
        {"", "e"},
        {"f.cpp", fits},
        {"f.cpp", "<log format failed: long=%s>"},
        {"f.cpp", "<log format failed: %s>"},
        {"f.cpp", "<log format failed: >"},
    };
    EXPECT_EQ(seen, expected);
}

TEST_F(LogTest, NothingIsWrittenWhileLoggingIsOff) {
    EXPECT_EQ(KIV_EnableLog(0), KIV_OK);  // never enabled: creates no file
    KivLogWrite("f.cpp", 1, "before enabling");
    EXPECT_FALSE(LogExists());
    ASSERT_EQ(KIV_EnableLog(1), KIV_OK);
    KivLogWrite("f.cpp", 2, "while on");
    ASSERT_EQ(KIV_EnableLog(0), KIV_OK);
    KivLogWrite("f.cpp", 3, "after disabling");

    const std::string log = ReadLog();
    EXPECT_EQ(log.find("before enabling"), std::string::npos);
    EXPECT_EQ(log.find("after disabling"), std::string::npos);
    EXPECT_TRUE(HasMessage("while on"));
    ASSERT_GE(log.size(), sizeof(kDisabledLine) - 1);
    EXPECT_EQ(log.substr(log.size() - (sizeof(kDisabledLine) - 1)), kDisabledLine);
}

TEST_F(LogTest, EnablingTwiceTruncatesOnlyOnce) {
    ASSERT_EQ(KIV_EnableLog(1), KIV_OK);
    KivLogWrite("f.cpp", 1, "first run");
    ASSERT_EQ(KIV_EnableLog(1), KIV_OK);
    EXPECT_TRUE(HasMessage("first run"));
    EXPECT_EQ(CountInLog("log started"), 1);
    EXPECT_EQ(CountInLog(kEnabledLine), 1);

    ASSERT_EQ(KIV_EnableLog(0), KIV_OK);
    ASSERT_EQ(KIV_EnableLog(1), KIV_OK);
    EXPECT_FALSE(HasMessage("first run"));
    EXPECT_EQ(CountInLog(kDisabledLine), 0);
    EXPECT_EQ(CountInLog("log started"), 1);
}

TEST_F(LogTest, FileThatCannotBeOpenedTurnsLoggingOff) {
    // A folder where the file should be makes the open fail.
    ASSERT_TRUE(std::filesystem::create_directory(ExpectedLogPath()));
    EXPECT_EQ(KIV_EnableLog(1), KIV_ERROR_FAILED);
    RemoveLog();
    KivLogWrite("f.cpp", 1, "logging is off");
    EXPECT_FALSE(LogExists());
}

TEST_F(LogTest, InitAndShutdownAreLoggedAndShutdownClosesTheFile) {
    ASSERT_EQ(KIV_EnableLog(1), KIV_OK);
    ASSERT_EQ(KIV_SetDefaultPipelineMode(1), KIV_OK);
    ASSERT_EQ(KIV_Init(), KIV_OK);
    const int video = KIV_GetVideoDeviceCount();
    const int audio = KIV_GetAudioInputDeviceCount();
    ASSERT_EQ(KIV_Shutdown(), KIV_OK);

    EXPECT_TRUE(HasMessage("Set default SDK pipeline mode=1"));
    EXPECT_TRUE(HasMessage("KIV_Init version=6.0.6 defaultPipelineMode=1"));
    EXPECT_TRUE(HasMessage("Device enum completed video=" + std::to_string(video) +
                           " audio=" + std::to_string(audio)));
    EXPECT_TRUE(HasMessage("KIV_Shutdown"));
    const std::string log = ReadLog();
    ASSERT_GE(log.size(), sizeof(kClosedLine) - 1);
    EXPECT_EQ(log.substr(log.size() - (sizeof(kClosedLine) - 1)), kClosedLine);
}

TEST_F(LogTest, AfterShutdownLoggingStaysOnAndAppends) {
    ASSERT_EQ(KIV_EnableLog(1), KIV_OK);
    ASSERT_EQ(KIV_Init(), KIV_OK);
    ASSERT_EQ(KIV_Shutdown(), KIV_OK);
    KivLogWrite("f.cpp", 1, "after shutdown");

    const std::vector<std::string> lines = LogLines();
    ASSERT_GE(lines.size(), 4u);
    EXPECT_TRUE(ParseHeader(lines[0]));
    // closed line, then the header of the reopened file, then the message
    const size_t n = lines.size();
    EXPECT_EQ(lines[n - 3], kClosedLine);
    EXPECT_TRUE(ParseHeader(lines[n - 2])) << lines[n - 2];
    LogMessage last;
    ASSERT_TRUE(ParseLogMessage(lines[n - 1], &last));
    EXPECT_EQ(last.text, "after shutdown");
    EXPECT_EQ(CountInLog(kEnabledLine), 1);
}

TEST_F(LogTest, InitReopensTheFileForAppending) {
    ASSERT_EQ(KIV_EnableLog(1), KIV_OK);
    ASSERT_EQ(KIV_Shutdown(), KIV_OK);  // closes the file, logging stays on
    ASSERT_EQ(KIV_Init(), KIV_OK);
    EXPECT_EQ(CountInLog(kEnabledLine), 1);
    EXPECT_EQ(CountInLog("log started"), 2);
    EXPECT_TRUE(HasMessage("KIV_Init version=6.0.6 defaultPipelineMode=0"));
}

TEST_F(LogTest, RefreshIsLoggedWithTheCounts) {
    ASSERT_EQ(KIV_EnableLog(1), KIV_OK);
    EXPECT_EQ(KIV_RefreshDeviceList(), KIV_ERROR_NOT_INITIALIZED);
    EXPECT_FALSE(HasMessage("KIV_RefreshDeviceList"));
    ASSERT_EQ(KIV_Init(), KIV_OK);
    ASSERT_EQ(KIV_RefreshDeviceList(), KIV_OK);
    EXPECT_TRUE(HasMessage("KIV_RefreshDeviceList"));
    EXPECT_TRUE(HasMessage("Device refresh completed video=" + std::to_string(KIV_GetVideoDeviceCount()) +
                           " audio=" + std::to_string(KIV_GetAudioInputDeviceCount())));
}

}  // namespace
