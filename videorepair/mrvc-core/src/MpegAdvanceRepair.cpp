#include "MpegAdvanceRepair.h"

#include <Poco/File.h>
#include <Poco/Path.h>
#include <Poco/UUIDGenerator.h>

#include <cstdio>
#include <utility>

#include "AppPaths.h"
#include "EngineProcess.h"
#include "MpegPrefixLearner.h"
#include "OutputNaming.h"
#include "io/FileWriter.h"
#include "platform/Platform.h"

namespace {

const char kLogSource[] = "videorepair/mrvc-core/src/MpegAdvanceRepair";
constexpr int kFfmpegTimeoutSeconds = 30;

enum WriteResult { kWritten = 0, kEmptyList = 1, kCannotCreate = 2, kWriteFailed = 3 };

std::string Narrow(const std::wstring& path) { return platform::ToNarrow(path); }

int64_t FileSizeOf(const std::wstring& path) {
    try {
        Poco::File file(Narrow(path));
        return file.exists() && file.isFile() ? int64_t(file.getSize()) : -1;
    } catch (...) {
        return -1;
    }
}

void RemoveQuietly(const std::wstring& path) {
    if (path.empty()) return;
    try {
        Poco::File file(Narrow(path));
        if (file.exists()) file.remove();
    } catch (...) {
    }
}

// printf-style text for the few messages that carry their value inside.
template <class... Args>
std::string Format(const char* format, Args... args) {
    int n = std::snprintf(nullptr, 0, format, args...);
    if (n <= 0) return std::string();
    std::string text(size_t(n) + 1, '\0');
    std::snprintf(&text[0], text.size(), format, args...);
    text.resize(size_t(n));
    return text;
}

int Percent(int64_t position, int64_t size) { return size > 0 ? int(position * 100 / size) : 100; }

}  // namespace

MpegAdvanceRepair::MpegAdvanceRepair() : MpegAdvanceRepair(app_paths::FfmpegPath()) {}

MpegAdvanceRepair::MpegAdvanceRepair(std::wstring ffmpegPath)
    : AdvanceRepairBase("MpegAdvanceRepair", kLogSource), ffmpegPath_(std::move(ffmpegPath)) {}

MpegAdvanceRepair::~MpegAdvanceRepair() {
    sample_.Close();
    damaged_.Close();
}

void MpegAdvanceRepair::Release() {
    Stop();
    sample_.Close();
    damaged_.Close();
    outputPath_.clear();
    std::vector<SampleRecord>().swap(allSamples_);
    std::vector<SampleRecord>().swap(videoSamples_);
    std::vector<SampleRecord>().swap(audioSamples_);
}

bool MpegAdvanceRepair::OpenReader(PositionedReader& reader, const std::wstring& path) {
    if (reader.Open(path)) return true;
    ENGINE_LOG(kLogInfo, "[Sprt] Open file stream failed,file is:", Narrow(path));
    return false;
}

// ---- sample analysis ----

int MpegAdvanceRepair::ParseSampleVideo() {
    videoPrefixBytes_ = 0;
    audioPrefixBytes_ = 0;
    noAudio_ = false;  // learnt again from every sample
    if (!OpenReader(sample_, samplePath_)) {
        ENGINE_LOG(kLogInfo, "[Sprt] create sample file stream failed.", "");
        return -1;
    }
    MpegPrefixLearner learner(LearnerControl());
    const std::wstring videoPath = ExtractSampleVideoStream();
    if (videoPath.empty()) {
        sample_.Close();
        return -1;
    }
    videoPrefixBytes_ = learner.LearnVideoPrefix(sample_, videoPath);
    ENGINE_LOG(kLogInfo, Format("[MpegAdvanceRepair] Video prefix bytes:%u.", unsigned(videoPrefixBytes_)), "");
    RemoveQuietly(videoPath);  // the extractions serve only the learning

    sample_.Seek(0);
    const std::wstring audioPath = ExtractSampleAudioStream();
    if (audioPath.empty()) {
        noAudio_ = true;  // video-only repair
    } else {
        audioPrefixBytes_ = learner.LearnAudioPrefix(sample_, audioPath);
        ENGINE_LOG(kLogInfo, Format("[MpegAdvanceRepair] Audio prefix bytes:%u.", unsigned(audioPrefixBytes_)), "");
        RemoveQuietly(audioPath);
    }
    sample_.Close();
    return 0;
}

MpegPrefixLearner::Control MpegAdvanceRepair::LearnerControl() {
    MpegPrefixLearner::Control control;
    control.progress = [this](int percent) { ReportProgress(percent); };
    control.pauseThenShouldStop = [this]() { return PauseThenShouldStop(); };
    control.stopRequested = [this]() { return IsStopRequested(); };
    return control;
}

// The sample's directory joined with its base name; the extractions go beside the sample.
static std::string SampleStem(const std::wstring& samplePath) {
    Poco::Path path(Narrow(samplePath));
    return path.parent().toString() + path.getBaseName();
}

