#include "Stubs.h"

const wchar_t kEmptyText[1] = {0};

void* VideoMetaDataParser::Destroy(uint32_t flags) {
    if (flags & 1u) {
        delete this;
        return nullptr;
    }
    return this;
}

void* RemoteRepairManagerWrapper::Destroy(uint32_t flags) {
    if (flags & 1u) {
        delete this;
        return nullptr;
    }
    return this;
}
