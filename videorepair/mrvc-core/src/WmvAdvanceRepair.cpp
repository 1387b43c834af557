#include "WmvAdvanceRepair.h"

#include <Poco/File.h>
#include <Poco/Path.h>

#include <algorithm>
#include <cstdio>
#include <vector>

#include "AppPaths.h"
#include "EngineProcess.h"
#include "OutputNaming.h"
#include "io/FileWriter.h"
#include "platform/Platform.h"
#include "wmv/AsfPacketCarver.h"
#include "wmv/AviGenerator.h"
#include "wmv/ByteOrder.h"
#include "wmv/WavGenerator.h"

namespace {

const char kLogSource[] = "videorepair/mrvc-core/src/WmvAdvanceRepair";

constexpr size_t kHeaderWindowBytes = 4194304;
constexpr int64_t kSkippedBytesLimit = 0x80000000LL;
// ASF packets are a few KiB; anything far larger is a damaged sample header, and
// records (each at most one packet) are read through one buffer of that size.
constexpr uint32_t kLargestPacketSize = 16u << 20;
// Time limits, in seconds, after which an ffmpeg run is killed.
constexpr int kMergeLimitSeconds = 180;
constexpr int kConvertLimitSeconds = 150;
// Prefix of the search window looked at first (see FindInWindow).
constexpr size_t kProbeBytes = 65536;
// Used when neither the sample nor the damaged file tells the frame rate.
constexpr double kFallbackFrameRate = 25.0;

std::string Narrow(const std::wstring& s) { return platform::ToNarrow(s); }

void RemoveFile(const std::wstring& path) {
    try {
        Poco::File file(Narrow(path));
        if (file.exists()) file.remove();
    } catch (...) {
    }
}

int Percent(int64_t position, int64_t size) {
    return size > 0 ? int(std::clamp<int64_t>(position * 100 / size, 0, 100)) : 100;
}

// Frames are runs of records with one media object number.
int64_t CountFrames(const wmv::PayloadList& list) {
    int64_t frames = 0;
    int64_t previous = -1;
    for (const wmv::PayloadRecord& r : list) {
        if (int64_t(r.mediaObjectNumber) != previous) ++frames;
        previous = r.mediaObjectNumber;
    }
    return frames;
}

std::wstring WorkDirectoryFor(const std::wstring& damagedPath) {
    std::wstring work = app_paths::WorkDirectory();
    if (work.empty()) {
        Poco::Path parent(Narrow(damagedPath));
        parent.makeParent();
        work = platform::ToWide(parent.toString());
        if (work.empty()) work = L".";
    }
    app_paths::CreateDirectories(work);
    return work;
}

}  // namespace

WmvAdvanceRepair::WmvAdvanceRepair() : AdvanceRepairBase("WmvAdvanceRepair", kLogSource) {}

WmvAdvanceRepair::~WmvAdvanceRepair() { damaged_.Close(); }

void WmvAdvanceRepair::Release() {
    Stop();
    damaged_.Close();
    damagedPath_.clear();
    wmv::PayloadList().swap(videoSamples_);
    wmv::PayloadList().swap(audioSamples_);
}

int WmvAdvanceRepair::Repair() {
    LogEntry("Repair");
    BeginRepair();
    if (damagedPath_.empty() || samplePath_.empty()) return -1;
    if (ParseSampleVideo() != 0) {
        ENGINE_LOG(kLogInfo, "[Sprt] parse Sample video failed.", "");
        return -1;
    }
    if (sampleCount_ <= 0) return -1;
    if (!damaged_.Open(damagedPath_)) {
        ENGINE_LOG(kLogInfo, "[Sprt] create file stream failed.", "");
        return -1;
    }
    fileSize_ = damaged_.Size();
    // The sample's sweep is over; the damaged file's starts from 0 again. A stop
    // that came during the sample stands.
    if (!IsStopRequested()) BeginRepair();
    ChooseStreams();
    ScanDamaged();
    LogLists();
    ReportProgress(100);
    return 0;
}

// ---- the sample ----

