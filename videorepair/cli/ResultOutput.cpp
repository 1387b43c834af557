#include "ResultOutput.h"

#include <Poco/JSON/Array.h>
#include <Poco/JSON/Object.h>
#include <Poco/Path.h>

#include <algorithm>
#include <sstream>

#include "ProgressDisplay.h"

namespace {

std::string FileName(const std::string& path) { return Poco::Path(path).getFileName(); }

std::string Seconds(double seconds) {
    char text[32];
    std::snprintf(text, sizeof text, "%.2f s", seconds);
    return text;
}

void PrintFactsRow(std::FILE* out, const char* role, const MediaFacts& facts) {
    if (!facts.opens) {
        std::fprintf(out, "  %-9s does not open (%s)\n", role, facts.error.c_str());
        return;
    }
    std::fprintf(out, "  %-9s %-34s %10s %9lld %13lld\n", role, facts.StreamSummary().c_str(),
                 Seconds(facts.durationSeconds).c_str(), (long long)facts.packets, (long long)facts.videoPackets);
}

// One sentence that says whether the repair worked, measured in video frames.
std::string Verdict(const FileResult& file, const RunSummary& run) {
    if (!file.repaired.opens) return "the repaired file does not open: the repair did not work";
    int64_t after = file.repaired.videoPackets;
    if (after == 0) return "the repaired file holds no video frames";
    std::ostringstream text;
    text << after << " video frames in the repaired file";
    if (run.sampleProbed && run.sampleFacts.opens && run.sampleFacts.videoPackets > 0) {
        text << " (the sample has " << run.sampleFacts.videoPackets << ")";
    }
    if (file.damaged.opens) {
        text << "; the damaged file shows " << file.damaged.videoPackets;
    } else {
        text << "; the damaged file does not open";
    }
    return text.str();
}

Poco::Dynamic::Var TextOrNull(const std::string& text) {
    return text.empty() ? Poco::Dynamic::Var() : Poco::Dynamic::Var(text);
}

Poco::JSON::Object::Ptr FactsJson(const MediaFacts& facts) {
    Poco::JSON::Object::Ptr object = new Poco::JSON::Object;
    object->set("path", facts.path);
    object->set("opens", facts.opens);
    object->set("error", TextOrNull(facts.error));
    object->set("format", TextOrNull(facts.format));
    object->set("durationSeconds", facts.durationSeconds);
    object->set("packets", facts.packets);
    object->set("videoFrames", facts.videoPackets);
    Poco::JSON::Array::Ptr streams = new Poco::JSON::Array;
    for (const StreamFacts& stream : facts.streams) {
        Poco::JSON::Object::Ptr s = new Poco::JSON::Object;
        s->set("index", stream.index);
        s->set("type", stream.type);
        s->set("codec", stream.codec);
        s->set("packets", stream.packets);
        streams->add(s);
    }
    object->set("streams", streams);
    return object;
}

Poco::JSON::Object::Ptr CountJson(const ThoroughMediaCount& count) {
    Poco::JSON::Object::Ptr object = new Poco::JSON::Object(Poco::JSON_PRESERVE_KEY_ORDER);
    object->set("videoFrames", count.videoFrames);
    object->set("audioPackets", count.audioPackets);
    object->set("videoSeconds", count.videoSeconds);
    object->set("audioSeconds", count.audioSeconds);
    return object;
}

Poco::JSON::Object::Ptr FileJson(const FileResult& file) {
    Poco::JSON::Object::Ptr object = new Poco::JSON::Object;
    object->set("input", file.input);
    object->set("method", file.method);
    object->set("road", TextOrNull(file.road));
    object->set("status", file.status);
    object->set("exitCode", file.exitCode);
    object->set("libraryResult", file.libraryCalled ? Poco::Dynamic::Var(file.libraryResult) : Poco::Dynamic::Var());
    object->set("repairedPath", TextOrNull(file.repairedPath));
    object->set("savedPath", TextOrNull(file.savedPath));
    object->set("error", TextOrNull(file.error));
    object->set("seconds", file.seconds);
    Poco::Dynamic::Var none;
    object->set("verdict", file.judged ? Poco::Dynamic::Var(std::string(VerdictName(file.judge.verdict))) : none);
    object->set("reason", file.judged ? TextOrNull(file.judge.reason) : none);
    object->set("damaged", file.judged ? Poco::Dynamic::Var(CountJson(file.judge.damaged)) : none);
    object->set("repaired", file.judged ? Poco::Dynamic::Var(CountJson(file.judge.repaired)) : none);
    object->set("judgeSeconds", file.judged ? Poco::Dynamic::Var(file.judge.seconds) : none);
    Poco::JSON::Object::Ptr report = new Poco::JSON::Object;
    if (file.probed) {
        report->set("damaged", FactsJson(file.damaged));
        report->set("repaired", file.repairedPath.empty() ? Poco::Dynamic::Var() : Poco::Dynamic::Var(FactsJson(file.repaired)));
    }
    object->set("report", report);
    AddUnreadableJson(*object, file.unreadable);
    return object;
}

std::string Count(int64_t value) { return value > 0 ? std::to_string(value) : "-"; }

std::string Duration(double seconds) { return seconds > 0.0 ? Seconds(seconds) : "-"; }

void PrintCountRow(std::FILE* out, const char* role, const ThoroughMediaCount& count) {
    std::fprintf(out, "  %-9s %12s %10s %13s %10s\n", role, Count(count.videoFrames).c_str(),
                 Duration(count.videoSeconds).c_str(), Count(count.audioPackets).c_str(),
                 Duration(count.audioSeconds).c_str());
}

// What the thorough repair's judge chose, why, and what it counted on each side.
void PrintJudge(std::FILE* out, const JudgeReport& judge) {
    std::fprintf(out, "  verdict   %s (judged in %s)\n", VerdictName(judge.verdict), Seconds(judge.seconds).c_str());
    if (!judge.reason.empty()) std::fprintf(out, "  reason    %s\n", judge.reason.c_str());
    std::fprintf(out, "  %-9s %12s %10s %13s %10s\n", "", "video frames", "video", "audio packets", "audio");
    PrintCountRow(out, "damaged", judge.damaged);
    PrintCountRow(out, "repaired", judge.repaired);
}

}  // namespace

