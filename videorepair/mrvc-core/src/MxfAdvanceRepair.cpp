#include "MxfAdvanceRepair.h"

#include <Poco/File.h>
#include <Poco/Path.h>

#include <cstdio>
#include <cstring>
#include <stdexcept>

#include "AppPaths.h"
#include "EngineProcess.h"
#include "OutputNaming.h"
#include "TextUtil.h"
#include "io/FileReader.h"
#include "io/FileWriter.h"
#include "io/PositionedReader.h"
#include "io/RangeCopy.h"
#include "platform/Platform.h"

namespace {

const char* const kLogSource = "videorepair/mrvc-core/src/MxfAdvanceRepair";

// SMPTE 379 generic-container essence element key, bytes 0..11.
constexpr uint8_t kEssenceKeyPrefix[12] = {0x06, 0x0E, 0x2B, 0x34, 0x01, 0x02, 0x01, 0x01, 0x0D, 0x01, 0x03, 0x01};
constexpr size_t kKeyBytes = 16;
constexpr int kFfmpegTimeoutSeconds = 30;
constexpr int64_t kUnusedByteLimit = 2147483648LL;
constexpr size_t kReportLineChars = 1023;

enum : uint32_t { kPictureKind = 0, kSoundKind = 1, kNoKind = 2 };

// Picture items of the content package (0x05), of the generic container (0x15)
// and compound items (0x18); sound items 0x06 and 0x16.
uint32_t KindOfItemType(uint8_t itemType) {
    switch (itemType) {
        case 0x05:
        case 0x15:
        case 0x18:
            return kPictureKind;
        case 0x06:
        case 0x16:
            return kSoundKind;
        default:
            return kNoKind;
    }
}

// The field right in front of position on a report line, such as "48000" in
// "48000 Hz" or "29.97" in "29.97 fps": fields are separated by blanks and commas.
std::string FieldBefore(const std::string& line, size_t position) {
    size_t end = position;
    while (end > 0 && line[end - 1] == ' ') --end;
    size_t begin = end;
    while (begin > 0 && line[begin - 1] != ' ' && line[begin - 1] != ',') --begin;
    return line.substr(begin, end - begin);
}

// The codec name after "Audio:", such as "pcm_s16le".
std::string CodecAfter(const std::string& line, size_t position) {
    size_t begin = line.find_first_not_of(' ', position);
    if (begin == std::string::npos) return std::string();
    size_t end = line.find_first_of(" ,(", begin);
    return line.substr(begin, end == std::string::npos ? std::string::npos : end - begin);
}

void LearnAudioLine(const std::string& line, std::vector<std::string>& options) {
    const size_t audio = line.find("Audio:");
    std::string codec = CodecAfter(line, audio + 6);
    if (codec.compare(0, 4, "pcm_") == 0) {
        options.push_back("-f");
        options.push_back(codec.substr(4));
    }
    size_t hz = line.find("Hz", audio);
    if (hz != std::string::npos) {
        options.push_back("-ar");
        options.push_back(FieldBefore(line, hz));
    }
    size_t channels = line.find("channels", audio);
    if (channels != std::string::npos) {
        options.push_back("-ac");
        options.push_back(FieldBefore(line, channels));
    } else if (line.find("stereo", audio) != std::string::npos) {
        options.push_back("-ac");
        options.push_back("2");
    } else if (line.find("mono", audio) != std::string::npos) {
        options.push_back("-ac");
        options.push_back("1");
    }
}

void LearnVideoLine(const std::string& line, double& frameRate) {
    size_t fps = line.find("fps", line.find("Video:"));
    if (fps == std::string::npos) return;
    double rate = std::stod(FieldBefore(line, fps));
    if (rate > 0) frameRate = rate;  // a zero rate would make the duration infinite
}

// The report as a reader with a 1024-byte line buffer sees it: longer lines
// arrive in pieces of 1023 characters.
std::vector<std::string> ReportLines(const std::string& report) {
    std::vector<std::string> lines;
    size_t begin = 0;
    while (begin < report.size()) {
        size_t end = report.find_first_of("\r\n", begin);
        if (end == std::string::npos) end = report.size();
        for (size_t piece = begin; piece < end; piece += kReportLineChars)
            lines.push_back(report.substr(piece, std::min(kReportLineChars, end - piece)));
        begin = end + 1;
    }
    return lines;
}

std::string Formatted(const char* format, int index, int64_t offset, int64_t size) {
    char text[160];
    std::snprintf(text, sizeof text, format, index, static_cast<long long>(offset), static_cast<long long>(size));
    return text;
}

void RemoveFile(const std::wstring& path) {
    try {
        Poco::File file(platform::ToNarrow(path));
        if (file.exists()) file.remove();
    } catch (...) {
    }
}

// Where the dumps go: the work directory, or the damaged file's own directory.
std::wstring DumpDirectory(const std::wstring& damagedPath) {
    std::wstring work = app_paths::WorkDirectory();
    if (!work.empty() && (app_paths::DirectoryExists(work) || app_paths::CreateDirectories(work))) return work;
    try {
        std::string parent = Poco::Path(platform::ToNarrow(damagedPath)).parent().toString();
        return platform::ToWide(parent.empty() ? std::string(".") : parent);
    } catch (...) {
        return L".";
    }
}

// ffmpeg knows the container by the output name, so a ".klv" input is written as ".mxf".
std::wstring WithMxfExtension(const std::wstring& path) {
    if (text::EqualsIgnoreCase(text::ExtensionOf(path), L"mxf")) return path;
    Poco::Path output(platform::ToNarrow(path));
    output.setExtension("mxf");
    return platform::ToWide(output.toString());
}

}  // namespace

