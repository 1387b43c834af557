#include "thorough/AsIsCounter.h"

#include "thorough/Demuxer.h"
#include "thorough/RemuxPass.h"

namespace thorough {

// The background count's control: the host's pause and stop, no progress (the
// bar belongs to the rebuild), and the abandon flag.
class AsIsCounter::Silent : public RepairControl {
public:
    Silent(RepairControl& host, const std::atomic<bool>& abandoned) : host_(host), abandoned_(abandoned) {}
    bool ShouldStop() override { return abandoned_.load() || host_.ShouldStop(); }
    void Progress(int) override {}
    RepairLog* Log() override { return host_.Log(); }

private:
    RepairControl& host_;
    const std::atomic<bool>& abandoned_;
};

AsIsCounter::~AsIsCounter() {
    Abandon();
    if (worker_.joinable()) worker_.join();
}

AsIsCounter::Result AsIsCounter::Count(ProgressRange progress, int64_t totalBytes) {
    return CountWith(control_, progress, totalBytes);
}

void AsIsCounter::Start() {
    worker_ = std::thread([this] {
        Silent silent(control_, abandoned_);
        background_ = CountWith(silent, ProgressRange(), 0);
    });
}

AsIsCounter::Result AsIsCounter::Finish() {
    if (worker_.joinable()) worker_.join();
    return background_;
}

AsIsCounter::Result AsIsCounter::CountWith(RepairControl& control, ProgressRange progress, int64_t totalBytes) const {
    Result result;
    Demuxer input;
    if (input.OpenFile(path_)) {
        result.format = input.FormatName();
        PassSettings settings{fullDecodeCheck_, true, totalBytes, progress};
        PassResult pass = RemuxPass(sample_, control).Run(input, std::wstring(), MuxerChoice(), settings);
        result.complete = !pass.stopped;
        if (result.complete) result.count = pass.read, result.remuxBound = pass.keptBound;
    } else {
        result.complete = true;  // nothing to count: the file does not open as it is
    }
    return result;
}

}  // namespace thorough
