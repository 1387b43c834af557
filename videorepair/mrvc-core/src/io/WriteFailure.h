// Words for a failed write that a user can act on: the cause and the folder, and
// how much room was needed and is free where both are known.
#pragma once

#include <cstdint>
#include <string>

#include "platform/Platform.h"

// "no space left on /media/out: 1.9 GB needed, 0.4 GB free"; needed < 0: unknown.
std::string WriteFailureText(platform::IoFailure failure, const std::wstring& folder, int64_t needed);

// False (with the text) when the folder's file system has less room than needed.
bool RoomFor(const std::wstring& folder, int64_t needed, std::string& why);

// The folder a path lies in ("." for a bare name).
std::wstring FolderOf(const std::wstring& path);
