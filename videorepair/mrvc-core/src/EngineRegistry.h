// The manager's live engines, and which engine repairs which extension.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "AdvanceRepairBase.h"

class RepairLog;

// MP4-family files are not repaired here (letter case ignored).
bool IsRefusedExtension(const std::wstring& extension);

// One row of the extension table: an exact extension and the engine it creates.
struct EngineRow {
    std::wstring extension;
    std::function<AdvanceRepairBase*()> create;
};
using EngineTable = std::vector<EngineRow>;

// The library's own table (tests may hand a registry another one).
const EngineTable& DefaultEngineTable();

// Engines that serve the thorough option alone, for refused extensions (letter
// case ignored, as cameras write ".MP4").
const EngineTable& ThoroughOnlyEngineTable();

class EngineRegistry {
public:
    explicit EngineRegistry(const EngineTable& table = DefaultEngineTable()) : table_(table) {}

    // Reuses an engine whose format name equals the extension (case ignored), or
    // creates the engine of the extension table (case exact) and hands it the log.
    IAdvanceVideoRepair* Select(const std::wstring& extension, RepairLog* log);
    // The same from the thorough-only table, for the thorough option alone.
    IAdvanceVideoRepair* SelectThoroughOnly(const std::wstring& extension, RepairLog* log);

    // Calls fn on every engine, in creation order. Safe while another thread selects.
    void ForEach(const std::function<void(AdvanceRepairBase&)>& fn);
    size_t Count();

private:
    IAdvanceVideoRepair* Create(const EngineRow& row, RepairLog* log);

    const EngineTable& table_;
    std::mutex listLock_;  // guards the list only; never held while an engine works
    std::vector<std::unique_ptr<AdvanceRepairBase>> engines_;
};
