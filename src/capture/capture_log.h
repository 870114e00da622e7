// Every part of the capture port logs under the port's one module name, so
// its lines read as one story in the log file.
#pragma once
#include "kiv_log.h"

#define KIV_VIN_LOG(...) KivLogWrite("kiv_video_input.cpp", __LINE__, __VA_ARGS__)
