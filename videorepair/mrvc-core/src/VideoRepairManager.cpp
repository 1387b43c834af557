#include "VideoRepairManager.h"

#include <Poco/File.h>
#include <Poco/Path.h>

#include <cstring>
#include <cwctype>
#include <exception>

#include "AppPaths.h"
#include "FfmpegRunner.h"
#include "IVideoRepairObserver.h"
#include "OutputNaming.h"
#include "TextUtil.h"
#include "VideoRepairOptions.h"
#include "io/FileReader.h"
#include "io/FileWriter.h"
#include "io/ReadFaults.h"
#include "io/WriteFailure.h"
#include "platform/Platform.h"

namespace {

const char* const kLogSource = "videorepair/mrvc-core/src/VideoRepairManager";
const wchar_t* const kLogFileName = L"/KzVideoRepair.log";

// Nothing may be thrown across the interface: anything unexpected is a failure.
template <class F>
int32_t Guarded(F&& body) {
    try {
        return body();
    } catch (...) {
        return -1;
    }
}

std::wstring FileNameOf(const std::wstring& path) {
    return platform::ToWide(Poco::Path(platform::ToNarrow(path)).getFileName());
}

std::wstring ParentOf(const std::wstring& path) {
    return platform::ToWide(Poco::Path(platform::ToNarrow(path)).parent().toString());
}

}  // namespace

VideoRepairManager::~VideoRepairManager() = default;

EngineRegistry* VideoRepairManager::Registry() { return engineRegistry_.get(); }

size_t VideoRepairManager::EngineCount() {
    std::lock_guard<std::mutex> guard(registryLock_);
    return engineRegistry_ ? engineRegistry_->Count() : 0;
}

int32_t VideoRepairManager::Initialize(IVideoRepairObserver* observer, const wchar_t* logDirectory,
                                       const wchar_t* workDirectory) {
    if (observer == nullptr) return -1;
    return Guarded([&]() -> int32_t {
        std::lock_guard<std::mutex> guard(lock_);
        observer_ = observer;
        applicationDirectory_ = app_paths::ApplicationDirectory();
        ffmpegPath_ = app_paths::FfmpegPath();

        std::wstring work = workDirectory != nullptr ? workDirectory : app_paths::DefaultWorkDirectory();
        app_paths::SetWorkDirectory(work);
        if (!app_paths::DirectoryExists(work)) app_paths::CreateDirectories(work);

        std::wstring logs = text::ReplaceAll(logDirectory != nullptr ? logDirectory : applicationDirectory_,
                                             L'\\', L'/');
        if (!app_paths::DirectoryExists(logs)) logs = applicationDirectory_;
        logDirectory_ = logs;

        log_.reset();
        log_ = std::make_unique<RepairLog>(0, platform::ToNarrow(logs + kLogFileName));
        {
            std::lock_guard<std::mutex> registryGuard(registryLock_);
            engineRegistry_.reset();
            engineRegistry_ = std::make_unique<EngineRegistry>(engineTable_);
        }
        records_.clear();
        return log_ && engineRegistry_ ? 0 : -1;
    });
}

int32_t VideoRepairManager::SetRepairMode(uint32_t mode) {
    if (mode > 2) return -1;
    repairMode_ = mode;
    return 0;
}

int32_t VideoRepairManager::SetEngineStrings(const wchar_t* s1, const wchar_t* s2, const wchar_t* s3,
                                             const wchar_t* s4) {
    const wchar_t* given[4] = {s1, s2, s3, s4};
    for (int i = 0; i < 4; ++i) {
        if (given[i] != nullptr) engineStrings_.values[i] = given[i];
    }
    return 0;
}

IAdvanceVideoRepair* VideoRepairManager::EngineFor(const std::wstring& videoPath, bool thorough) {
    std::wstring extension = text::ExtensionOf(videoPath);
    // Cameras name files 00000.MTS or MVI_0001.AVI; the thorough road takes any
    // letter case, the others keep the exact-case table.
    if (thorough) {
        for (wchar_t& c : extension) c = wchar_t(std::towlower(wint_t(c)));
    }
    if (IsRefusedExtension(extension))
        return thorough ? engineRegistry_->SelectThoroughOnly(extension, log_.get()) : nullptr;
    return engineRegistry_->Select(extension, log_.get());
}

int32_t VideoRepairManager::Repair(const wchar_t* videoPath, const wchar_t* samplePath) {
    if (videoPath == nullptr || samplePath == nullptr) return -1;
    return Guarded([&]() -> int32_t {
        std::lock_guard<std::mutex> guard(lock_);
        return RunEngine(videoPath, samplePath, [&](IAdvanceVideoRepair& engine, std::wstring& repaired) {
            // The engine's readers share what the damaged file would not give; it is
            // logged only when something was lost, so clean files log as before.
            ReadFaultWatch watch(videoPath, nullptr);
            int result = engine.Repair();
            for (const auto& range : watch.Faults()->Ranges())
                VR_LOG(log_.get(), kLogWarning, "Repair read zeros for unreadable bytes (offset, length):",
                       std::to_string(range.first) + ", " + std::to_string(range.second));
            if (result == 0) {
                std::wstring output;
                repaired = engine.GetRepairedVideo(output, videoPath, std::wstring(), 0);
            }
            return result;
        });
    });
}

