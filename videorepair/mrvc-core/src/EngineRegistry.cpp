#include "EngineRegistry.h"

#include "MpegAdvanceRepair.h"
#include "TextUtil.h"
#include "platform/Platform.h"

namespace {

struct EngineRow {
    const wchar_t* extension;
    AdvanceRepairBase* (*create)();
};

// Tested in this order, with the extension's letter case exact. A row whose
// engine is not built yet creates nothing.
const EngineRow kEngineTable[] = {
    {L"flv", []() -> AdvanceRepairBase* { return nullptr; }},
    {L"avi", []() -> AdvanceRepairBase* { return nullptr; }},
    {L"mts", []() -> AdvanceRepairBase* { return nullptr; }},
    {L"m2ts", []() -> AdvanceRepairBase* { return nullptr; }},
    {L"mkv", []() -> AdvanceRepairBase* { return nullptr; }},
    {L"mxf", []() -> AdvanceRepairBase* { return nullptr; }},
    {L"klv", []() -> AdvanceRepairBase* { return nullptr; }},
    {L"wmv", []() -> AdvanceRepairBase* { return nullptr; }},
    {L"asf", []() -> AdvanceRepairBase* { return nullptr; }},
    {L"mpeg", []() -> AdvanceRepairBase* { return new MpegAdvanceRepair(); }},
    {L"mpg", []() -> AdvanceRepairBase* { return new MpegAdvanceRepair(); }},
};

const char* const kRefused[] = {"mp4", "mov", "3gp", "3g2", "m4v", "insv", "360", "m4a"};

}  // namespace

bool IsRefusedExtension(const std::wstring& extension) {
    for (const char* refused : kRefused) {
        if (text::EqualsIgnoreCase(extension, platform::ToWide(refused))) return true;
    }
    return false;
}

IAdvanceVideoRepair* EngineRegistry::Select(const std::wstring& extension, RepairLog* log) {
    std::lock_guard<std::mutex> guard(listLock_);
    for (auto& engine : engines_) {
        if (text::EqualsIgnoreCase(engine->GetFormatName(), extension)) return engine.get();
    }
    for (const EngineRow& row : kEngineTable) {
        if (extension != row.extension) continue;
        std::unique_ptr<AdvanceRepairBase> engine(row.create());
        if (!engine) return nullptr;
        engine->SetLogger(log);
        engines_.push_back(std::move(engine));
        return engines_.back().get();
    }
    return nullptr;
}

void EngineRegistry::ForEach(const std::function<void(AdvanceRepairBase&)>& fn) {
    std::lock_guard<std::mutex> guard(listLock_);
    for (auto& engine : engines_) fn(*engine);
}

size_t EngineRegistry::Count() {
    std::lock_guard<std::mutex> guard(listLock_);
    return engines_.size();
}
