// No GPU recording without the platform layer.
#include "gpu_record_sink.h"

namespace kiv {

std::unique_ptr<GpuRecordSink> CreateGpuRecordSink() { return nullptr; }

}  // namespace kiv