MxfAdvanceRepair::MxfAdvanceRepair()
    : AdvanceRepairBase("MxfAdvanceRepair", kLogSource), ffmpegPath_(app_paths::FfmpegPath()) {}

MxfAdvanceRepair::~MxfAdvanceRepair() = default;

MxfAdvanceRepair::SampleInfo MxfAdvanceRepair::ParseSampleReport(const std::string& report) {
    SampleInfo info;
    for (const std::string& line : ReportLines(report)) {
        if (line.find("Audio:") != std::string::npos) LearnAudioLine(line, info.audioInputOptions);
        if (line.find("Video:") != std::string::npos) LearnVideoLine(line, info.frameRate);
    }
    return info;
}

int MxfAdvanceRepair::AnalyzeSampleVideo() {
    sample_ = SampleInfo();
    if (app_paths::IsSpecialFile(samplePath_)) return -1;  // a FIFO would hold ffmpeg until its time limit
    // ffmpeg asked only to describe a file ends with "no output file" (exit code
    // 1): the report is all that is needed, so any run that finished counts.
    EngineProcessResult run = RunFfmpeg({"-i", platform::ToNarrow(samplePath_)});
    if (!run.started || run.timedOut) return -1;
    try {
        sample_ = ParseSampleReport(run.output);
    } catch (const std::exception& e) {
        platform::DebugTrace(std::string("MXF sample report: ") + e.what());
        return -1;
    }
    return 0;
}

EngineProcessResult MxfAdvanceRepair::RunFfmpeg(const std::vector<std::string>& args) {
    return RunEngineProcess(log_, kLogSource, ffmpegPath_, args, kFfmpegTimeoutSeconds);
}

