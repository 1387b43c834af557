#include "WideText.h"

#include <Poco/UnicodeConverter.h>

namespace wide_text {

namespace {

// wchar_t is UTF-32 on Linux and UTF-16 on Windows; pick the matching Poco
// conversion by its size instead of by platform.
template <size_t WideBytes>
struct Converter;

template <>
struct Converter<4> {
    static std::wstring ToWide(const std::string& utf8) {
        Poco::UTF32String units;
        Poco::UnicodeConverter::convert(utf8, units);
        return std::wstring(units.begin(), units.end());
    }
    static std::string ToNarrow(const std::wstring& wide) {
        Poco::UTF32String units(wide.begin(), wide.end());
        std::string utf8;
        Poco::UnicodeConverter::convert(units, utf8);
        return utf8;
    }
};

template <>
struct Converter<2> {
    static std::wstring ToWide(const std::string& utf8) {
        Poco::UTF16String units;
        Poco::UnicodeConverter::convert(utf8, units);
        return std::wstring(units.begin(), units.end());
    }
    static std::string ToNarrow(const std::wstring& wide) {
        Poco::UTF16String units(wide.begin(), wide.end());
        std::string utf8;
        Poco::UnicodeConverter::convert(units, utf8);
        return utf8;
    }
};

using Native = Converter<sizeof(wchar_t)>;

}  // namespace

std::wstring ToWide(const std::string& utf8) { return Native::ToWide(utf8); }
std::string ToNarrow(const std::wstring& wide) { return Native::ToNarrow(wide); }

}  // namespace wide_text