int WmvAdvanceRepair::ParseSampleVideo() {
    FileReader sample(kHeaderWindowBytes * 2);
    if (!sample.Open(samplePath_)) {
        ENGINE_LOG(kLogInfo, "[Sprt] create sample file stream failed.", "");
        return -1;
    }
    sampleCount_ = 0;
    size_t length = 0;
    const uint8_t* header = sample.View(0, size_t(std::min<int64_t>(sample.Size(), kHeaderWindowBytes)), length);
    int64_t dataAt = -1;
    if (ReadSampleStreams(header, length, dataAt) != 0 || ReadPacketSize(header, length, dataAt) != 0) return -1;

    const int64_t frames = CountSamplePackets(sample, dataAt + int64_t(wmv::WmvAsfInfoParser::kDataObjectHeaderBytes));
    if (sampleVideo_.durationSeconds != 0) sampleVideo_.frameRate = double(frames) / sampleVideo_.durationSeconds;
    ENGINE_LOG(kLogInfo, "[WMV] sample video frames:", frames);
    return 0;
}

// File Properties and the Stream Properties of the header; dataAt: where the
// search for the Data Object starts.
int WmvAdvanceRepair::ReadSampleStreams(const uint8_t* buf, size_t length, int64_t& dataAt) {
    parser_ = std::make_shared<wmv::WmvAsfInfoParser>();
    int64_t headerAt = wmv::WmvAsfInfoParser::FindObject(buf, length, wmv::kAsfHeaderObject);
    if (headerAt < 0 || size_t(headerAt) + 24 > length) {
        ENGINE_LOG(kLogInfo, "[Sprt] search sample headObject failed.", "");
        return -1;
    }
    const uint64_t headerEnd = uint64_t(headerAt) + wmv::Le64(buf + headerAt + 16);
    size_t at = size_t(headerAt);
    int64_t found = wmv::WmvAsfInfoParser::FindObject(buf, length, wmv::kAsfFilePropertiesObject);
    if (found > 0) {
        at = size_t(found);
        uint64_t size = parser_->ParseFileProperties(buf + at, length - at);
        if (size == 0) return -1;
        at += size_t(std::min<uint64_t>(size, length - at));
    }
    while (at < headerEnd && at < length && !IsStopRequested()) {
        found = wmv::WmvAsfInfoParser::FindObject(buf + at, length - at, wmv::kAsfStreamPropertiesObject);
        if (found < 0) break;
        at += size_t(found);
        uint64_t size = parser_->ParseStreamProperties(buf + at, length - at);
        if (size == 0) return -1;
        at += size_t(std::min<uint64_t>(size, length - at));
        if (parser_->VideoInfo().streamNumber != 0 && parser_->AudioInfo().streamNumber != 0) break;
    }
    sampleVideo_ = parser_->VideoInfo();
    sampleAudio_ = parser_->AudioInfo();
    dataAt = int64_t(at);
    return 0;
}

int WmvAdvanceRepair::ReadPacketSize(const uint8_t* buf, size_t length, int64_t& dataAt) {
    int64_t found = wmv::WmvAsfInfoParser::FindObject(buf + dataAt, length - size_t(dataAt), wmv::kAsfDataObject);
    if (found < 0) {
        ENGINE_LOG(kLogInfo, "[WMV] search data object failed, offset:.", dataAt);
        return -1;
    }
    dataAt += found;
    uint32_t packetSize = 0;
    if (!wmv::WmvAsfInfoParser::PacketSize(buf + dataAt, length - size_t(dataAt), packetSize) ||
        packetSize > kLargestPacketSize) {
        ENGINE_LOG(kLogInfo, "[WMV] data object gives no packet size (no packets counted), offset:.", dataAt);
        return -1;
    }
    packetSize_ = packetSize;
    return 0;
}

// Carves the sample's packets one packet size at a time; counts the records
// (the sample count) and returns the video frames among them.
int64_t WmvAdvanceRepair::CountSamplePackets(FileReader& sample, int64_t firstPacket) {
    wmv::CarveSettings settings;
    settings.packetSize = packetSize_;
    settings.videoStream = sampleVideo_.streamNumber;
    settings.audioStream = sampleAudio_.streamNumber;
    const int64_t size = sample.Size();
    int64_t frames = 0;
    int64_t previousObject = -1;
    for (int64_t at = firstPacket; at < size; at += packetSize_) {
        ReportProgress(Percent(at, size));
        size_t length = 0;
        const uint8_t* packet = sample.View(at, packetSize_, length);
        if (packet == nullptr || length == 0) break;
        for (const wmv::PayloadRecord& r : wmv::CarvePacket(packet, length, at, settings).records) {
            ++sampleCount_;
            if (r.streamNumber != settings.videoStream) continue;
            if (int64_t(r.mediaObjectNumber) != previousObject) ++frames;
            previousObject = r.mediaObjectNumber;
        }
        if (PauseThenShouldStop()) break;
    }
    return frames;
}