int32_t VideoRepairManager::RepairWithOptions(const wchar_t* videoPath, const wchar_t* samplePath,
                                              uint32_t option, void* optionData) {
    if (videoPath == nullptr || samplePath == nullptr || optionData == nullptr) return -1;
    return Guarded([&]() -> int32_t {
        std::lock_guard<std::mutex> guard(lock_);
        if (option != kRepairOptionThorough) {
            if (!engineRegistry_) return -1;
            IAdvanceVideoRepair* engine = EngineFor(videoPath);
            return engine == nullptr ? -1 : engine->RepairWithOptions(videoPath, samplePath, optionData, option);
        }
        // A whole repair, seen by the host exactly as Repair is.
        if (static_cast<const ThoroughRepairOptions*>(optionData)->size < kThoroughOptionsMinimumSize) return -1;
        return RunEngine(videoPath, samplePath, [&](IAdvanceVideoRepair& engine, std::wstring& repaired) {
            int result = engine.RepairWithOptions(videoPath, samplePath, optionData, option);
            if (result == 0) repaired = static_cast<AdvanceRepairBase&>(engine).ThoroughResult();
            return result;
        }, true);
    });
}

int32_t VideoRepairManager::RunEngine(const wchar_t* videoPath, const wchar_t* samplePath, const EngineRun& run,
                                      bool thorough) {
    if (!engineRegistry_) return -1;
    IAdvanceVideoRepair* engine = EngineFor(videoPath, thorough);
    if (engine == nullptr) return -1;

    engine->SetObserver(observer_);
    engine->SetRepairMode(int(repairMode_));
    engine->SetEngineStrings(&engineStrings_);
    engine->SetVideoPath(videoPath, samplePath);
    engine->SetProgressCallback([this](int percent) { ReportProgress(0, percent); });

    if (observer_ != nullptr) observer_->OnStarted();
    std::wstring repaired;
    int result = run(*engine, repaired);
    if (observer_ != nullptr) observer_->OnFinished();
    if (result != 0) return result;

    auto record = std::make_unique<RepairRecord>();
    record->byEngine = true;
    record->videoPath = videoPath;
    record->repairedPath = repaired;
    record->currentPath = record->repairedPath;
    records_.push_back(std::move(record));
    return 0;
}

int32_t VideoRepairManager::FfmpegRepair(const wchar_t* videoPath) {
    if (videoPath == nullptr || IsRefusedExtension(text::ExtensionOf(videoPath))) return -1;
    return Guarded([&]() -> int32_t {
        std::lock_guard<std::mutex> guard(lock_);
        std::wstring work = app_paths::WorkDirectory();
        if (work.empty()) work = app_paths::DefaultWorkDirectory();
        if (!app_paths::DirectoryExists(work)) app_paths::CreateDirectories(work);
        std::wstring outputPath;
        naming::MakeRepairedFileName(outputPath, videoPath, work + L"/RepairedVideo");

        if (observer_ != nullptr) observer_->OnStarted();
        int result = RunStreamCopy(ffmpegPath_, videoPath, outputPath, log_.get(), observer_);
        if (observer_ != nullptr) observer_->OnFinished();
        if (result != 0) return result;

        auto record = std::make_unique<RepairRecord>();
        record->byEngine = false;
        record->videoPath = videoPath;
        record->repairedPath = outputPath;
        record->currentPath = outputPath;
        records_.push_back(std::move(record));
        return 0;
    });
}

void VideoRepairManager::ForEachEngine(void (AdvanceRepairBase::*action)()) {
    std::lock_guard<std::mutex> guard(registryLock_);
    if (engineRegistry_) engineRegistry_->ForEach([action](AdvanceRepairBase& e) { (e.*action)(); });
}

// Pause, Resume and Cancel never wait for a running repair: they only flip flags.
void VideoRepairManager::Pause(uint32_t) {
    paused_.store(true, std::memory_order_relaxed);
    ForEachEngine(&AdvanceRepairBase::Pause);
    if (observer_ != nullptr) observer_->OnPaused();
}

void VideoRepairManager::Resume(uint32_t) {
    paused_.store(false, std::memory_order_relaxed);
    ForEachEngine(&AdvanceRepairBase::Resume);
    if (observer_ != nullptr) observer_->OnResumed();
}

void VideoRepairManager::Cancel(uint32_t) {
    stopped_.store(true, std::memory_order_relaxed);
    ForEachEngine(&AdvanceRepairBase::Stop);
    if (observer_ != nullptr) observer_->OnStopped();
}

