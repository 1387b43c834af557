#include "WorkFiles.h"

#include <cctype>
#include <filesystem>
#include <system_error>

namespace work_files {

namespace fs = std::filesystem;

namespace {

// Length of the UTF-8 sequence at text[i], 0 when it is not valid there.
size_t SequenceAt(const std::string& text, size_t i) {
    unsigned char lead = static_cast<unsigned char>(text[i]);
    size_t length = lead < 0x80 ? 1 : (lead >> 5) == 0x6 ? 2 : (lead >> 4) == 0xE ? 3 : (lead >> 3) == 0x1E ? 4 : 0;
    if (length == 0 || i + length > text.size()) return 0;
    uint32_t code = length == 1 ? lead : length == 2 ? lead & 0x1F : length == 3 ? lead & 0x0F : lead & 0x07;
    for (size_t k = 1; k < length; ++k) {
        unsigned char next = static_cast<unsigned char>(text[i + k]);
        if ((next >> 6) != 0x2) return 0;
        code = (code << 6) | (next & 0x3F);
    }
    static const uint32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
    if (code < kSmallest[length] || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) return 0;
    return length;
}

}  // namespace

bool IsUtf8(const std::string& text) {
    for (size_t i = 0; i < text.size();) {
        size_t length = SequenceAt(text, i);
        if (length == 0) return false;
        i += length;
    }
    return true;
}

std::string ValidUtf8(const std::string& text) {
    std::string valid;
    for (size_t i = 0; i < text.size();) {
        size_t length = SequenceAt(text, i);
        if (length == 0) {
            valid += "\xEF\xBF\xBD";
            ++i;
        } else {
            valid.append(text, i, length);
            i += length;
        }
    }
    return valid;
}

std::string LowerExtension(const std::string& path) {
    std::string extension = fs::u8path(path).extension().u8string();
    if (!extension.empty()) extension.erase(0, 1);
    for (char& c : extension) c = char(std::tolower(static_cast<unsigned char>(c)));
    return extension;
}

std::string MakeView(const std::string& source, const std::string& directory, const std::string& stem,
                     std::string& error) {
    std::error_code ec;
    fs::create_directories(fs::u8path(directory), ec);
    std::string extension = LowerExtension(source);
    fs::path view = fs::u8path(directory) / fs::u8path(extension.empty() ? stem : stem + "." + extension);
    fs::path target = fs::absolute(fs::u8path(source), ec);
    if (ec) target = fs::u8path(source);
    fs::remove(view, ec);
    fs::create_symlink(target, view, ec);
    if (ec) {
        fs::copy_file(target, view, ec);
        if (ec) {
            error = "cannot link or copy " + source + " into the work directory: " + ec.message();
            return std::string();
        }
    }
    return view.u8string();
}

bool MoveResult(const std::string& from, const std::string& to, std::string& error) {
    std::error_code ec;
    fs::rename(fs::u8path(from), fs::u8path(to), ec);
    if (!ec) return true;
    fs::copy_file(fs::u8path(from), fs::u8path(to), fs::copy_options::overwrite_existing, ec);
    if (ec) {
        error = ec.message();
        return false;
    }
    fs::remove(fs::u8path(from), ec);
    return true;
}

std::string FolderOf(const std::string& path) {
    fs::path folder = fs::u8path(path).parent_path();
    return folder.empty() ? std::string(".") : folder.u8string();
}

}  // namespace work_files
