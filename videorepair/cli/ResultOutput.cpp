#include "ResultOutput.h"

#include <Poco/JSON/Array.h>
#include <Poco/JSON/Object.h>
#include <Poco/JSON/Parser.h>
#include <Poco/Path.h>

#include <algorithm>
#include <cstdarg>
#include <sstream>

#include "ProgressDisplay.h"
#include "Unreadable.h"
#include "WorkFiles.h"

namespace {

std::string FileName(const std::string& path) { return Poco::Path(path).getFileName(); }

std::string Seconds(double seconds) {
    char text[32];
    std::snprintf(text, sizeof text, "%.2f s", seconds);
    return text;
}

std::string Format(const char* format, ...) __attribute__((format(printf, 1, 2)));

std::string Format(const char* format, ...) {
    char text[1024];
    va_list args;
    va_start(args, format);
    std::vsnprintf(text, sizeof text, format, args);
    va_end(args);
    return text;
}

std::string FactsRow(const char* role, const MediaFacts& facts, int64_t frames) {
    if (!facts.opens) return Format("  %-9s does not open (%s)\n", role, facts.error.c_str());
    std::string framesText = frames >= 0 ? std::to_string(frames) : "-";
    return Format("  %-9s %-34s %10s %9lld %13s\n", role, FitWidth(facts.StreamSummary(), 34).c_str(),
                  Seconds(facts.durationSeconds).c_str(), (long long)facts.packets, framesText.c_str());
}

// One sentence that says whether the repair worked, measured in decoded video frames.
std::string Verdict(const FileResult& file) {
    if (!file.repaired.opens) return "the repaired file does not open: the repair did not work";
    if (file.repairedFrames == 0) return "the repaired file holds no video frame that decodes";
    std::ostringstream text;
    text << file.repairedFrames << " video frames decode in the repaired file";
    if (file.damaged.opens) {
        text << "; " << std::max<int64_t>(file.damagedFrames, 0) << " in the damaged file";
    } else {
        text << "; the damaged file does not open";
    }
    return text.str();
}

// File names may be any bytes on POSIX; JSON holds UTF-8 only.
Poco::Dynamic::Var TextOrNull(const std::string& text) {
    return text.empty() ? Poco::Dynamic::Var() : Poco::Dynamic::Var(work_files::ValidUtf8(text));
}

Poco::JSON::Object::Ptr FactsJson(const MediaFacts& facts) {
    Poco::JSON::Object::Ptr object = new Poco::JSON::Object;
    object->set("path", work_files::ValidUtf8(facts.path));
    object->set("opens", facts.opens);
    object->set("error", TextOrNull(facts.error));
    object->set("format", TextOrNull(facts.format));
    object->set("durationSeconds", facts.durationSeconds);
    object->set("packets", facts.packets);
    object->set("videoPackets", facts.videoPackets);
    object->set("decodedFrames",
                facts.decodedFrames >= 0 ? Poco::Dynamic::Var(facts.decodedFrames) : Poco::Dynamic::Var());
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
    Poco::JSON::Object::Ptr object = new Poco::JSON::Object(Poco::JSON_PRESERVE_KEY_ORDER);
    object->set("input", work_files::ValidUtf8(file.input));
    object->set("method", file.method);
    object->set("road", TextOrNull(file.road));
    object->set("status", file.status);
    object->set("exitCode", file.exitCode);
    object->set("libraryResult", file.libraryCalled ? Poco::Dynamic::Var(file.libraryResult) : Poco::Dynamic::Var());
    object->set("repairedPath", TextOrNull(file.repairedPath));
    object->set("savedPath", TextOrNull(file.savedPath));
    object->set("error", TextOrNull(file.error));
    object->set("advice", TextOrNull(file.advice));
    object->set("note", TextOrNull(file.note));
    object->set("seconds", file.seconds);
    object->set("damagedFrames",
                file.damagedFrames >= 0 ? Poco::Dynamic::Var(file.damagedFrames) : Poco::Dynamic::Var());
    object->set("repairedFrames",
                file.repairedFrames >= 0 ? Poco::Dynamic::Var(file.repairedFrames) : Poco::Dynamic::Var());
    Poco::JSON::Array::Ptr lost = new Poco::JSON::Array;
    for (const std::string& stream : file.lostStreams) lost->add(stream);
    object->set("lostStreams", lost);
    Poco::Dynamic::Var none;
    object->set("verdict", file.judged ? Poco::Dynamic::Var(std::string(VerdictName(file.judge.verdict))) : none);
    object->set("reason", file.judged ? TextOrNull(file.judge.reason) : none);
    object->set("damaged", file.judged ? Poco::Dynamic::Var(CountJson(file.judge.damaged)) : none);
    object->set("repaired", file.judged ? Poco::Dynamic::Var(CountJson(file.judge.repaired)) : none);
    object->set("judgeSeconds", file.judged ? Poco::Dynamic::Var(file.judge.seconds) : none);
    if (file.map.loaded) object->set("map", MapJson(file.map));
    AddUnreadableJson(*object, file.unreadable);
    if (!file.reportPage.empty()) object->set("reportPage", file.reportPage);
    Poco::JSON::Object::Ptr report = new Poco::JSON::Object;
    if (file.probed) {
        report->set("damaged", FactsJson(file.damaged));
        report->set("repaired",
                    file.repairedPath.empty() ? Poco::Dynamic::Var() : Poco::Dynamic::Var(FactsJson(file.repaired)));
    }
    object->set("report", report);
    return object;
}

std::string Count(int64_t value) { return value > 0 ? std::to_string(value) : "-"; }

std::string Duration(double seconds) { return seconds > 0.0 ? Seconds(seconds) : "-"; }

std::string CountRow(const char* role, const ThoroughMediaCount& count) {
    return Format("  %-9s %12s %10s %13s %10s\n", role, Count(count.videoFrames).c_str(),
                  Duration(count.videoSeconds).c_str(), Count(count.audioPackets).c_str(),
                  Duration(count.audioSeconds).c_str());
}

// What the thorough repair's judge chose, why, and what it counted on each side.
std::string JudgeText(const JudgeReport& judge) {
    std::string text =
        Format("  verdict   %s (judged in %s)\n", VerdictName(judge.verdict), Seconds(judge.seconds).c_str());
    if (!judge.reason.empty()) text += "  reason    " + judge.reason + "\n";
    text += Format("  %-9s %12s %10s %13s %10s\n", "", "video frames", "video", "audio packets", "audio");
    text += CountRow("damaged", judge.damaged);
    text += CountRow("repaired", judge.repaired);
    return text;
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

std::string FileReport(const FileResult& file, const RunSummary& run) {
    std::string name = FileName(file.input);
    std::string text;
    if (file.savedPath.empty()) {
        // Without a result: why, and what to do next.
        text = name + ": " + file.status + (file.error.empty() ? std::string() : ": " + file.error) + "\n";
        if (!file.note.empty()) text += "  note      " + file.note + "\n";
        if (!file.advice.empty()) text += "  next      " + file.advice + "\n";
        return text;
    }
    text = name + ": " + file.status + " in " + FormatClock(file.seconds) + "\n";
    if (!file.error.empty()) text += "  problem   " + file.error + "\n";
    if (!file.note.empty()) text += "  note      " + file.note + "\n";
    text += "  written   " + file.savedPath + "\n";
    if (file.judged) text += JudgeText(file.judge);
    text += UnreadableText(file.unreadable);
    if (file.probed) {
        text += Format("  %-9s %-34s %10s %9s %13s\n", "", "streams", "duration", "packets", "video frames");
        if (run.sampleProbed) text += FactsRow("sample", run.sampleFacts, run.sampleFacts.decodedFrames);
        text += FactsRow("damaged", file.damaged, file.damagedFrames);
        text += FactsRow("repaired", file.repaired, file.repairedFrames);
        text += "  => " + Verdict(file) + "\n";
    }
    if (!file.lostStreams.empty()) {
        std::string lost;
        for (const std::string& stream : file.lostStreams) lost += (lost.empty() ? "" : ", ") + stream;
        text += "  lost      " + lost + " (in the damaged file, not in the result)\n";
    }
    if (!file.advice.empty()) text += "  next      " + file.advice + "\n";
    return text;
}

void PrintSummaryTable(std::FILE* out, const RunSummary& run) {
    size_t width = 4;
    for (const FileResult& file : run.files) width = std::max(width, FileName(file.input).size());
    width = std::min<size_t>(width, 30);
    std::fprintf(out, "\n%-*s  %-10s  %-11s  %-7s  %6s  %6s  %s\n", int(width), "file", "method", "result", "kept",
                 "before", "after", "written");
    for (const FileResult& file : run.files) {
        std::string before = file.damagedFrames >= 0 ? std::to_string(file.damagedFrames) : "-";
        std::string after = file.repairedFrames >= 0 ? std::to_string(file.repairedFrames) : "-";
        std::string method = file.road.empty() ? file.method : file.road;
        std::fprintf(out, "%-*s  %-10s  %-11s  %-7s  %6s  %6s  %s\n", int(width),
                     FitWidth(FileName(file.input), width).c_str(), method.c_str(), file.status.c_str(),
                     file.judged ? VerdictName(file.judge.verdict) : "-", before.c_str(), after.c_str(),
                     file.savedPath.empty() ? "-" : file.savedPath.c_str());
    }
    std::fprintf(out, "(before, after: video frames that decode)\n");
}

std::string FileJsonLine(const FileResult& file, const RunSummary& run) {
    Poco::JSON::Object::Ptr object = FileJson(file);
    object->set("version", VIDEOREPAIR_VERSION);
    object->set("command", run.command);
    object->set("sample", TextOrNull(run.sample));
    std::ostringstream text;
    object->stringify(text);
    return text.str();
}

bool ReadFileJsonLine(const std::string& text, FileResult& file) {
    try {
        Poco::JSON::Parser parser;
        Poco::JSON::Object::Ptr object = parser.parse(text).extract<Poco::JSON::Object::Ptr>();
        auto textOf = [&](const char* key) {
            return object->isNull(key) ? std::string() : object->getValue<std::string>(key);
        };
        file.input = textOf("input");
        file.method = textOf("method");
        file.road = textOf("road");
        file.status = textOf("status");
        file.exitCode = object->getValue<int>("exitCode");
        file.savedPath = textOf("savedPath");
        file.repairedPath = textOf("repairedPath");
        file.error = textOf("error");
        file.damagedFrames = object->isNull("damagedFrames") ? -1 : object->getValue<int64_t>("damagedFrames");
        file.repairedFrames = object->isNull("repairedFrames") ? -1 : object->getValue<int64_t>("repairedFrames");
        file.reportPage = object->has("reportPage") ? textOf("reportPage") : std::string();
        if (object->has("map")) file.map = MapFromJson(object->getObject("map"));
        file.judged = !object->isNull("verdict");
        std::string verdict = textOf("verdict");
        for (int v : {kVerdictNone, kVerdictRebuilt, kVerdictRemuxed, kVerdictAsIs}) {
            if (verdict == VerdictName(v)) file.judge.verdict = v;
        }
        return true;
    } catch (const std::exception&) {
        return false;
    }
}
