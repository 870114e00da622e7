/* Linked by lld-link against lib/kivcapture.lib as Microsoft's toolchain
 * links a caller: no C runtime, the entry point calls the library directly.
 * On i686 the calls go to the decorated stdcall names (_KIV_Init@0) and must
 * land on the plain exports. Exit code 0 when the answers are right. */
#include <kivcapture.h>

int start(void) {
    KivVersionInfo version = {0, 0, 0};
    if (KIV_GetApiVersion() != 60006) return 1;
    if (KIV_GetVersionEx(&version) != &version || version.patch != 6) return 2;
    if (KIV_Connect(NULL, NULL) != KIV_ERROR_INVALID_ARG) return 3;
    return 0;
}
