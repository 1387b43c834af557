// A host program in a folder without ffmpeg: loads the library, runs the
// ffmpeg-only repair and prints the result and what its observer heard.
#include <dlfcn.h>

#include <cstdio>
#include <string>

#include "IVideoRepairManager.h"
#include "IVideoRepairObserver.h"
#include "HostObserver.h"
#include "VideoRepairExport.h"

namespace {

std::wstring Wide(const char* s) { return std::wstring(s, s + std::string(s).size()); }

}  // namespace

int main(int argc, char** argv) {
    if (argc != 5) {
        std::fprintf(stderr, "usage: isolated_host LIBRARY LOGDIR WORKDIR VIDEO\n");
        return 2;
    }
    void* lib = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
    if (lib == nullptr) return 2;
    auto init = reinterpret_cast<InitKzVideoRepairLibFn>(dlsym(lib, "InitKzVideoRepairLib"));
    IVideoRepairManager* manager = nullptr;
    if (init == nullptr || init(&manager) != 0) return 2;
    HostObserver observer;
    manager->Initialize(&observer, Wide(argv[2]).c_str(), Wide(argv[3]).c_str());
    int rc = manager->FfmpegRepair(Wide(argv[4]).c_str());
    manager->Release();
    std::printf("rc=%d events=%s\n", rc, observer.events.c_str());
    return 0;
}
