// Implemented by the host: the library reports progress and job state through it.
#pragma once

#include <cstdint>

class IVideoRepairObserver {
public:
    // kind 0 = repair progress, 1 = save progress; value is a whole percentage.
    virtual void OnProgress(int32_t kind, int32_t value, int32_t reserved, void* data) = 0;  // slot 0
    virtual void OnStarted() = 0;   // slot 1
    virtual void OnStopped() = 0;   // slot 2
    virtual void OnPaused() = 0;    // slot 3
    virtual void OnResumed() = 0;   // slot 4
    virtual void OnFinished() = 0;  // slot 5

protected:
    ~IVideoRepairObserver() = default;
};
