// The files a worker hands the library live in its own work directory: a view
// of the damaged file and of the sample under plain, lower-case-extension names
// (the library's engines pick by extension, exact case, and some write beside
// their input), and a landing place for results whose destination name the
// library's wide-character interface cannot carry.
#pragma once

#include <string>

namespace work_files {

// True when text is valid UTF-8 (POSIX file names may be any bytes).
bool IsUtf8(const std::string& text);

// text with every byte that is not part of valid UTF-8 replaced by U+FFFD.
std::string ValidUtf8(const std::string& text);

std::string LowerExtension(const std::string& path);  // "AVI" -> "avi"; empty when none

// A link to source inside directory, named stem.ext with ext in lower case
// (a symbolic link where the system allows one, else a copy). Empty with the
// reason in error when neither works.
std::string MakeView(const std::string& source, const std::string& directory, const std::string& stem,
                     std::string& error);

// Moves a file (a rename, or a copy then a removal across file systems).
bool MoveResult(const std::string& from, const std::string& to, std::string& error);

// The folder's name for a file: what a user calls "the folder of X".
std::string FolderOf(const std::string& path);

}  // namespace work_files
