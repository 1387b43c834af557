#include "TextUtil.h"

#include <Poco/Path.h>

#include <cwctype>

#include "platform/Platform.h"

namespace text {

std::wstring ReplaceAll(std::wstring s, wchar_t from, wchar_t to) {
    for (wchar_t& c : s) {
        if (c == from) c = to;
    }
    return s;
}

bool EqualsIgnoreCase(const std::wstring& a, const std::wstring& b) {
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i) {
        if (std::towlower(wint_t(a[i])) != std::towlower(wint_t(b[i]))) return false;
    }
    return true;
}

std::wstring ExtensionOf(const std::wstring& path) {
    try {
        return platform::ToWide(Poco::Path(platform::ToNarrow(path)).getExtension());
    } catch (...) {
        return std::wstring();
    }
}

}  // namespace text
