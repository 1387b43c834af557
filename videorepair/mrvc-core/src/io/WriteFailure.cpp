#include "io/WriteFailure.h"

#include <cstdio>

namespace {

std::string Gigabytes(int64_t bytes) {
    char text[32];
    if (bytes >= 1000000000)
        std::snprintf(text, sizeof text, "%.1f GB", double(bytes) / 1e9);
    else
        std::snprintf(text, sizeof text, "%.1f MB", double(bytes) / 1e6);
    return text;
}

}  // namespace

std::wstring FolderOf(const std::wstring& path) {
    size_t slash = path.find_last_of(L"/\\");
    if (slash == std::wstring::npos) return L".";
    return slash == 0 ? path.substr(0, 1) : path.substr(0, slash);
}

std::string WriteFailureText(platform::IoFailure failure, const std::wstring& folder, int64_t needed) {
    const int64_t free = platform::FreeBytes(folder);
    if (failure == platform::IoFailure::kNone || failure == platform::IoFailure::kOther)
        failure = needed > 0 && free >= 0 && free < needed ? platform::IoFailure::kNoSpace : failure;
    std::string text = std::string(platform::IoFailureText(failure)) + " on " + platform::ToNarrow(folder);
    bool full = failure == platform::IoFailure::kNoSpace || failure == platform::IoFailure::kQuota;
    if (full && needed > 0 && free >= 0) text += ": " + Gigabytes(needed) + " needed, " + Gigabytes(free) + " free";
    return text;
}

bool RoomFor(const std::wstring& folder, int64_t needed, std::string& why) {
    const int64_t free = platform::FreeBytes(folder);
    if (free < 0 || needed <= free) return true;
    why = WriteFailureText(platform::IoFailure::kNoSpace, folder, needed);
    return false;
}