// ---- the damaged file ----

void WmvAdvanceRepair::ChooseStreams() {
    wmv::WmvAsfInfoParser own;
    if (damaged_.Fill()) own.SearchStreamProperties(damaged_.Data(), damaged_.Length());
    damagedVideo_ = own.VideoInfo();
    damagedAudio_ = own.AudioInfo();
    chosenVideo_ = damagedVideo_.streamNumber > 0 ? damagedVideo_ : sampleVideo_;
    chosenAudio_ = damagedAudio_.streamNumber > 0 ? damagedAudio_ : sampleAudio_;
    // Only the sample's File Properties and payloads tell the timing.
    chosenVideo_.durationSeconds = sampleVideo_.durationSeconds;
    chosenVideo_.frameRate = sampleVideo_.frameRate > 0 ? sampleVideo_.frameRate : kFallbackFrameRate;
    videoSamples_.clear();
    audioSamples_.clear();
}

void WmvAdvanceRepair::ScanDamaged() {
    int64_t skipped = 0;
    damaged_.Seek(0);
    while (damaged_.Position() < fileSize_ && !IsStopRequested()) {
        ReportProgress(Percent(damaged_.Position(), fileSize_));
        size_t window = 0;
        int64_t found = FindInWindow(window);
        if (window == 0) break;
        if (found < 0) {
            skipped += int64_t(window);
            damaged_.Advance(int64_t(window));
        } else if (!CarveAt(damaged_.Position() + found)) {
            if (++skipped > kSkippedBytesLimit) {
                ENGINE_LOG(kLogInfo, "[MXF] Unused size exceed, offset:.", damaged_.Position());
                break;
            }
        }
        if (PauseThenShouldStop()) break;
    }
}

// The first packet start in the search window at the position (min(remaining,
// 4 MiB) bytes). A short prefix is searched first: the first match there is the
// window's first match, and a packet-by-packet walk then never makes the reader
// keep 4 MiB ahead of it resident.
int64_t WmvAdvanceRepair::FindInWindow(size_t& windowLength) {
    const size_t window = size_t(std::min<int64_t>(damaged_.Remaining(), PositionedReader::kWindowBytes));
    size_t got = 0;
    const uint8_t* probe = damaged_.File().View(damaged_.Position(), std::min(window, kProbeBytes), got);
    windowLength = got;
    if (probe == nullptr || got == 0) return -1;
    int64_t found = wmv::FindPacketStart(probe, got);
    if (found >= 0 || got == window) return found;
    windowLength = damaged_.Fill() ? damaged_.Length() : 0;
    return windowLength > 0 ? wmv::FindPacketStart(damaged_.Data(), damaged_.Length()) : -1;
}

// Carves the packet at match; on nothing carved, moves on past the match (two
// bytes when the carving had read on, one when it had not).
bool WmvAdvanceRepair::CarveAt(int64_t match) {
    wmv::CarveSettings settings;
    settings.packetSize = packetSize_;
    settings.videoStream = sampleVideo_.streamNumber;
    settings.audioStream = sampleAudio_.streamNumber;
    settings.cancelled = [this]() { return IsStopRequested(); };
    damaged_.Seek(match);
    // The carving never reads further than this into its window (63 payloads,
    // each with a header, replicated data and payload of at most a packet), so a
    // view cut there gives the same records as the whole window.
    const size_t reach = 64 + 63 * (size_t(packetSize_) * 2 + 17);
    const size_t window = size_t(std::min<int64_t>(damaged_.Remaining(), PositionedReader::kWindowBytes));
    size_t length = 0;
    const uint8_t* data = damaged_.File().View(match, std::min(window, reach), length);
    wmv::CarveResult carved = wmv::CarvePacket(data, length, match, settings);
    for (const wmv::PayloadRecord& r : carved.records) {
        if (r.streamNumber == chosenVideo_.streamNumber) videoSamples_.push_back(r);
        if (r.streamNumber == chosenAudio_.streamNumber) audioSamples_.push_back(r);
    }
    if (!carved.records.empty()) {
        damaged_.Seek(match + carved.advance);
        return true;
    }
    damaged_.Seek(match + (carved.advance > 0 ? 2 : 1));
    return false;
}

