// The report page of a repair: one self-contained HTML file (inline CSS, images
// as data: URIs, no script, nothing fetched) that tells a person in seconds what
// was saved and what was lost; for several files, an index page linking one page
// per file.
#pragma once

#include <string>
#include <vector>

#include "FrameGrabber.h"
#include "RecordReader.h"
#include "ResultOutput.h"

namespace report_page {

std::string FileHtml(const FileResult& file, const RunSummary& run, const RepairMap& map,
                     const std::vector<Thumbnail>& thumbnails);

struct IndexEntry {
    std::string link;  // relative to the index page
    const FileResult* file = nullptr;
    int64_t recoveredBytes = 0;
    int64_t fileSize = 0;
    size_t gaps = 0;
};
std::string IndexHtml(const RunSummary& run, const std::vector<IndexEntry>& entries);

// Where the page of the input at position goes when several files share one
// report: a folder beside the index page, named after it.
std::string PagePathFor(const std::string& indexPath, size_t position, const std::string& input);

bool WriteFile(const std::string& path, const std::string& bytes);

}  // namespace report_page