MxfAdvanceRepair::SampleRecord MxfAdvanceRepair::MatchEssenceElement(const uint8_t* data, size_t available,
                                                                     int64_t position) {
    SampleRecord none;
    if (available < kKeyBytes + 1) return none;
    if (data[0] != kEssenceKeyPrefix[0] || std::memcmp(data, kEssenceKeyPrefix, sizeof kEssenceKeyPrefix) != 0)
        return none;
    const uint32_t kind = KindOfItemType(data[12]);
    if (kind == kNoKind) return none;

    // SMPTE 336 BER length: short form below 0x80, else 0x80 | n and n big-endian bytes.
    uint64_t length = 0;
    size_t lengthBytes = 1;
    const uint8_t first = data[kKeyBytes];
    if (first < 0x80) {
        length = first;
    } else {
        size_t n = first & 0x7F;
        lengthBytes = n + 1;
        if (n > 8 || available - kKeyBytes < n + 1) return none;
        for (size_t k = 1; k <= n; ++k) length = (length << 8) | data[kKeyBytes + k];
        if (length >= (uint64_t(1) << 63)) length = 0;
    }
    if (length == 0) return none;

    SampleRecord record;
    record.found = true;
    record.kind = kind;
    record.size = int64_t(length);
    record.offset = uint64_t(position) + kKeyBytes + lengthBytes;
    record.packetLength = kKeyBytes + lengthBytes + length;
    return record;
}

int MxfAdvanceRepair::Repair() {
    BeginRepair();
    if (samplePath_.empty()) {
        sample_ = SampleInfo();
    } else if (AnalyzeSampleVideo() < 0) {
        sample_ = SampleInfo();
        ENGINE_LOG(kLogError, "[AnalyzeSampleVideo]Analysize audio codec info by ffmpeg failed.", "");
    }
    if (damagedPath_.empty()) return -1;
    PositionedReader reader;
    if (!reader.Open(damagedPath_)) {
        ENGINE_LOG(kLogInfo, "[Sprt] Open file stream failed,file is:", platform::ToNarrow(damagedPath_));
        ENGINE_LOG(kLogInfo, "[Sprt] create file stream failed.", "");
        return -1;
    }
    LogEntry("Repair");
    videoSamples_.clear();
    audioSamples_.clear();
    damagedSize_ = reader.Size();
    ScanDamagedFile(reader);
    LogSampleLists();
    reader.Close();
    return 0;
}

// Steps over unknown bytes one at a time and over each collected element whole.
void MxfAdvanceRepair::ScanDamagedFile(PositionedReader& reader) {
    int64_t unused = 0;
    int64_t nextProgressAt = 0;  // first position whose percentage is higher than the last one
    while (!IsStopRequested() && reader.Position() < damagedSize_) {
        const int64_t position = reader.Position();
        if (position >= nextProgressAt) {
            int64_t percent = position * 100 / damagedSize_;
            ReportProgress(int(percent));
            nextProgressAt = ((percent + 1) * damagedSize_ + 99) / 100;
        }
        if (!reader.Fill()) break;
        // Most unknown bytes fail on the key's first byte; test that here before the full match.
        SampleRecord record;
        if (reader.Data()[0] == kEssenceKeyPrefix[0])
            record = MatchEssenceElement(reader.Data(), reader.Length(), position);
        if (record.found) {
            (record.kind == kPictureKind ? videoSamples_ : audioSamples_).push_back(record);
            reader.Advance(int64_t(record.packetLength));
        } else {
            ++unused;
            reader.Advance(1);
        }
        if (unused > kUnusedByteLimit) {
            ENGINE_LOG(kLogInfo, "[MXF] Unused size exceed, offset:.", reader.Position());
            break;
        }
        if ((IsPaused() || IsStopRequested()) && PauseThenShouldStop()) break;
    }
}

