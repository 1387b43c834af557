#include "platform/Platform.h"

namespace platform {

const char* IoFailureText(IoFailure failure) {
    switch (failure) {
        case IoFailure::kNone: return "no error";
        case IoFailure::kDeviceGone: return "the device is gone";
        case IoFailure::kNoSpace: return "no space left";
        case IoFailure::kQuota: return "disk quota exceeded";
        case IoFailure::kReadOnly: return "read-only file system";
        case IoFailure::kInputOutput: return "input/output error";
        case IoFailure::kOther: break;
    }
    return "write error";
}

}  // namespace platform
