// Which port types KIV_Connect lets feed which.
#pragma once
#include <cstdint>

namespace kiv {
bool ConnectionAllowed(int32_t srcType, int32_t dstType);
}
