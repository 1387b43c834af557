// The six exported functions. Nothing may be thrown across them.
#include "VideoRepairExport.h"

#include <new>

#include "Stubs.h"
#include "VideoRepairManager.h"

extern "C" {

VIDEOREPAIR_API int32_t InitKzVideoRepairLib(IVideoRepairManager** out) {
    if (out == nullptr) return -1;
    *out = new (std::nothrow) VideoRepairManager();
    return *out != nullptr ? 0 : -1;
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