void WmvAdvanceRepair::LogLists() {
    struct Kind {
        const char* count;
        const char* line;
        const wmv::PayloadList* list;
    };
    const Kind kinds[] = {
        {"[mxf] Video samples counts is:", "[Wmv] Video sample Sequence %d: offset:%lld, size:%lld\n", &videoSamples_},
        {"[mxf] Audio samples counts is:", "[Wmv] Audio sample Sequence %d: offset:%lld, size:%lld\n", &audioSamples_},
    };
    for (const Kind& kind : kinds) {
        if (log_ == nullptr) break;
        ENGINE_LOG(kLogInfo, kind.count, int64_t(kind.list->size()));
        int64_t total = 0;
        char text[160];
        for (size_t i = 0; i < kind.list->size(); ++i) {
            const wmv::PayloadRecord& r = (*kind.list)[i];
            std::snprintf(text, sizeof text, kind.line, int(i), (long long)r.offset, (long long)r.size);
            ENGINE_LOG(kLogDebug, text, "");
            total += r.size;
        }
        ENGINE_LOG(kLogInfo, "result size:", total);
    }
}

// ---- the output ----

std::wstring WmvAdvanceRepair::GetRepairedVideo(std::wstring& result, const std::wstring& first,
                                                const std::wstring& second, int mode) {
    result.clear();
    const std::wstring work = WorkDirectoryFor(damagedPath_);
    const std::wstring base = work + L"/" + naming::NewUuidText();
    const std::wstring videoBase = base + L"_video";
    const std::wstring audioBase = base + L"_audio";
    std::wstring wavPath;
    if (!WritePureVideo(videoBase)) return result;
    bool haveAudio = WritePureAudio(audioBase, wavPath);

    std::wstring output;
    naming::MakeOutputPath(output, first, second, mode);
    std::wstring merged;
    naming::MakeOutputPath(merged, first, work, mode);
    Poco::Path mergedPath(Narrow(merged));
    mergedPath.setExtension("avi");
    merged = platform::ToWide(mergedPath.toString());

    ENGINE_LOG(kLogError, "[WMV] start to MergeVideoAduio to avi file:.", Narrow(merged));
    bool ok = MergeVideoAudio(videoBase + L".avi", haveAudio ? wavPath : std::wstring(), merged) == 0;
    if (!ok) ENGINE_LOG(kLogError, "[CTRL] Merge avi failed, MergeFileName:", Narrow(merged));
    if (ok && ConvertToWmv(merged, output) != 0) {
        ENGINE_LOG(kLogError, "[CTRL] Convert avi to wmv failed, avi FileName:", Narrow(merged));
        RemoveFile(output);
        ok = false;
    }
    for (const std::wstring& temporary : {videoBase, videoBase + L".avi", audioBase, wavPath, merged})
        if (!temporary.empty()) RemoveFile(temporary);
    damaged_.Close();
    if (ok) result = output;
    return result;
}

bool WmvAdvanceRepair::WritePureVideo(const std::wstring& base) {
    ENGINE_LOG(kLogError, "[WMV] start to generate pure video file:.", Narrow(base));
    int code = ExtractSamples(videoSamples_, base, 0);
    if (code != 0) {
        ENGINE_LOG(kLogError, "[CTRL] Extract video frames failed, code:", int32_t(code));
        RemoveFile(base);
        return false;
    }
    wmv::AviGenerator avi(Narrow(damagedPath_), Narrow(base + L".avi"), videoSamples_, chosenVideo_);
    if (avi.Generate() != 0) {
        ENGINE_LOG(kLogError, "[WMV] open pure video file failed:", Narrow(base + L".avi"));
        RemoveFile(base);
        RemoveFile(base + L".avi");
        return false;
    }
    return true;
}

bool WmvAdvanceRepair::WritePureAudio(const std::wstring& base, std::wstring& wavPath) {
    ENGINE_LOG(kLogError, "[WMV] start to generate pure audio file:.", Narrow(base));
    int code = ExtractSamples(audioSamples_, base, 0);
    if (code != 0) {
        ENGINE_LOG(kLogError, "[CTRL] Extract audio frames failed, code:", int32_t(code));
        RemoveFile(base);
        return false;
    }
    wavPath = base + L".wav";
    wmv::WavGenerator wav(Narrow(damagedPath_), Narrow(wavPath), audioSamples_, chosenAudio_);
    if (wav.Generate() != 0) {
        ENGINE_LOG(kLogError, "[WMV] open pure audio file failed:", Narrow(wavPath));
        return false;
    }
    return true;
}

