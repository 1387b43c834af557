#include "ReportRun.h"

#include <Poco/Path.h>

#include <cstdio>
#include <filesystem>

#include "ContactSheet.h"
#include "RecordReader.h"

std::string ReportRun::SheetPathFor(size_t position, const std::string& input) const {
    if (inputs_ <= 1) return sheetPath_;
    Poco::Path sheet(sheetPath_);
    std::string name = sheet.getBaseName() + "-" + std::to_string(position + 1) + "-" + Poco::Path(input).getBaseName();
    Poco::Path named(sheet.parent(), name);
    named.setExtension(sheet.getExtension().empty() ? "png" : sheet.getExtension());
    return named.toString();
}

void ReportRun::AfterFile(FileResult& file, const RunSummary& run, const std::string& recordPath, size_t position) {
    if (!recordPath.empty()) {
        file.map = ReadRepairMap(recordPath);
        std::error_code ec;
        std::filesystem::remove(std::filesystem::u8path(recordPath), ec);
    }
    if (reportPath_.empty() && sheetPath_.empty()) return;
    std::vector<Thumbnail> thumbnails;
    if (!file.repairedPath.empty()) thumbnails = contact_sheet::Take(file.repairedPath, file.map);
    if (!sheetPath_.empty()) {
        std::string png = contact_sheet::ComposePng(thumbnails);
        std::string path = SheetPathFor(position, file.input);
        if (png.empty()) {
            std::fprintf(stderr, "videorepair: %s: no contact sheet: the repaired file has no video frame to show\n",
                         file.input.c_str());
        } else if (!report_page::WriteFile(path, png)) {
            std::fprintf(stderr, "videorepair: cannot write the contact sheet %s\n", path.c_str());
        }
    }
    if (reportPath_.empty()) return;
    std::string page = inputs_ <= 1 ? reportPath_ : report_page::PagePathFor(reportPath_, position, file.input);
    if (!report_page::WriteFile(page, report_page::FileHtml(file, run, file.map, thumbnails)))
        std::fprintf(stderr, "videorepair: cannot write the report page %s\n", page.c_str());
    file.reportPage = page;
}

void ReportRun::Finish(const RunSummary& run) const {
    if (reportPath_.empty() || inputs_ <= 1) return;
    std::vector<report_page::IndexEntry> entries;
    for (const FileResult& file : run.files) {
        std::string link = file.reportPage.empty()
                               ? std::string()
                               : std::filesystem::u8path(file.reportPage)
                                     .lexically_relative(std::filesystem::u8path(reportPath_).parent_path())
                                     .generic_u8string();
        entries.push_back({link, &file, file.map.BytesOf("recovered"), file.map.fileSize, file.map.gaps.size()});
    }
    if (!report_page::WriteFile(reportPath_, report_page::IndexHtml(run, entries)))
        std::fprintf(stderr, "videorepair: cannot write the report page %s\n", reportPath_.c_str());
}
