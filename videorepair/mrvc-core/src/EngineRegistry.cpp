#include "EngineRegistry.h"

#include "AviAdvanceRepair.h"
#include "FlvAdvanceRepair.h"
#include "MkvAdvanceRepair.h"
#include "Mp4AdvanceRepair.h"
#include "MpegAdvanceRepair.h"
#include "MtsAdvanceRepair.h"
#include "MxfAdvanceRepair.h"
#include "TextUtil.h"
#include "WmvAdvanceRepair.h"
#include "platform/Platform.h"

namespace {

// Tested in this order, with the extension's letter case exact.
const EngineTable kEngineTable = {
    {L"flv", []() -> AdvanceRepairBase* { return new FlvAdvanceRepair(); }},
    {L"avi", []() -> AdvanceRepairBase* { return new AviAdvanceRepair(); }},
    {L"mts", []() -> AdvanceRepairBase* { return new MtsAdvanceRepair(); }},
    {L"m2ts", []() -> AdvanceRepairBase* { return new MtsAdvanceRepair(); }},
    {L"mkv", []() -> AdvanceRepairBase* { return new MkvAdvanceRepair(); }},
    {L"mxf", []() -> AdvanceRepairBase* { return new MxfAdvanceRepair(); }},
    {L"klv", []() -> AdvanceRepairBase* { return new MxfAdvanceRepair(); }},
    {L"wmv", []() -> AdvanceRepairBase* { return new WmvAdvanceRepair(); }},
    {L"asf", []() -> AdvanceRepairBase* { return new WmvAdvanceRepair(); }},
    {L"mpeg", []() -> AdvanceRepairBase* { return new MpegAdvanceRepair(); }},
    {L"mpg", []() -> AdvanceRepairBase* { return new MpegAdvanceRepair(); }},
};

const char* const kRefused[] = {"mp4", "mov", "3gp", "3g2", "m4v", "insv", "360", "m4a"};

EngineRow ThoroughOnlyRow(const wchar_t* extension) {
    std::wstring name = extension;
    return {name, [name]() -> AdvanceRepairBase* { return new Mp4AdvanceRepair(name); }};
}

// Every refused extension is ISO base media (Insta360 and GoPro 360 files too).
const EngineTable kThoroughOnlyTable = {
    ThoroughOnlyRow(L"mp4"),  ThoroughOnlyRow(L"mov"), ThoroughOnlyRow(L"3gp"), ThoroughOnlyRow(L"3g2"),
    ThoroughOnlyRow(L"m4v"),  ThoroughOnlyRow(L"insv"), ThoroughOnlyRow(L"360"), ThoroughOnlyRow(L"m4a"),
};

}  // namespace

const EngineTable& DefaultEngineTable() { return kEngineTable; }

const EngineTable& ThoroughOnlyEngineTable() { return kThoroughOnlyTable; }

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
    for (const EngineRow& row : table_) {
        if (extension == row.extension) return Create(row, log);
    }
    return nullptr;
}

IAdvanceVideoRepair* EngineRegistry::SelectThoroughOnly(const std::wstring& extension, RepairLog* log) {
    std::lock_guard<std::mutex> guard(listLock_);
    for (const EngineRow& row : ThoroughOnlyEngineTable()) {
        if (!text::EqualsIgnoreCase(extension, row.extension)) continue;
        for (auto& engine : engines_) {
            if (engine->GetFormatName() == row.extension) return engine.get();
        }
        return Create(row, log);
    }
    return nullptr;
}

// Called with the list locked.
IAdvanceVideoRepair* EngineRegistry::Create(const EngineRow& row, RepairLog* log) {
    std::unique_ptr<AdvanceRepairBase> engine(row.create());
    if (!engine) return nullptr;
    engine->SetLogger(log);
    engines_.push_back(std::move(engine));
    return engines_.back().get();
}

void EngineRegistry::ForEach(const std::function<void(AdvanceRepairBase&)>& fn) {
    std::lock_guard<std::mutex> guard(listLock_);
    for (auto& engine : engines_) fn(*engine);
}

size_t EngineRegistry::Count() {
    std::lock_guard<std::mutex> guard(listLock_);
    return engines_.size();
}
