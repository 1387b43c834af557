#include "InputPlan.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <regex>
#include <system_error>

#include "Console.h"
#include "WorkFiles.h"

namespace {

namespace fs = std::filesystem;

// What a folder walk picks up: the extensions some road of the library repairs.
const char* const kEngineExtensions[] = {"avi", "flv", "mts", "m2ts", "mkv", "mxf", "klv", "wmv", "asf", "mpeg", "mpg"};
const char* const kThoroughOnlyExtensions[] = {"mp4", "mov", "3gp", "3g2", "m4v", "insv", "360"};

bool SameFile(const std::string& a, const std::string& b) {
    std::error_code ec;
    return fs::equivalent(fs::u8path(a), fs::u8path(b), ec) && !ec;
}

bool IsDirectory(const std::string& path) {
    std::error_code ec;
    return fs::is_directory(fs::u8path(path), ec);
}

}  // namespace

bool IsEarlierResult(const std::string& path) {
    static const std::regex kResult("(.*)_repaired[0-9]*");
    fs::path file = fs::u8path(path);
    std::smatch match;
    std::string stem = file.stem().u8string();
    if (!std::regex_match(stem, match, kResult)) return false;
    std::error_code ec;
    fs::path original = file.parent_path() / fs::u8path(match[1].str() + file.extension().u8string());
    return fs::exists(original, ec);
}

bool FolderIsWritable(const std::string& folder) {
    // Asking the system beats reading permission bits: a card may be mounted read-only.
    fs::path probe = fs::u8path(folder) / (".videorepair-probe-" + console::UserTag());
    std::error_code ec;
    bool created = static_cast<bool>(std::ofstream(probe, std::ios::binary | std::ios::app));
    if (created) fs::remove(probe, ec);
    return created;
}

bool InputPlan::IsSample(const std::string& path) const {
    return !options_.sample.empty() && SameFile(path, options_.sample);
}

void InputPlan::Walk(const std::string& folder, std::vector<std::string>& found,
                     std::vector<std::string>& skipped) const {
    bool thorough = options_.command == CliCommand::kRepair && !options_.compatible;
    std::vector<std::string> files;
    std::error_code ec;
    for (fs::recursive_directory_iterator it(fs::u8path(folder), fs::directory_options::skip_permission_denied, ec),
         end;
         !ec && it != end; it.increment(ec)) {
        // Results written into -o must not become inputs of a rerun.
        if (outputIsDirectory_ && it->is_directory(ec) && SameFile(it->path().u8string(), options_.output)) {
            it.disable_recursion_pending();
            continue;
        }
        if (!it->is_regular_file(ec)) continue;
        std::string path = it->path().u8string();
        std::string extension = work_files::LowerExtension(path);
        auto known = [&](const char* e) { return extension == e; };
        bool engine = std::any_of(std::begin(kEngineExtensions), std::end(kEngineExtensions), known);
        bool thoroughOnly = std::any_of(std::begin(kThoroughOnlyExtensions), std::end(kThoroughOnlyExtensions), known);
        if (engine || (thorough && thoroughOnly)) files.push_back(path);
    }
    std::sort(files.begin(), files.end());
    for (const std::string& path : files) {
        if (IsEarlierResult(path)) {
            skipped.push_back(path + ": an earlier result");
        } else {
            found.push_back(path);
        }
    }
}

std::vector<std::string> InputPlan::Expand(std::vector<std::string>& skipped) const {
    std::vector<std::string> named;
    for (const std::string& input : options_.inputs) {
        if (IsDirectory(input)) {
            Walk(input, named, skipped);
        } else if (IsEarlierResult(input)) {
            skipped.push_back(input + ": an earlier result");
        } else {
            named.push_back(input);
        }
    }
    std::vector<std::string> inputs;
    for (const std::string& input : named) {
        if (IsSample(input)) {
            // A glob like *.MTS includes the sample; repairing it against itself helps nobody.
            skipped.push_back(input + ": the sample");
            continue;
        }
        bool seen = std::any_of(inputs.begin(), inputs.end(), [&](const std::string& other) {
            return other == input || SameFile(other, input);
        });
        if (!seen) inputs.push_back(input);
    }
    return inputs;
}

bool InputPlan::IsProtected(const std::string& path, const std::vector<std::string>& inputs) const {
    if (IsSample(path)) return true;
    return std::any_of(inputs.begin(), inputs.end(), [&](const std::string& input) { return SameFile(path, input); });
}

bool InputPlan::CheckOutput(size_t inputCount, std::string& error) {
    inputs_ = options_.inputs;
    if (options_.output.empty()) return true;
    const std::string& output = options_.output;
    bool existingDirectory = IsDirectory(output);
    bool folderInput = std::any_of(options_.inputs.begin(), options_.inputs.end(), IsDirectory);
    outputIsDirectory_ = existingDirectory || inputCount > 1 || folderInput || output.back() == '/';
    std::error_code ec;
    if (!outputIsDirectory_ && IsProtected(output, options_.inputs)) {
        error = "-o " + output + " is a damaged file or the sample; they are never overwritten";
        return false;
    }
    if (outputIsDirectory_ && fs::exists(fs::u8path(output), ec) && !existingDirectory) {
        error = "-o " + output + " must be a directory when several damaged files are given";
        return false;
    }
    return true;
}

std::string InputPlan::Unused(const std::string& folder, const std::string& stem, const std::string& extension,
                              bool firstPlain) {
    // Never onto a damaged file or the sample, never twice onto one name in a run.
    for (int n = firstPlain ? 0 : 1;; ++n) {
        std::string name = n == 0 ? stem : n == 1 ? stem + "_repaired" : stem + "_repaired" + std::to_string(n);
        std::string candidate = (fs::u8path(folder) / fs::u8path(name + extension)).u8string();
        if (!IsProtected(candidate, inputs_) && used_.insert(candidate).second) return candidate;
    }
}

PlannedFile InputPlan::Plan(const std::string& input) {
    PlannedFile planned;
    planned.input = input;
    fs::path path = fs::u8path(input);
    std::string stem = path.stem().u8string();
    std::string extension = path.extension().u8string();
    if (!options_.output.empty() && !outputIsDirectory_) {
        planned.destination = options_.output;
    } else if (!options_.output.empty()) {
        planned.destination = Unused(options_.output, stem, extension, true);
    } else {
        std::string folder = work_files::FolderOf(input);
        if (!FolderIsWritable(folder)) {
            planned.note = "the folder " + folder + " is read-only: the result goes to the current directory";
            std::error_code ec;
            folder = fs::current_path(ec).u8string();
        }
        planned.destination = Unused(folder, stem, extension, false);
    }
    std::error_code ec;
    fs::path absolute = fs::absolute(fs::u8path(planned.destination), ec);
    if (!ec) planned.destination = absolute.lexically_normal().u8string();
    return planned;
}
