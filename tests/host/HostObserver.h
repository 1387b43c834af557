// The observer of the stand-alone test hosts: it writes down every call, in order,
// as "start,p0:5,finish," and so on. Uses only the public header, as a host would.
#pragma once

#include <string>

#include "IVideoRepairObserver.h"

struct HostObserver : IVideoRepairObserver {
    std::string events;
    void OnProgress(int32_t kind, int32_t value, int32_t, void*) override {
        events += "p" + std::to_string(kind) + ":" + std::to_string(value) + ",";
    }
    void OnStarted() override { events += "start,"; }
    void OnStopped() override { events += "stopped,"; }
    void OnPaused() override { events += "paused,"; }
    void OnResumed() override { events += "resumed,"; }
    void OnFinished() override { events += "finish,"; }
};
