// A real top-level window on the test's own X display, and a read of what it
// shows through GDI (BitBlt from the window's DC returns the presented pixels).
#pragma once
#include <windows.h>

#include <cstdint>
#include <vector>

namespace rendertest {

class TestWindow {
public:
    // A borderless topmost window at (x, y), client area width x height.
    TestWindow(int width, int height, int x = 0, int y = 0);
    ~TestWindow();
    TestWindow(const TestWindow&) = delete;
    TestWindow& operator=(const TestWindow&) = delete;

    HWND Handle() const { return hwnd_; }
    void Resize(int width, int height);
    void Destroy();
    // The client area as tight BGRA rows, top-down.
    std::vector<uint8_t> Read(int* width, int* height);

private:
    HWND hwnd_ = nullptr;
};

void PumpMessages();

}  // namespace rendertest