void MxfAdvanceRepair::LogSampleLists() {
    ENGINE_LOG(kLogInfo, "[mxf] Video samples counts is: ", int64_t(videoSamples_.size()));
    for (size_t i = 0; i < videoSamples_.size(); ++i) {
        ENGINE_LOG(kLogInfo, "Video Frame Info:",
                   Formatted("[mxf] Video sample Sequence %d: offset:%lld, size:%lld\n", int(i),
                             int64_t(videoSamples_[i].offset), videoSamples_[i].size));
    }
    ENGINE_LOG(kLogInfo, "[mxf] Audio samples counts is: ", int64_t(audioSamples_.size()));
    for (size_t i = 0; i < audioSamples_.size(); ++i) {
        ENGINE_LOG(kLogInfo, "Audio Frame Info:",
                   Formatted("[mxf] Audio sample Sequence %d: offset:%lld, size:%lld\n", int(i),
                             int64_t(audioSamples_[i].offset), audioSamples_[i].size));
    }
    double videoBytes = 0;
    double audioBytes = 0;
    for (const SampleRecord& r : videoSamples_) videoBytes += double(r.size);
    for (const SampleRecord& r : audioSamples_) audioBytes += double(r.size);
    double size = damagedSize_ > 0 ? double(damagedSize_) : 1.0;  // an empty file repairs 0 %
    char text[160];
    std::snprintf(text, sizeof text, "[mxf] Video Repair Percent is %f,Audio Repair Percent is %f\n",
                  videoBytes / size * 100.0, audioBytes / size * 100.0);
    ENGINE_LOG(kLogInfo, "Repair Percent:", std::string(text));
}

bool MxfAdvanceRepair::WriteDump(const std::vector<SampleRecord>& samples, const std::wstring& path) {
    FileReader damaged;
    FileWriter dump;
    if (!damaged.Open(damagedPath_) || !dump.Create(path)) return false;
    for (const SampleRecord& r : samples) {
        CopyFileRange(damaged, dump, int64_t(r.offset), int64_t(r.offset) + r.size,
                      [this]() { return !PauseThenShouldStop(); });
    }
    return dump.Close();
}

std::wstring MxfAdvanceRepair::GetRepairedVideo(std::wstring& result, const std::wstring& first,
                                                const std::wstring& second, int mode) {
    result.clear();
    std::wstring outputPath;
    naming::MakeOutputPath(outputPath, first, second, mode);
    outputPath = WithMxfExtension(outputPath);
    const std::wstring base = platform::ToWide(Poco::Path(platform::ToNarrow(outputPath)).getBaseName());
    const std::wstring directory = DumpDirectory(damagedPath_.empty() ? first : damagedPath_);
    const std::wstring videoDump = directory + L"/" + base + L"_Video.dat";
    const std::wstring audioDump = directory + L"/" + base + L"_Audio.dat";

    bool dumped = !videoSamples_.empty() && WriteDump(videoSamples_, videoDump) &&
                  (audioSamples_.empty() || WriteDump(audioSamples_, audioDump));
    bool merged = dumped && MergeStreams(videoDump, audioDump, outputPath);
    RemoveFile(videoDump);
    RemoveFile(audioDump);
    if (!merged) {
        ENGINE_LOG(kLogError, "[GetRepairedVideo]merge audio and video file by ffmpeg failed.", "");
        RemoveFile(outputPath);
        return result;
    }
    outputPath_ = outputPath;
    result = outputPath;
    return result;
}

bool MxfAdvanceRepair::MergeStreams(const std::wstring& videoDump, const std::wstring& audioDump,
                                    const std::wstring& output) {
    std::vector<std::string> args = {"-i", platform::ToNarrow(videoDump)};
    // The learnt audio options stand here even without an audio input.
    args.insert(args.end(), sample_.audioInputOptions.begin(), sample_.audioInputOptions.end());
    if (!audioSamples_.empty()) {
        args.push_back("-i");
        args.push_back(platform::ToNarrow(audioDump));
    }
    char duration[64];
    std::snprintf(duration, sizeof duration, "%f", double(videoSamples_.size()) / sample_.frameRate);
    args.insert(args.end(), {"-vcodec", "copy", "-t", duration, platform::ToNarrow(output)});
    EngineProcessResult run = RunFfmpeg(args);
    if (!Succeeded(run)) platform::DebugTrace("MXF merge: " + run.output);
    return Succeeded(run) && app_paths::RegularFileExists(output);
}

void MxfAdvanceRepair::Release() {
    Stop();
    outputPath_.clear();
}
