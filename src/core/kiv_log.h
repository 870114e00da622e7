// The library's one logging entry point and the macro every module uses.
#pragma once
#include <cstdint>

extern "C" void KivLogWrite(const char* sourcePath, int32_t line, const char* format, ...)
#if defined(__GNUC__)
    __attribute__((format(printf, 3, 4)))
#endif
    ;

#define KIV_LOG(...) KivLogWrite(__FILE__, __LINE__, __VA_ARGS__)

namespace kiv {
// True while logging is switched on; lets hot paths skip formatting work.
bool LogEnabled();
}  // namespace kiv