std::wstring MpegAdvanceRepair::ExtractSampleVideoStream() {
    try {
        std::string out = SampleStem(samplePath_) + "_Video.dat";
        return ExtractSampleStream(
            {"-y", "-i", Narrow(samplePath_), "-an", "-c:v", "copy", "-f", "rawvideo", out}, out);
    } catch (...) {
        return std::wstring();
    }
}

std::wstring MpegAdvanceRepair::ExtractSampleAudioStream() {
    try {
        std::string out = SampleStem(samplePath_) + "_Audio.wav";
        return ExtractSampleStream({"-y", "-i", Narrow(samplePath_), "-vn", "-acodec", "copy", out}, out);
    } catch (...) {
        return std::wstring();
    }
}

// A run that fails, or leaves nothing behind, yields no path.
std::wstring MpegAdvanceRepair::ExtractSampleStream(const std::vector<std::string>& args, const std::string& outPath) {
    std::wstring path = platform::ToWide(outPath);
    if (RunFfmpeg(args, kFfmpegTimeoutSeconds) == 0 && FileSizeOf(path) > 0) return path;
    RemoveQuietly(path);
    return std::wstring();
}

// ---- scan ----

int MpegAdvanceRepair::Repair() {
    LogEntry("Repair");
    BeginRepair();
    if (ParseSampleVideo() != 0) {
        ENGINE_LOG(kLogInfo, "[Sprt] parse Sample video failed.", "");
        return -1;
    }
    if (!OpenReader(damaged_, damagedPath_)) {
        ENGINE_LOG(kLogInfo, "[Sprt] create file stream failed.", "");
        return -1;
    }
    allSamples_.clear();
    matcher_.SetPrefixes(videoPrefixBytes_, audioPrefixBytes_);
    matcher_.SetNoAudio(noAudio_);
    matcher_.Reset();
    ScanDamagedFile();
    SplitSamples();
    LogSampleLists();
    ReportProgress(100);
    return 0;
}

// Byte by byte, a whole packet at a time where one is accepted. Runs of bytes
// that cannot start a packet are passed in one step, with the progress values
// the single steps would have reported.
void MpegAdvanceRepair::ScanDamagedFile() {
    const int64_t size = damaged_.Size();
    while (damaged_.Position() < size) {
        const int64_t position = damaged_.Position();
        ReportProgress(Percent(position, size));
        if (!damaged_.Fill()) break;  // unreadable: keep what was found
        SampleRecord record = matcher_.MatchPacketAt(position, damaged_.Data(), damaged_.Length());
        if (record.found) {
            allSamples_.push_back(record);
            damaged_.Advance(int64_t(record.packetLength));
        } else {
            int64_t step = matcher_.DistanceToNextCandidate(damaged_.Data(), damaged_.Length(), size - position);
            ReportSkippedProgress(position, step, size);
            damaged_.Advance(step);
        }
        if (PauseThenShouldStop()) break;
    }
}

// The values position+1 .. position+step-1 would have reported. From 100 bytes
// on, neighbouring positions differ by at most one percent, so every value in
// between is reached; smaller files go position by position.
void MpegAdvanceRepair::ReportSkippedProgress(int64_t position, int64_t step, int64_t size) {
    if (step <= 1) return;
    if (size < 100) {
        for (int64_t p = position + 1; p < position + step; ++p) ReportProgress(Percent(p, size));
        return;
    }
    const int last = Percent(position + step - 1, size);
    for (int value = Percent(position + 1, size); value <= last; ++value) ReportProgress(value);
}

void MpegAdvanceRepair::SplitSamples() {
    videoSamples_.clear();
    audioSamples_.clear();
    for (const SampleRecord& record : allSamples_) {
        if (record.kind == SampleRecord::kVideo) videoSamples_.push_back(record);
        else if (record.kind == SampleRecord::kAudio) audioSamples_.push_back(record);
    }
}

void MpegAdvanceRepair::LogSampleLists() {
    LogSampleList(videoSamples_, "[MPEG] Video samples counts is: ",
                  "[MPEG] Video sample Sequence %d: offset:%lld, size:%lld\n");
    LogSampleList(audioSamples_, "[MPEG] Audio samples counts is: ",
                  "[MPEG] Audio sample Sequence %d: offset:%lld, size:%lld\n");
}

// One line per record; the formatted text's own line feed is left to the log.
void MpegAdvanceRepair::LogSampleList(const std::vector<SampleRecord>& list, const char* countMessage,
                                      const char* lineFormat) {
    ENGINE_LOG(kLogInfo, countMessage, int64_t(list.size()));
    if (log_ == nullptr) return;
    for (size_t i = 0; i < list.size(); ++i) {
        std::string line = Format(lineFormat, int(i), static_cast<long long>(list[i].offset),
                                  static_cast<long long>(list[i].size));
        const size_t formattedLength = line.size();
        if (!line.empty() && line.back() == '\n') line.pop_back();
        ENGINE_LOG(kLogInfo, line, "result size: " + std::to_string(formattedLength));
    }
}

// ---- output ----

