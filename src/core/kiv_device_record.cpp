#include "kiv_device_record.h"

#include <cstring>

namespace kiv {

void CopyTextField(char* field, size_t fieldBytes, const std::string& text) {
    std::memset(field, 0, fieldBytes);
    const size_t n = text.size() < fieldBytes - 1 ? text.size() : fieldBytes - 1;
    std::memcpy(field, text.data(), n);
}

KivDeviceInfo MakeVideoDeviceRecord(int32_t index, const std::string& displayName, const std::string& friendlyName) {
    KivDeviceInfo record{};
    record.index = index;
    CopyTextField(record.name, sizeof(record.name), friendlyName);
    CopyTextField(record.path, sizeof(record.path), displayName);
    if (record.name[0] == '\0') CopyTextField(record.name, sizeof(record.name), "Unknown Device");
    return record;
}

}  // namespace kiv
