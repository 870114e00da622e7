// Helpers shared by the test suites.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

#include "kivcapture.h"

namespace kivtest {

// Initialises the library for the duration of a test.
struct LibraryScope {
    LibraryScope();
    ~LibraryScope();
};

// A tightly packed frame over an owned buffer.
struct OwnedFrame {
    std::vector<uint8_t> bytes;
    KivVideoFrame frame{};
    OwnedFrame(int32_t format, int32_t width, int32_t height, uint8_t fill = 0);
};

// UTF-16 copy of an ASCII/UTF-8 string for the wide-character interfaces.
std::basic_string<KivWChar> Wide(const std::string& text);

// Reads a whole file; empty when it cannot be opened.
std::string ReadFile(const std::string& path);

// A fresh folder for a test's files under the system temp folder; the
// process id keeps concurrent runs of the same suite apart.
std::string TempDir(const std::string& name);

}  // namespace kivtest
