// The work directory of one run: a folder of this user's (0700) holding a
// folder per run, itself one per file, where the library makes its
// intermediates and writes its log. Removed whatever way the run ends; runs
// of this machine whose process was killed outright are removed by the next.
#pragma once

#include <string>

class RunDirectory {
public:
    RunDirectory() = default;
    ~RunDirectory() { Remove(); }
    RunDirectory(const RunDirectory&) = delete;
    RunDirectory& operator=(const RunDirectory&) = delete;

    // base: --work-dir, or empty for $TMPDIR/videorepair-USER. False with the reason.
    bool Create(const std::string& base, std::string& error);
    std::string FileDirectory(size_t index) const;  // made by the worker's library
    const std::string& Path() const { return path_; }
    void Remove();

private:
    std::string path_;
};
