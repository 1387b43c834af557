// lib_videorepair.dll loaded the way a Windows host loads it: LoadLibraryW and
// GetProcAddress, nothing from the library's own code.
#pragma once

#include <windows.h>

#include <string>

#include "IVideoRepairManager.h"
#include "VideoRepairExport.h"
#include "platform/Platform.h"

namespace windows_test {

class DllHost {
public:
    DllHost() : module_(LoadLibraryW(BackslashPath(VR_TEST_LIBRARY_PATH).c_str())) {}
    ~DllHost() {
        if (module_ != nullptr) FreeLibrary(module_);
    }
    DllHost(const DllHost&) = delete;
    DllHost& operator=(const DllHost&) = delete;

    bool Loaded() const { return module_ != nullptr; }

    template <class Fn>
    Fn Export(const char* name) const {
        return reinterpret_cast<Fn>(reinterpret_cast<void*>(GetProcAddress(module_, name)));
    }

    // A fresh manager from the exported entry point, or null.
    IVideoRepairManager* NewManager() const {
        auto init = Export<InitKzVideoRepairLibFn>("InitKzVideoRepairLib");
        IVideoRepairManager* manager = nullptr;
        if (init == nullptr || init(&manager) != 0) return nullptr;
        return manager;
    }

private:
    // LoadLibraryW wants backslashes in a full path.
    static std::wstring BackslashPath(const std::string& path) {
        std::wstring wide = platform::ToWide(path);
        for (wchar_t& c : wide) c = c == L'/' ? L'\\' : c;
        return wide;
    }

    HMODULE module_;
};

// A repaired path from the manager, or empty.
inline std::wstring RepairedPath(IVideoRepairManager* manager, const std::wstring& damaged) {
    wchar_t path[4096] = {};
    if (manager->GetRepairedFilePath(path, damaged.c_str()) != 0) return std::wstring();
    return path;
}

}  // namespace windows_test
