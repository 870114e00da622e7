// Installs or removes test cameras from scripts (the sample run).
#include <cstdio>
#include <cwchar>

#include "testcam_install.h"

int wmain(int argc, wchar_t** argv) {
    testcam::CameraInstaller installer;
    if (!installer.Loaded()) {
        std::fprintf(stderr, "testcam_tool: cannot load the camera DLL\n");
        return 1;
    }
    HRESULT hr = E_INVALIDARG;
    if (argc == 5 && std::wcscmp(argv[1], L"install") == 0) hr = installer.Install(argv[2], argv[3], argv[4]);
    else if (argc == 4 && std::wcscmp(argv[1], L"install-unnamed") == 0)
        hr = installer.Install(argv[2], nullptr, argv[3]);
    else if (argc == 2 && std::wcscmp(argv[1], L"remove-all") == 0) hr = installer.RemoveAll();
    if (FAILED(hr)) std::fprintf(stderr, "testcam_tool: failed hr=0x%08lX\n", static_cast<unsigned long>(hr));
    return FAILED(hr) ? 1 : 0;
}