// Raw dump of the first count records (0: all) in list order. 0, or -1 for an
// empty list, -2 when the output cannot be opened, -3 when stopped.
int WmvAdvanceRepair::ExtractSamples(const wmv::PayloadList& list, const std::wstring& path, size_t count) {
    if (list.empty()) {
        ENGINE_LOG(kLogInfo, "[Wmv] dataList is empty:.", "");
        return -1;
    }
    FileWriter out;
    if (!out.Create(path)) {
        ENGINE_LOG(kLogInfo, "[Wmv] Open output stream failed ,out path is:.", Narrow(path));
        return -2;
    }
    if (!damaged_.IsOpen()) damaged_.Open(damagedPath_);
    if (count == 0 || count > list.size()) count = list.size();
    int64_t total = 0;
    for (size_t i = 0; i < count; ++i) total += list[i].size;
    ENGINE_LOG(kLogDebug, "[Wmv] extract bytes:", total);
    std::vector<char> buffer;
    for (size_t i = 0; i < count; ++i) {
        if (PauseThenShouldStop()) return -3;
        buffer.resize(size_t(list[i].size));
        int64_t got = damaged_.File().ReadAt(list[i].offset, buffer.data(), buffer.size());
        if (got > 0) out.Write(buffer.data(), size_t(got));
    }
    // A dump the disk did not take whole (full, or over a size limit) is no dump.
    return out.Close() ? 0 : -2;
}

// ---- ffmpeg ----

// All that the AVI holds, at the rate its header announces (doubled for some
// codecs, not for others such as VC-1), and a quarter of a frame more so that
// rounding never cuts the last one.
double WmvAdvanceRepair::MergeDuration() const {
    const uint32_t frames = uint32_t(CountFrames(videoSamples_));
    const double seconds = wmv::AviGenerator::Seconds(frames, chosenVideo_.frameRate, chosenVideo_.codec);
    if (seconds <= 0) return double(frames) / chosenVideo_.frameRate;
    return seconds * (frames + 0.25) / std::max<uint32_t>(frames, 1);
}


int WmvAdvanceRepair::RunFfmpeg(const char* what, const std::vector<std::string>& args, int limitSeconds) {
    const std::wstring ffmpeg = app_paths::FfmpegPath();
    std::string command = Narrow(ffmpeg);
    for (const std::string& arg : args) command += " \"" + arg + "\"";
    ENGINE_LOG(kLogInfo, std::string("[WMV] ") + what + " command:", command);
    EngineProcessResult run = RunEngineProcess(log_, kLogSource, ffmpeg, args, limitSeconds);
    if (Succeeded(run)) return 0;
    int32_t code = run.timedOut ? -2 : (run.started ? run.exitCode : -1);
    ENGINE_LOG(kLogError, std::string("[WMV] ") + what + " command failed, ret:", code);
    if (!run.output.empty()) ENGINE_LOG(kLogDebug, "[WMV] ffmpeg output:", run.output);
    return -1;
}

int WmvAdvanceRepair::MergeVideoAudio(const std::wstring& avi, const std::wstring& wav, const std::wstring& merged) {
    std::vector<std::string> args = {"-y", "-i", Narrow(avi)};
    if (!wav.empty() && app_paths::RegularFileExists(wav)) {
        args.insert(args.end(), {"-i", Narrow(wav)});
        if (copyAudio_ == 1) args.insert(args.end(), {"-acodec", "copy"});
    }
    char duration[64];
    std::snprintf(duration, sizeof duration, "%f", MergeDuration());
    args.insert(args.end(), {"-c:v", "copy", "-t", duration});
    if (copyAudio_ == 0) args.push_back("-ac");
    args.push_back("2");
    args.push_back(Narrow(merged));
    return RunFfmpeg("merge", args, kMergeLimitSeconds);
}

int WmvAdvanceRepair::ConvertToWmv(const std::wstring& merged, const std::wstring& output) {
    if (!app_paths::RegularFileExists(merged)) return -1;
    return RunFfmpeg("convert",
                     {"-y", "-i", Narrow(merged), "-c:v", "copy", "-c:a", "copy", Narrow(output)},
                     kConvertLimitSeconds);
}
