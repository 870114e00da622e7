// The log file as an application sees it: where it should be and what it holds.
#pragma once
#include <string>
#include <vector>

namespace kivtest {

// "kivcapture.log" in the folder of this test executable, worked out from
// argv[0] rather than asked of the library.
std::string ExpectedLogPath();

// Whole file, or empty when missing.
std::string ReadLog();
bool LogExists();
void RemoveLog();

// The file split after each "\r\n"; each line keeps its terminator.
std::vector<std::string> LogLines();

// Number of times text occurs in the log.
int CountInLog(const std::string& text);

// This process's id, asked of the operating system directly.
unsigned long OsProcessId();

}  // namespace kivtest