void VideoRepairManager::Release() {
    try {
        std::lock_guard<std::mutex> guard(lock_);
        {
            std::lock_guard<std::mutex> registryGuard(registryLock_);
            if (engineRegistry_) engineRegistry_->ForEach([](AdvanceRepairBase& e) { e.Release(); });
            engineRegistry_.reset();
        }
        records_.clear();
        if (log_) log_->Close();
        log_.reset();
    } catch (...) {
    }
}

const RepairRecord* VideoRepairManager::FindRecord(const std::wstring& videoPath) const {
    for (const auto& record : records_) {
        if (text::EqualsIgnoreCase(record->videoPath, videoPath)) return record.get();
    }
    return nullptr;
}

int32_t VideoRepairManager::GetRepairedFilePath(wchar_t* outPath, const wchar_t* videoPath) {
    if (outPath == nullptr || videoPath == nullptr) return -1;
    std::lock_guard<std::mutex> guard(lock_);
    for (const auto& record : records_) {
        if (record->currentPath.empty() || !text::EqualsIgnoreCase(record->videoPath, videoPath)) continue;
        std::memcpy(outPath, record->currentPath.c_str(), (record->currentPath.size() + 1) * sizeof(wchar_t));
        return 0;
    }
    return -1;
}

void VideoRepairManager::ReportProgress(int kind, int value) {
    if (observer_ != nullptr) observer_->OnProgress(kind, value, 0, nullptr);
}

int32_t VideoRepairManager::SaveAs(const wchar_t* videoPath, const wchar_t* destinationPath) {
    return SaveAs(videoPath, destinationPath, SaveProgressCallback());
}

int32_t VideoRepairManager::SaveAs(const wchar_t* videoPath, const wchar_t* destinationPath,
                                   SaveProgressCallback callback) {
    if (videoPath == nullptr || destinationPath == nullptr) {
        VR_LOG(log_.get(), kLogError, "SaveAs failed, invalid parameter", int32_t(-1));
        return -1;
    }
    return Guarded([&]() -> int32_t {
        std::lock_guard<std::mutex> guard(lock_);
        std::wstring destination = destinationPath;
        // Into an existing directory the copy goes under the damaged file's name,
        // unless that would be the damaged file itself.
        if (app_paths::DirectoryExists(destination)) {
            destination += L"/" + FileNameOf(videoPath);
        }
        app_paths::CreateDirectories(ParentOf(destination));

        const RepairRecord* record = FindRecord(videoPath);
        if (record == nullptr) {
            VR_LOG(log_.get(), kLogError, "SaveAs failed, repair record not found:", platform::ToNarrow(videoPath));
            return -1;
        }
        const std::wstring& source = record->repairedPath.empty() ? record->currentPath : record->repairedPath;
        if (source.empty() || !app_paths::RegularFileExists(source)) {
            VR_LOG(log_.get(), kLogError, "SaveAs failed, repaired file missing:", platform::ToNarrow(source));
            return -1;
        }
        if (platform::SameFile(destination, videoPath)) {
            if (!app_paths::DirectoryExists(destinationPath)) {
                VR_LOG(log_.get(), kLogError, "SaveAs failed, destination is the damaged file:",
                       platform::ToNarrow(destination));
                return -1;
            }
            destination = std::wstring(destinationPath) + L"/" + FileNameOf(source);
        }
        if (callback) callback(1, 1);
        if (CopyRepairedFile(source, destination, callback) != 0) return -1;
        if (callback) {
            callback(1, 100);
        } else {
            ReportProgress(1, 100);
        }
        return 0;
    });
}

int32_t VideoRepairManager::CopyRepairedFile(const std::wstring& source, const std::wstring& destination,
                                             const SaveProgressCallback&) {
    if (platform::SameFile(source, destination)) return 0;  // already there
    // Written under a temporary name beside the destination and renamed into place
    // only when complete, so a full disk leaves no partial file behind.
    const std::wstring partial = FolderOf(destination) + L"/.vr-" + naming::NewUuidText() + L".part";
    FileReader in(FileWriter::kPieceBytes * 2);
    FileWriter out;
    std::string why;
    bool ok = in.Open(source) && RoomFor(FolderOf(destination), in.Size(), why) && out.Create(partial);
    std::vector<uint8_t> piece(FileWriter::kPieceBytes);
    for (int64_t offset = 0; ok && offset < in.Size();) {
        int64_t n = in.ReadAt(offset, piece.data(), piece.size());
        if (n <= 0) {
            ok = false;
            break;
        }
        ok = out.Write(piece.data(), size_t(n));
        offset += n;
    }
    ok = out.Close() && ok;
    if (ok) ok = platform::RenameReplacing(partial, destination);
    if (!ok) {
        if (why.empty() && out.Failure() != platform::IoFailure::kNone)
            why = WriteFailureText(out.Failure(), FolderOf(destination), in.Size());
        try {
            Poco::File(platform::ToNarrow(partial)).remove();
        } catch (...) {
        }
        VR_LOG(log_.get(), kLogError, "SaveAs failed, copy error:",
               platform::ToNarrow(destination) + (why.empty() ? "" : " (" + why + ")"));
        return -1;
    }
    return 0;
}
