// Small string helpers used across the library.
#pragma once

#include <string>

namespace text {

std::wstring ReplaceAll(std::wstring text, wchar_t from, wchar_t to);

// Equal lengths and every character equal after lower-casing.
bool EqualsIgnoreCase(const std::wstring& a, const std::wstring& b);

// The text after the last "." of the path's file name, as Poco::Path sees it.
std::wstring ExtensionOf(const std::wstring& path);

}  // namespace text
