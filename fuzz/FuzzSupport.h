// Shared pieces of the fuzz targets: the fuzzer's bytes written to a file the
// engines can open, the fixed valid inputs that `make fuzz` generates, and one
// engine run without ffmpeg (scan, then the container rebuilt from the findings).
#pragma once

#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

#include "AdvanceRepairBase.h"
#include "platform/Platform.h"

namespace fuzz {

// A folder of this process in memory-backed storage when there is one, removed
// at exit (the path is kept in static storage that outlives the exit handlers).
inline const char* WorkFolder() {
    static char folder[128] = "";
    if (folder[0] == '\0') {
        const char* base = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
        std::snprintf(folder, sizeof folder, "%s/vr-fuzz-%d", base, int(getpid()));
        std::system((std::string("mkdir -p '") + folder + "/out'").c_str());
        std::atexit([] { std::system((std::string("rm -rf '") + folder + "'").c_str()); });
    }
    return folder;
}

// Writes the bytes to WorkFolder()/name and returns the path.
inline std::wstring WriteInput(const std::string& name, const uint8_t* data, size_t size) {
    const std::string path = std::string(WorkFolder()) + "/" + name;
    std::ofstream(path, std::ios::binary | std::ios::trunc).write(reinterpret_cast<const char*>(data),
                                                                   std::streamsize(size));
    return platform::ToWide(path);
}

// A valid file made by `make fuzz` (scripts/fuzz.sh); aborts when it is missing,
// since every run would otherwise test nothing.
inline std::wstring MediaFile(const std::string& name) {
    const char* dir = std::getenv("VR_FUZZ_MEDIA");
    const std::string path = std::string(dir != nullptr ? dir : VR_FUZZ_MEDIA_DIR) + "/" + name;
    if (access(path.c_str(), R_OK) != 0) {
        std::fprintf(stderr, "fuzz: missing %s (generate it with make fuzz)\n", path.c_str());
        std::abort();
    }
    return platform::ToWide(path);
}

inline std::string ReadAll(const std::wstring& path) {
    std::ifstream in(platform::ToNarrow(path), std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// Repair, then (when something was found) the output written into the work
// folder and deleted again. For engines whose Repair and output run no program.
template <class Engine>
void RepairAndWrite(const std::wstring& damaged, const std::wstring& sample, bool write = true) {
    Engine engine;
    engine.SetVideoPath(damaged, sample);
    if (engine.Repair() == 0 && write) {
        std::wstring repaired;
        engine.GetRepairedVideo(repaired, damaged, platform::ToWide(std::string(WorkFolder()) + "/out"), 0);
        if (!repaired.empty()) std::remove(platform::ToNarrow(repaired).c_str());
    }
    engine.Release();
}

}  // namespace fuzz
