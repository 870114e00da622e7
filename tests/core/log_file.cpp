#include "log_file.h"

#include "test_support.h"

#include <gtest/gtest.h>

#include <filesystem>

#ifdef _WIN32
#include <process.h>
#else
#include <unistd.h>
#endif

namespace fs = std::filesystem;

namespace kivtest {

std::string ExpectedLogPath() {
    const std::vector<std::string> argv = ::testing::internal::GetArgvs();
    fs::path exe = fs::absolute(fs::path(argv.empty() ? std::string() : argv[0]));
    return (exe.parent_path() / "kivcapture.log").string();
}

std::string ReadLog() { return ReadFile(ExpectedLogPath()); }

bool LogExists() { return fs::exists(ExpectedLogPath()); }

void RemoveLog() {
    std::error_code ec;
    fs::remove_all(ExpectedLogPath(), ec);
}

std::vector<std::string> LogLines() {
    const std::string text = ReadLog();
    std::vector<std::string> lines;
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find("\r\n", start);
        end = end == std::string::npos ? text.size() : end + 2;
        lines.push_back(text.substr(start, end - start));
        start = end;
    }
    return lines;
}

int CountInLog(const std::string& text) { return static_cast<int>(CountOf(ReadLog(), text)); }

unsigned long OsProcessId() {
#ifdef _WIN32
    return static_cast<unsigned long>(_getpid());
#else
    return static_cast<unsigned long>(getpid());
#endif
}

}  // namespace kivtest
