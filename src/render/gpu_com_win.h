// Small COM helpers shared by the render port's GPU features on Windows.
#pragma once
#include <windows.h>

namespace kiv {

// Releases a COM reference once and forgets it.
template <typename T>
void ReleaseCom(T*& p) {
    if (p) p->Release();
    p = nullptr;
}

}  // namespace kiv
