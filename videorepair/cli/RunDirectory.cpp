#include "RunDirectory.h"

#include <Poco/Environment.h>
#include <Poco/Path.h>
#include <Poco/Process.h>
#include <Poco/Random.h>

#include <cstdlib>
#include <filesystem>
#include <system_error>

#include "Console.h"

namespace fs = std::filesystem;

namespace {

// "run-HOST-": a work directory on shared storage holds other machines' runs,
// whose process ids mean nothing here.
std::string RunPrefix() {
    std::string host;
    try {
        host = Poco::Environment::nodeName();
    } catch (const std::exception&) {
    }
    return "run-" + (host.empty() ? std::string("host") : host) + "-";
}

// Runs of this machine whose process is gone (killed outright, or the machine
// stopped) left their intermediates: they go now.
void RemoveAbandonedRuns(const fs::path& root) {
    const std::string prefix = RunPrefix();
    std::error_code ec;
    for (fs::directory_iterator it(root, ec), end; !ec && it != end; it.increment(ec)) {
        std::string name = it->path().filename().u8string();
        if (name.rfind(prefix, 0) != 0) continue;
        int pid = std::atoi(name.c_str() + prefix.size());
        std::error_code ignored;
        if (pid > 0 && !console::ProcessExists(pid)) fs::remove_all(it->path(), ignored);
    }
}

}  // namespace

bool RunDirectory::Create(const std::string& base, std::string& error) {
    fs::path root = base.empty() ? fs::u8path(Poco::Path::temp()) / ("videorepair-" + console::UserTag())
                                 : fs::u8path(base);
    std::error_code ec;
    fs::create_directories(root, ec);
    if (!ec && base.empty()) {
        // Intermediates are copies of people's videos: nobody else reads them.
        fs::permissions(root, fs::perms::owner_all, fs::perm_options::replace, ec);
    }
    if (ec) {
        error = "cannot create the work directory " + root.u8string() + ": " + ec.message() +
                " (name another with --work-dir)";
        return false;
    }
    RemoveAbandonedRuns(root);
    Poco::Random random;
    random.seed();
    for (int attempt = 0; attempt < 100; ++attempt) {
        fs::path run =
            root / ("run-" + std::to_string(Poco::Process::id()) + "-" + std::to_string(random.next(1000000)));
        if (fs::create_directory(run, ec) && !ec) {
            path_ = run.u8string();
            return true;
        }
        if (ec) break;
    }
    error = "cannot create a run folder in the work directory " + root.u8string() +
            (ec ? ": " + ec.message() : std::string()) + " (name another with --work-dir)";
    return false;
}

std::string RunDirectory::FileDirectory(size_t index) const {
    return (fs::u8path(path_) / ("file-" + std::to_string(index + 1))).u8string();
}

void RunDirectory::Remove() {
    if (path_.empty()) return;
    std::error_code ec;
    fs::remove_all(fs::u8path(path_), ec);
    path_.clear();
}
