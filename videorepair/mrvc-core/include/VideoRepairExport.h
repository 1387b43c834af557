// The six functions a host finds in lib_videorepair, under undecorated names.
#pragma once

#include <cstdint>

#if defined(_WIN32)
#  if defined(VIDEOREPAIR_BUILDING_LIBRARY)
#    define VIDEOREPAIR_API __declspec(dllexport)
#  else
#    define VIDEOREPAIR_API __declspec(dllimport)
#  endif
#else
#  define VIDEOREPAIR_API __attribute__((visibility("default")))
#endif

class IVideoRepairManager;
class IVideoMetaDataParser;
class IRemoteRepairManager;

// The host's 196-byte record; the library writes only the result word at byte 192.
struct RemoteRepairItem {
    uint8_t hostData[192];
    int32_t remotelyRepairable;
};
static_assert(sizeof(RemoteRepairItem) == 196, "RemoteRepairItem is a 196-byte record");

extern "C" {
VIDEOREPAIR_API int32_t InitKzVideoRepairLib(IVideoRepairManager** out);
VIDEOREPAIR_API int32_t CreateMetaDataParser(IVideoMetaDataParser** out);
VIDEOREPAIR_API int32_t CreateRemoteRepairManager(IRemoteRepairManager** out);
VIDEOREPAIR_API void DeleteRemoteRepairManager(IRemoteRepairManager* obj);
VIDEOREPAIR_API int32_t CheckRemoteRepairable(RemoteRepairItem* items, uint32_t count);
VIDEOREPAIR_API int32_t SetRemoteRepairLogPath(void* ignored);
}

// Function pointer types for hosts that load the library at run time.
using InitKzVideoRepairLibFn = int32_t (*)(IVideoRepairManager**);
using CreateMetaDataParserFn = int32_t (*)(IVideoMetaDataParser**);
using CreateRemoteRepairManagerFn = int32_t (*)(IRemoteRepairManager**);
using DeleteRemoteRepairManagerFn = void (*)(IRemoteRepairManager*);
using CheckRemoteRepairableFn = int32_t (*)(RemoteRepairItem*, uint32_t);
using SetRemoteRepairLogPathFn = int32_t (*)(void*);
