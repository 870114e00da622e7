#include <cstdio>

#include "kivsample.h"

int RunGraphMode(int, char**) {
    std::printf("the graph mode is not available in this build yet\n");
    return 0;
}