const char* VerdictName(int verdict) {
    switch (verdict) {
        case kVerdictRebuilt: return "rebuilt";
        case kVerdictRemuxed: return "remuxed";
        case kVerdictAsIs: return "as is";
        default: return "none";
    }
}

void PrintFileReport(std::FILE* out, const FileResult& file, const RunSummary& run) {
    // A file without a result was already explained on standard error.
    if (file.repairedPath.empty()) return;
    std::string name = FileName(file.input);
    std::fprintf(out, "%s: %s in %s\n", name.c_str(), file.status.c_str(), FormatClock(file.seconds).c_str());
    if (!file.error.empty()) std::fprintf(out, "  note      %s\n", file.error.c_str());
    std::fprintf(out, "  repaired  %s\n", file.repairedPath.c_str());
    if (!file.savedPath.empty() && file.savedPath != file.repairedPath) {
        std::fprintf(out, "  saved as  %s\n", file.savedPath.c_str());
    }
    if (file.judged) PrintJudge(out, file.judge);
    PrintUnreadable(out, file.unreadable);
    if (!file.probed) return;
    std::fprintf(out, "  %-9s %-34s %10s %9s %13s\n", "", "streams", "duration", "packets", "video frames");
    if (run.sampleProbed) PrintFactsRow(out, "sample", run.sampleFacts);
    PrintFactsRow(out, "damaged", file.damaged);
    PrintFactsRow(out, "repaired", file.repaired);
    std::fprintf(out, "  => %s\n", Verdict(file, run).c_str());
}

void PrintSummaryTable(std::FILE* out, const RunSummary& run) {
    size_t width = 4;
    for (const FileResult& file : run.files) width = std::max(width, FileName(file.input).size());
    std::fprintf(out, "\n%-*s  %-10s  %-14s  %-7s  %13s  %12s  %s\n", int(width), "file", "method", "result",
                 "kept", "frames before", "frames after", "saved as");
    for (const FileResult& file : run.files) {
        std::string before = file.probed && file.damaged.opens ? std::to_string(file.damaged.videoPackets) : "-";
        std::string after = file.probed && file.repaired.opens ? std::to_string(file.repaired.videoPackets) : "-";
        std::string method = file.road.empty() ? file.method : file.road;
        std::fprintf(out, "%-*s  %-10s  %-14s  %-7s  %13s  %12s  %s\n", int(width), FileName(file.input).c_str(),
                     method.c_str(), file.status.c_str(), file.judged ? VerdictName(file.judge.verdict) : "-",
                     before.c_str(), after.c_str(),
                     file.savedPath.empty() ? "-" : file.savedPath.c_str());
    }
}

void PrintJson(std::FILE* out, const RunSummary& run) {
    Poco::JSON::Object object(Poco::JSON_PRESERVE_KEY_ORDER);
    object.set("version", VIDEOREPAIR_VERSION);
    object.set("command", run.command);
    object.set("road", TextOrNull(run.road));
    object.set("sample", TextOrNull(run.sample));
    object.set("sampleReport", run.sampleProbed ? Poco::Dynamic::Var(FactsJson(run.sampleFacts)) : Poco::Dynamic::Var());
    object.set("output", TextOrNull(run.output));
    object.set("logFile", TextOrNull(run.logFile));
    object.set("workDirectory", TextOrNull(run.workDirectory));
    object.set("cancelled", run.cancelled);
    object.set("exitCode", run.exitCode);
    object.set("error", TextOrNull(run.error));
    Poco::JSON::Array::Ptr files = new Poco::JSON::Array;
    for (const FileResult& file : run.files) files->add(FileJson(file));
    object.set("files", files);
    std::ostringstream text;
    object.stringify(text, 2);
    std::fprintf(out, "%s\n", text.str().c_str());
    std::fflush(out);
}