std::wstring MpegAdvanceRepair::GetRepairedVideo(std::wstring& result, const std::wstring& damagedPath,
                                                 const std::wstring& outputDirectory, int mode) {
    result.clear();
    outputPath_.clear();
    const std::wstring videoDump = NewDumpPath();
    const std::wstring audioDump = NewDumpPath();
    int code = WriteSampleData(videoSamples_, videoDump);
    if (code != kWritten) {
        ENGINE_LOG(kLogError, "[CTRL] Extract video frames failed, code:", int32_t(code));
        RemoveQuietly(videoDump);
        return result;
    }
    ENGINE_LOG(kLogError, Format("[MPEG] GetRepairedVideo,Extract video complete,video file:%s:",
                                 Narrow(videoDump).c_str()), "");
    code = WriteSampleData(audioSamples_, audioDump);
    if (code != kWritten) {
        ENGINE_LOG(kLogError, "[CTRL] Extract audio frames failed, code:", int32_t(code));
        RemoveQuietly(audioDump);
    } else {
        ENGINE_LOG(kLogError, Format("[MPEG] GetRepairedVideo,Extract Audio complete,Audio file:%s:",
                                     Narrow(audioDump).c_str()), "");
    }

    std::wstring outPath;
    naming::MakeOutputPath(outPath, damagedPath, outputDirectory, mode);
    bool merged = false;
    if (!outPath.empty()) {
        try {
            Poco::Path path(Narrow(outPath));
            path.setExtension("mpeg");
            outPath = platform::ToWide(path.toString());
            merged = MergeStreams(videoDump, audioDump, outPath);
        } catch (...) {
            merged = false;
        }
    }
    RemoveQuietly(videoDump);
    RemoveQuietly(audioDump);
    if (!merged) return result;
    outputPath_ = outPath;
    result = outPath;
    return result;
}

// The payloads back to back, in list order: a raw elementary stream.
int MpegAdvanceRepair::WriteSampleData(const std::vector<SampleRecord>& list, const std::wstring& outPath) {
    if (list.empty()) {
        ENGINE_LOG(kLogError, "[Wmv] dataList is empty:.", "");
        return kEmptyList;
    }
    FileWriter writer;
    if (!writer.Create(outPath)) {
        ENGINE_LOG(kLogError, "[Wmv] Open output stream failed ,out path is:.", Narrow(outPath));
        return kCannotCreate;
    }
    FileReader& source = damaged_.File();
    for (const SampleRecord& record : list) {
        int64_t offset = int64_t(record.offset);
        int64_t left = record.size;
        while (left > 0) {
            size_t piece = size_t(std::min<int64_t>(left, int64_t(FileWriter::kPieceBytes)));
            size_t got = 0;
            const uint8_t* data = source.View(offset, piece, got);
            if (data == nullptr || got == 0) break;  // a packet cut by the end of the file
            if (!writer.Write(data, got)) break;
            offset += int64_t(got);
            left -= int64_t(got);
        }
    }
    return writer.Close() ? kWritten : kWriteFailed;
}

bool MpegAdvanceRepair::MergeStreams(const std::wstring& videoDump, const std::wstring& audioDump,
                                     const std::wstring& outPath) {
    const std::string video = Narrow(videoDump);
    const std::string out = Narrow(outPath);
    std::vector<std::string> args = {"-y", "-i", video};
    if (app_paths::RegularFileExists(audioDump))
        args.insert(args.end(), {"-i", Narrow(audioDump), "-acodec", "copy"});
    args.insert(args.end(), {"-c:v", "copy", out});
    if (RunFfmpeg(args, kFfmpegTimeoutSeconds) == 0 && FileSizeOf(outPath) > 0) return true;
    // Video alone, when the pair would not mux.
    if (RunFfmpeg({"-y", "-i", video, "-c:v", "copy", out}, kFfmpegTimeoutSeconds) == 0 && FileSizeOf(outPath) > 0)
        return true;
    RemoveQuietly(outPath);
    return false;
}

int MpegAdvanceRepair::RunFfmpeg(const std::vector<std::string>& args, int timeoutSeconds) {
    EngineProcessResult run = RunEngineProcess(log_, kLogSource, ffmpegPath_, args, timeoutSeconds);
    return Succeeded(run) ? 0 : -1;
}

// A fresh UUID name in the work directory, or beside the damaged file when the
// host set no work directory or it cannot be made.
std::wstring MpegAdvanceRepair::NewDumpPath() const {
    std::wstring directory = app_paths::WorkDirectory();
    if (!directory.empty() && !app_paths::DirectoryExists(directory) && !app_paths::CreateDirectories(directory))
        directory.clear();
    try {
        Poco::Path path = directory.empty() ? Poco::Path(Narrow(damagedPath_)).parent()
                                            : Poco::Path(Narrow(directory));
        path.makeDirectory();
        path.setFileName(Poco::UUIDGenerator::defaultGenerator().createRandom().toString());
        return platform::ToWide(path.toString());
    } catch (...) {
        return std::wstring();
    }
}
