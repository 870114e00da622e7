#include <cstdio>

#include "kivsample.h"

int RunProcessMode(int, char**) {
    std::printf("the process mode is not available in this build yet\n");
    return 0;
}
