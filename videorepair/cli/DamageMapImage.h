// The damage map as inline SVG: the damaged file as a bar scaled by bytes, each
// range of the record in the colour of its kind, and under it the repaired
// file's timeline per stream with its gaps. Crisp at any zoom, no script needed.
#pragma once

#include <string>

#include "RecordReader.h"

namespace damage_map {

struct KindStyle {
    const char* kind;    // as in the record
    const char* colour;  // CSS colour
    const char* label;   // for the legend, in plain words
};

// recovered, skipped, unreadable, restored, then the bytes no pass used.
const KindStyle* Styles(size_t& count);
const char* ColourOf(const std::string& kind);

std::string FileBarSvg(const RepairMap& map);
// Empty when the record has no streams.
std::string TimelineSvg(const RepairMap& map);

// Text with &, <, > and quotes escaped for HTML and SVG.
std::string Escaped(const std::string& text);

}  // namespace damage_map
