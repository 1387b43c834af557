#include "ReportPage.h"

#include <Poco/Base64Encoder.h>
#include <Poco/Path.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "ContactSheet.h"
#include "DamageMapImage.h"

namespace report_page {
namespace {

using damage_map::Escaped;

const char kStyle[] =
    "body{font-family:sans-serif;margin:24px;max-width:1100px;color:#1f2937}"
    "h1{font-size:22px;margin:0 0 4px}h2{font-size:17px;margin:24px 0 8px}"
    ".verdict{font-size:15px;margin:4px 0}.summary{font-size:16px;font-weight:bold;margin:10px 0}"
    ".legend{display:flex;flex-wrap:wrap;gap:6px 18px;margin:8px 0;font-size:13px}"
    ".swatch{display:inline-block;width:14px;height:14px;margin-right:5px;vertical-align:-2px;border-radius:2px}"
    ".sheet{display:flex;flex-wrap:wrap;gap:10px}.sheet figure{margin:0;font-size:12px;text-align:center}"
    ".sheet img{display:block;border:3px solid transparent}.sheet figure.after-gap img{border-color:#f59e0b}"
    ".novideo{padding:14px;background:#fef3c7;border-radius:6px}"
    "table{border-collapse:collapse;font-size:13px}td,th{border:1px solid #d1d5db;padding:4px 8px;text-align:right}"
    "th:first-child,td:first-child{text-align:left}ul{font-size:14px}";

std::string Base64(const std::string& bytes) {
    std::ostringstream out;
    Poco::Base64Encoder encoder(out);
    encoder.rdbuf()->setLineLength(0);
    encoder << bytes;
    encoder.close();
    return out.str();
}

std::string Format(const char* format, double value) {
    char text[64];
    std::snprintf(text, sizeof text, format, value);
    return text;
}

std::string Percent(int64_t part, int64_t whole) {
    return whole > 0 ? Format("%.1f%%", 100.0 * double(part) / double(whole)) : "-";
}

std::string FileName(const std::string& path) { return Poco::Path(path).getFileName(); }

// Each kind with its share of the damaged file, so the legend reads as a summary.
std::string Legend(const RepairMap& map) {
    size_t count = 0;
    const damage_map::KindStyle* styles = damage_map::Styles(count);
    std::string html = "<div class=\"legend\">";
    for (size_t i = 0; i < count; ++i) {
        std::string kind = styles[i].kind, share;
        if (kind == "restored") {
            share = " (" + std::to_string(map.BytesOf(kind)) + " bytes)";
        } else if (kind != "unused" && map.loaded) {
            share = " (" + Percent(map.BytesOf(kind), map.fileSize) + ")";
        }
        html += std::string("<span><span class=\"swatch\" style=\"background:") + styles[i].colour + "\"></span>" +
                Escaped(styles[i].label + share) + "</span>";
    }
    html += "<span><span class=\"swatch\" style=\"background:#2563eb\"></span>timeline: the stream plays</span>"
            "<span><span class=\"swatch\" style=\"background:#dc2626\"></span>timeline: a gap</span>";
    return html + "</div>";
}

std::string Summary(const RepairMap& map) {
    if (!map.loaded) return "<p class=\"summary\">The repair left no record of what it did.</p>";
    size_t videoGaps = 0;
    for (const MapGap& gap : map.gaps) videoGaps += gap.stream == "video" ? 1 : 0;
    std::string text = Percent(map.BytesOf("recovered"), map.fileSize) + " of the damaged file's bytes are in the "
                       "repaired file; " + contact_sheet::TimeText(map.Duration()) + " plays";
    text += map.gaps.empty() ? " without gaps." : ", with " + std::to_string(map.gaps.size()) + " gap" +
                                                      (map.gaps.size() == 1 ? "" : "s") + " (" +
                                                      std::to_string(videoGaps) + " in the video).";
    if (map.BytesOf("unreadable") > 0) text += " " + std::to_string(map.BytesOf("unreadable")) + " bytes could not be read.";
    return "<p class=\"summary\">" + Escaped(text) + "</p>";
}

std::string Numbers(const FileResult& file, const RepairMap& map) {
    std::string html = "<h2>The numbers</h2>";
    if (file.judged) {
        const ThoroughMediaCount &before = file.judge.damaged, &after = file.judge.repaired;
        html += "<table><tr><th></th><th>damaged file</th><th>repaired file</th></tr>";
        html += "<tr><td>video frames</td><td>" + std::to_string(before.videoFrames) + "</td><td>" +
                std::to_string(after.videoFrames) + "</td></tr>";
        html += "<tr><td>video duration</td><td>" + contact_sheet::TimeText(before.videoSeconds) + "</td><td>" +
                contact_sheet::TimeText(after.videoSeconds) + "</td></tr>";
        html += "<tr><td>audio packets</td><td>" + std::to_string(before.audioPackets) + "</td><td>" +
                std::to_string(after.audioPackets) + "</td></tr>";
        html += "<tr><td>audio duration</td><td>" + contact_sheet::TimeText(before.audioSeconds) + "</td><td>" +
                contact_sheet::TimeText(after.audioSeconds) + "</td></tr></table>";
    }
    if (!map.streams.empty()) {
        html += "<p>Streams of the repaired file:</p><table><tr><th>stream</th><th>codec</th><th>frames</th>"
                "<th>from</th><th>to</th></tr>";
        for (const MapStream& s : map.streams)
            html += "<tr><td>" + Escaped(s.kind) + " " + std::to_string(s.index) + "</td><td>" + Escaped(s.codec) +
                    "</td><td>" + std::to_string(s.frames) + "</td><td>" + contact_sheet::TimeText(s.first) +
                    "</td><td>" + contact_sheet::TimeText(s.last) + "</td></tr>";
        html += "</table>";
    }
    return html;
}

std::string Details(const FileResult& file, const RunSummary& run, const RepairMap& map) {
    std::string items;
    for (const MapGap& gap : map.gaps)
        items += "<li>The " + Escaped(gap.stream) + " has a gap from " + contact_sheet::TimeText(gap.start) + " to " +
                 contact_sheet::TimeText(gap.end) + ".</li>";
    for (const MapRange& r : map.ranges) {
        if (r.kind == "unreadable")
            items += "<li>" + std::to_string(r.length) + " bytes at offset " + std::to_string(r.offset) +
                     " could not be read from the device.</li>";
        if (r.kind == "restored")
            items += "<li>Put back at offset " + std::to_string(r.offset) + ": " + Escaped(r.note) + ".</li>";
    }
    for (const std::string& warning : map.warnings) items += "<li>" + Escaped(warning) + ".</li>";
    if (!file.error.empty()) items += "<li>" + Escaped(file.error) + "</li>";
    std::string html = "<h2>What to know</h2><ul>";
    html += "<li>Sample: " + (run.sample.empty() ? std::string("none was given") : Escaped(run.sample)) + ".</li>";
    return html + (items.empty() ? "<li>Nothing else: no gaps, nothing unreadable.</li>" : items) + "</ul>";
}

std::string Sheet(const RepairMap& map, const std::vector<Thumbnail>& thumbnails) {
    std::string html = "<h2>Frames of the repaired file</h2>";
    if (thumbnails.empty()) {
        std::string why = map.loaded && !map.HasVideo() ? "The repaired file has no video: there are no frames to show."
                                                        : "No frame of the repaired file's video could be decoded.";
        return html + "<p class=\"novideo\">" + why + "</p>";
    }
    std::string figures;
    for (const Thumbnail& t : thumbnails) {
        std::string png = EncodePng(t.picture);
        if (png.empty()) continue;
        std::string time = contact_sheet::TimeText(t.seconds);
        figures += std::string("<figure class=\"thumb") + (t.afterGap ? " after-gap" : "") + "\" data-seconds=\"" +
                Format("%.3f", t.seconds) + "\"><img alt=\"frame at " + time + "\" width=\"" +
                std::to_string(t.picture.width) + "\" height=\"" + std::to_string(t.picture.height) +
                "\" src=\"data:image/png;base64," + Base64(png) + "\"><figcaption>" + time +
                (t.afterGap ? " (after a gap)" : "") + "</figcaption></figure>";
    }
    // A build of libavcodec without its PNG encoder decodes the frames but cannot show them.
    if (figures.empty()) return html + "<p class=\"novideo\">The frames could not be encoded as pictures.</p>";
    return html + "<div class=\"sheet\">" + figures + "</div>";
}

std::string Page(const std::string& title, const std::string& body) {
    return "<!DOCTYPE html><html lang=\"en\"><head><meta charset=\"utf-8\"><title>" + Escaped(title) +
           "</title><style>" + kStyle + "</style></head><body>" + body + "</body></html>\n";
}

}  // namespace

std::string FileHtml(const FileResult& file, const RunSummary& run, const RepairMap& map,
                     const std::vector<Thumbnail>& thumbnails) {
    std::string body = "<h1>" + Escaped(FileName(file.input)) + "</h1>";
    body += "<p class=\"verdict\">" + Escaped(file.status) +
            (file.judged ? std::string(" &middot; the judge kept: ") + Escaped(file.judge.reason) : std::string()) + "</p>";
    if (!file.repairedPath.empty()) body += "<p>Repaired file: " + Escaped(file.savedPath.empty() ? file.repairedPath : file.savedPath) + "</p>";
    body += Summary(map);
    body += "<h2>The damaged file, byte by byte</h2>";
    body += map.loaded ? damage_map::FileBarSvg(map) : "<p>No record of the repair.</p>";
    body += Legend(map);
    std::string timeline = damage_map::TimelineSvg(map);
    if (!timeline.empty()) body += "<h2>The repaired file's timeline</h2>" + timeline;
    body += Sheet(map, thumbnails);
    body += Numbers(file, map);
    body += Details(file, run, map);
    return Page("Repair of " + FileName(file.input), body);
}

std::string IndexHtml(const RunSummary& run, const std::vector<IndexEntry>& entries) {
    std::string body = "<h1>Repairs: " + std::to_string(entries.size()) + " files</h1><table><tr><th>file</th>"
                       "<th>status</th><th>verdict</th><th>bytes recovered</th><th>gaps</th></tr>";
    for (const IndexEntry& e : entries) {
        const FileResult& f = *e.file;
        // A file that never reached a repair (missing, refused) has no page of its own.
        const std::string name = Escaped(FileName(f.input));
        body += "<tr><td>" + (e.link.empty() ? name : "<a href=\"" + Escaped(e.link) + "\">" + name + "</a>") + "</td><td>" +
                Escaped(f.status) + "</td><td>" + (f.judged ? VerdictName(f.judge.verdict) : "-") + "</td><td>" +
                Percent(e.recoveredBytes, e.fileSize) + "</td><td>" + std::to_string(e.gaps) + "</td></tr>";
    }
    body += "</table>";
    if (!run.sample.empty()) body += "<p>Sample: " + Escaped(run.sample) + "</p>";
    return Page("Repairs", body);
}

std::string PagePathFor(const std::string& indexPath, size_t position, const std::string& input) {
    Poco::Path index(indexPath);
    Poco::Path folder(index.parent());
    folder.pushDirectory(index.getBaseName() + "-files");
    std::string number = std::to_string(position + 1);
    number.insert(0, number.size() < 3 ? 3 - number.size() : 0, '0');
    return Poco::Path(folder, number + "-" + Poco::Path(input).getBaseName() + ".html").toString();
}

bool WriteFile(const std::string& path, const std::string& bytes) {
    std::error_code ec;
    std::filesystem::path parent = std::filesystem::u8path(path).parent_path();
    if (!parent.empty()) std::filesystem::create_directories(parent, ec);
    std::ofstream out(std::filesystem::u8path(path), std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), std::streamsize(bytes.size()));
    return bool(out.flush());
}

}  // namespace report_page
