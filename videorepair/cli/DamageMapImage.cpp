#include "DamageMapImage.h"

#include <algorithm>
#include <cstdio>

#include "ContactSheet.h"

namespace damage_map {
namespace {

constexpr double kWidth = 1000;
constexpr double kBarHeight = 40;
constexpr double kRowHeight = 26;
constexpr double kLabelWidth = 130;

const KindStyle kStyles[] = {
    {"recovered", "#16a34a", "recovered: in the repaired file"},
    {"skipped", "#f59e0b", "skipped: garbage, damage or old structure not used"},
    {"unreadable", "#dc2626", "unreadable: the device could not read these bytes"},
    {"restored", "#7c3aed", "restored: headers and parameter sets put back"},
    {"unused", "#d4d4d8", "not reached by the repair"},
};

std::string Number(double value) {
    char text[32];
    std::snprintf(text, sizeof text, "%.2f", value);
    return text;
}

std::string SizeText(int64_t bytes) {
    char text[32];
    if (bytes >= (int64_t(1) << 30)) {
        std::snprintf(text, sizeof text, "%.2f GiB", double(bytes) / double(int64_t(1) << 30));
    } else if (bytes >= (1 << 20)) {
        std::snprintf(text, sizeof text, "%.1f MiB", double(bytes) / double(1 << 20));
    } else {
        std::snprintf(text, sizeof text, "%.1f KiB", double(bytes) / 1024.0);
    }
    return text;
}

std::string Rect(double x, double y, double w, double h, const char* colour, const std::string& title) {
    return "<rect x=\"" + Number(x) + "\" y=\"" + Number(y) + "\" width=\"" + Number(w) + "\" height=\"" + Number(h) +
           "\" fill=\"" + colour + "\"><title>" + Escaped(title) + "</title></rect>";
}

std::string Text(double x, double y, const std::string& text, const char* anchor = "start") {
    return "<text x=\"" + Number(x) + "\" y=\"" + Number(y) + "\" font-size=\"12\" font-family=\"sans-serif\" fill=\"#333\" text-anchor=\"" +
           anchor + "\">" + Escaped(text) + "</text>";
}

std::string RangeTitle(const MapRange& r) {
    std::string title = r.kind + ": " + std::to_string(r.length) + " bytes at " + std::to_string(r.offset);
    return r.note.empty() ? title : title + " (" + r.note + ")";
}

}  // namespace

const KindStyle* Styles(size_t& count) {
    count = sizeof kStyles / sizeof kStyles[0];
    return kStyles;
}

const char* ColourOf(const std::string& kind) {
    for (const KindStyle& style : kStyles)
        if (kind == style.kind) return style.colour;
    return "#999";
}

std::string Escaped(const std::string& text) {
    std::string out;
    for (char c : text) {
        switch (c) {
            case '&': out += "&amp;"; break;
            case '<': out += "&lt;"; break;
            case '>': out += "&gt;"; break;
            case '"': out += "&quot;"; break;
            default: out += c;
        }
    }
    return out;
}

std::string FileBarSvg(const RepairMap& map) {
    const double size = double(std::max<int64_t>(map.fileSize, 1));
    std::string svg = "<svg class=\"damage-map\" xmlns=\"http://www.w3.org/2000/svg\" viewBox=\"0 0 " + Number(kWidth) +
                      " " + Number(kBarHeight + 22) + "\" width=\"100%\" role=\"img\" aria-label=\"damage map\">";
    svg += Rect(0, 0, kWidth, kBarHeight, ColourOf("unused"), "not reached by the repair");
    // Unreadable stretches and then restorations go on top of what a pass made of
    // the same bytes; restorations at least a few pixels wide, or they would vanish.
    const char* const layers[] = {"", "unreadable", "restored"};
    for (const char* layer : layers) {
        for (const MapRange& r : map.ranges) {
            bool restored = r.kind == "restored";
            bool onLayer = r.kind == layer || (*layer == '\0' && !restored && r.kind != "unreadable");
            if (!onLayer) continue;
            double x = double(r.offset) / size * kWidth, w = double(r.length) / size * kWidth;
            w = std::max(w, restored ? 4.0 : 0.5);
            svg += Rect(std::min(x, kWidth - w), 0, w, kBarHeight, ColourOf(r.kind), RangeTitle(r));
        }
    }
    svg += Text(0, kBarHeight + 16, "0");
    svg += Text(kWidth, kBarHeight + 16, SizeText(map.fileSize) + " (" + std::to_string(map.fileSize) + " bytes)", "end");
    return svg + "</svg>";
}

std::string TimelineSvg(const RepairMap& map) {
    if (map.streams.empty()) return std::string();
    const double duration = std::max(map.Duration(), 0.001), span = kWidth - kLabelWidth;
    const double height = kRowHeight * double(map.streams.size()) + 20;
    std::string svg = "<svg class=\"timeline\" xmlns=\"http://www.w3.org/2000/svg\" viewBox=\"0 0 " + Number(kWidth) +
                      " " + Number(height) + "\" width=\"100%\" role=\"img\" aria-label=\"timeline per stream\">";
    for (size_t i = 0; i < map.streams.size(); ++i) {
        const MapStream& s = map.streams[i];
        double y = kRowHeight * double(i);
        svg += Text(0, y + 15, s.kind + " " + std::to_string(s.index) + " (" + s.codec + ")");
        svg += Rect(kLabelWidth, y + 3, span, kRowHeight - 8, "#e5e7eb", "no packets");
        svg += Rect(kLabelWidth + s.first / duration * span, y + 3, (s.last - s.first) / duration * span, kRowHeight - 8,
                    "#2563eb", s.kind + ": " + contact_sheet::TimeText(s.first) + " to " + contact_sheet::TimeText(s.last));
        for (const MapGap& g : map.gaps) {
            if (g.stream != s.kind) continue;
            double w = std::max((g.end - g.start) / duration * span, 2.0);
            svg += Rect(kLabelWidth + g.start / duration * span, y + 3, w, kRowHeight - 8, "#dc2626",
                        "gap in " + g.stream + ": " + contact_sheet::TimeText(g.start) + " to " +
                            contact_sheet::TimeText(g.end));
        }
    }
    double axis = kRowHeight * double(map.streams.size()) + 14;
    svg += Text(kLabelWidth, axis, "0:00.0");
    svg += Text(kWidth, axis, contact_sheet::TimeText(duration), "end");
    return svg + "</svg>";
}

}  // namespace damage_map
