#include <cstdio>

#include "kivsample.h"

int RunRecordMode(int, char**) {
    std::printf("the record mode is not available in this build yet\n");
    return 0;
}
