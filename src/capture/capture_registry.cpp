#include "capture_registry.h"

#include <algorithm>
#include <map>
#include <vector>

namespace kiv::capture {

namespace {
std::map<int32_t, KivVideoInput*>& Sources() {
    static std::map<int32_t, KivVideoInput*> sources;
    return sources;
}
std::map<int32_t, std::vector<ClientRequest>>& Requests() {
    static std::map<int32_t, std::vector<ClientRequest>> requests;
    return requests;
}
}  // namespace

std::mutex& DeviceLock() {
    static std::mutex lock;
    return lock;
}

KivVideoInput* ActiveSourceLocked(int32_t device) {
    auto it = Sources().find(device);
    return it == Sources().end() ? nullptr : it->second;
}

void SetActiveSourceLocked(int32_t device, KivVideoInput* source) { Sources()[device] = source; }

bool RemoveActiveSourceLocked(int32_t device, KivVideoInput* source) {
    auto it = Sources().find(device);
    if (it == Sources().end() || it->second != source) return false;
    Sources().erase(it);
    return true;
}

void RegisterRequestLocked(int32_t device, const ClientRequest& request) {
    std::vector<ClientRequest>& list = Requests()[device];
    for (ClientRequest& r : list) {
        if (r.port == request.port) {
            r = request;
            return;
        }
    }
    list.push_back(request);
}

void RemoveRequestLocked(int32_t device, const void* port) {
    auto it = Requests().find(device);
    if (it == Requests().end()) return;
    std::vector<ClientRequest>& list = it->second;
    list.erase(std::remove_if(list.begin(), list.end(), [port](const ClientRequest& r) { return r.port == port; }),
               list.end());
    if (list.empty()) Requests().erase(it);
}

MergedRequest MergeDeviceRequestsLocked(int32_t device) {
    auto it = Requests().find(device);
    if (it == Requests().end()) return MergedRequest{};
    return MergeRequests(it->second);
}

MergedRequest MergeDeviceRequests(int32_t device) {
    std::lock_guard<std::mutex> lock(DeviceLock());
    return MergeDeviceRequestsLocked(device);
}

}  // namespace kiv::capture
