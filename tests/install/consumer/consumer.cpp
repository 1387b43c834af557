// An integrator's program built against an installed lib_videorepair: every
// public header included the installed way, the manager made through the
// exported entry point and initialized with a log and a work directory.
#include <videorepair/IAdvanceVideoRepair.h>
#include <videorepair/IRemoteRepairManager.h>
#include <videorepair/IVideoMetaDataParser.h>
#include <videorepair/IVideoRepairManager.h>
#include <videorepair/IVideoRepairObserver.h>
#include <videorepair/VideoRepairExport.h>
#include <videorepair/VideoRepairOptions.h>

#include <cstdio>
#include <string>

namespace {

class QuietObserver : public IVideoRepairObserver {
public:
    void OnProgress(int32_t, int32_t, int32_t, void*) override {}
    void OnStarted() override {}
    void OnStopped() override {}
    void OnPaused() override {}
    void OnResumed() override {}
    void OnFinished() override {}
};

std::wstring Wide(const std::string& text) { return std::wstring(text.begin(), text.end()); }

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: consumer DIRECTORY\n");
        return 2;
    }
    IVideoRepairManager* manager = nullptr;
    if (InitKzVideoRepairLib(&manager) != 0 || manager == nullptr) return 1;
    QuietObserver observer;
    const std::string directory = argv[1];
    const int32_t result =
        manager->Initialize(&observer, Wide(directory).c_str(), Wide(directory + "/work").c_str());
    manager->Release();
    std::printf("manager initialized: %d\n", result);
    return result == 0 ? 0 : 1;
}
