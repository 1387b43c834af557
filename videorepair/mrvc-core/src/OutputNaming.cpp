#include "OutputNaming.h"

#include <Poco/Path.h>

#include <cstdio>

#include "AppPaths.h"
#include "TextUtil.h"
#include "platform/Platform.h"

namespace naming {

namespace {

std::wstring WithSuffix(const std::wstring& stem, const std::wstring& extension) {
    return extension.empty() ? stem : stem + L"." + extension;
}

std::wstring Joined(const std::string& directory, const std::wstring& fileName) {
    // Poco drops a lone "."; keep it so the name says where the file goes.
    if (directory == ".") return L"./" + fileName;
    Poco::Path path(directory);
    path.makeDirectory();
    path.setFileName(platform::ToNarrow(fileName));
    return platform::ToWide(path.toString());
}

std::string DirectoryFor(const std::wstring& damagedPath, const std::wstring& outputDirectory) {
    if (!outputDirectory.empty()) return platform::ToNarrow(outputDirectory);
    std::string parent = Poco::Path(platform::ToNarrow(damagedPath)).parent().toString();
    return parent.empty() ? std::string(".") : parent;
}

// The non-UUID mode's replacement when "<base>_repaired" is taken: a counter.
std::wstring FreeNumberedName(const std::string& directory, const std::wstring& base,
                              const std::wstring& extension) {
    for (int n = 1;; ++n) {
        std::wstring candidate =
            Joined(directory, WithSuffix(base + L"_repaired(" + std::to_wstring(n) + L")", extension));
        if (!app_paths::RegularFileExists(candidate)) return candidate;
    }
}

}  // namespace

std::wstring NewUuidText() {
    platform::Uuid id;
    if (!platform::NewUuid(id)) return std::wstring();
    char text[40];
    std::snprintf(text, sizeof text, "%08x-%04x-%04x-%02x%02x-%02x%02x%02x%02x%02x%02x", id.data1,
                  id.data2, id.data3, id.data4[0], id.data4[1], id.data4[2], id.data4[3], id.data4[4],
                  id.data4[5], id.data4[6], id.data4[7]);
    return platform::ToWide(text);
}

void MakeOutputPath(std::wstring& out, const std::wstring& damagedPath,
                    const std::wstring& outputDirectory, int mode) {
    try {
        std::string directory = DirectoryFor(damagedPath, outputDirectory);
        std::wstring extension = text::ExtensionOf(damagedPath);
        if (mode == 0) {
            out = Joined(directory, WithSuffix(NewUuidText(), extension));
            // A UUID collision is all but impossible; a few fresh tries settle it.
            for (int tries = 0; tries < 16 && app_paths::RegularFileExists(out); ++tries)
                out = Joined(directory, WithSuffix(NewUuidText(), extension));
            return;
        }
        std::wstring base = platform::ToWide(Poco::Path(platform::ToNarrow(damagedPath)).getBaseName());
        out = Joined(directory, WithSuffix(base + L"_repaired", extension));
        if (app_paths::RegularFileExists(out)) out = FreeNumberedName(directory, base, extension);
    } catch (...) {
        out.clear();
    }
}

void MakeRepairedFileName(std::wstring& out, const std::wstring& videoPath,
                          const std::wstring& outputDirectory) {
    std::wstring directory = outputDirectory;
    if (directory.empty()) directory = app_paths::DefaultWorkDirectory() + L"/RepairedVideo";
    app_paths::CreateDirectories(directory);
    out = directory + L"/" + NewUuidText() + L"." + text::ExtensionOf(videoPath);
}

}  // namespace naming
