// The six exported functions. Nothing may be thrown across them.
#include "VideoRepairExport.h"

#include <mutex>
#include <new>
#include <vector>

#include "Stubs.h"
#include "VideoRepairManager.h"

namespace {

// Hosts call Release on a manager but never delete it: every manager lives until
// the process ends. They are listed here (on a list that is never destroyed), so
// they stay owned instead of lost, and leak checkers can tell them from real leaks.
void KeepForTheProcess(VideoRepairManager* manager) {
    static std::mutex lock;
    static auto* managers = new std::vector<VideoRepairManager*>();
    std::lock_guard<std::mutex> hold(lock);
    managers->push_back(manager);
}

}  // namespace

extern "C" {

VIDEOREPAIR_API int32_t InitKzVideoRepairLib(IVideoRepairManager** out) {
    if (out == nullptr) return -1;
    VideoRepairManager* manager = new (std::nothrow) VideoRepairManager();
    if (manager == nullptr) {
        *out = nullptr;
        return -1;
    }
    try {
        KeepForTheProcess(manager);
    } catch (...) {  // no room on the list: the manager works all the same
    }
    *out = manager;
    return 0;
}

VIDEOREPAIR_API int32_t CreateMetaDataParser(IVideoMetaDataParser** out) {
    if (out == nullptr) return -1;
    *out = new (std::nothrow) VideoMetaDataParser();
    return *out != nullptr ? 0 : -1;
}

VIDEOREPAIR_API int32_t CreateRemoteRepairManager(IRemoteRepairManager** out) {
    if (out == nullptr) return -1;
    *out = new (std::nothrow) RemoteRepairManagerWrapper();
    return *out != nullptr ? 0 : -1;
}

VIDEOREPAIR_API void DeleteRemoteRepairManager(IRemoteRepairManager* obj) {
    if (obj != nullptr) obj->Destroy(1);
}

VIDEOREPAIR_API int32_t CheckRemoteRepairable(RemoteRepairItem* items, uint32_t count) {
    if (items == nullptr) return -1;
    for (uint32_t i = 0; i < count; ++i) items[i].remotelyRepairable = 0;
    return -1;  // nothing is remotely repairable, and the call says so
}

VIDEOREPAIR_API int32_t SetRemoteRepairLogPath(void*) { return -1; }

}  // extern "C"
