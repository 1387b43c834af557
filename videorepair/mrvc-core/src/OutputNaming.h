// How repaired files are named: a fresh UUID (or "<name>_repaired") with the
// damaged file's extension.
#pragma once

#include <string>

namespace naming {

// UUID text "%08x-%04x-%04x-%02x%02x-%02x%02x%02x%02x%02x%02x", or empty when the
// system cannot make a UUID.
std::wstring NewUuidText();

// The engines' rule. Directory: outputDirectory, else the damaged file's parent,
// else ".". Mode 0: "<uuid>.<ext>"; any other mode: "<base>_repaired.<ext>". A name
// that already exists as a regular file is replaced by a free one.
void MakeOutputPath(std::wstring& out, const std::wstring& damagedPath,
                    const std::wstring& outputDirectory, int mode);

// The ffmpeg-only repair's rule: outputDirectory (default: the user's temporary
// directory + "/VR/RepairedVideo", created) + "/" + UUID + "." + extension.
void MakeRepairedFileName(std::wstring& out, const std::wstring& videoPath,
                          const std::wstring& outputDirectory);

}  // namespace naming
