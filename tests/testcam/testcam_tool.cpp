// Installs or removes test cameras from scripts (the sample run):
// testcam_tool install KEY NAME CONFIG | remove-all
#include <cstdio>
#include <cwchar>

#include "testcam_install.h"

int wmain(int argc, wchar_t** argv) {
    testcam::CameraInstaller installer;  // E_FAIL when the camera DLL does not load
    HRESULT hr = E_INVALIDARG;
    if (argc == 5 && std::wcscmp(argv[1], L"install") == 0) hr = installer.Install(argv[2], argv[3], argv[4]);
    else if (argc == 2 && std::wcscmp(argv[1], L"remove-all") == 0) hr = installer.RemoveAll();
    if (FAILED(hr)) std::fprintf(stderr, "testcam_tool: failed hr=0x%08lX\n", static_cast<unsigned long>(hr));
    return FAILED(hr) ? 1 : 0;
}
