// What a worker leaves in its file's work directory for the tool: its result
// as one JSON line, its report for people, and the library's log of that file.
#pragma once

constexpr char kResultFile[] = "result.json";
constexpr char kReportFile[] = "report.txt";
constexpr char kLogFile[] = "KzVideoRepair.log";
constexpr char kLogFolder[] = "log";
constexpr char kRecordFile[] = "record.json";  // the library's record of a thorough repair
