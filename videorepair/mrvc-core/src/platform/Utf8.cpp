// UTF-8 conversions shared by both platform twins.
#include "platform/Platform.h"

namespace platform {

namespace {

void AppendUtf8(std::string& out, uint32_t cp) {
    if (cp < 0x80) {
        out.push_back(char(cp));
    } else if (cp < 0x800) {
        out.push_back(char(0xC0 | (cp >> 6)));
        out.push_back(char(0x80 | (cp & 0x3F)));
    } else if (cp < 0x10000) {
        out.push_back(char(0xE0 | (cp >> 12)));
        out.push_back(char(0x80 | ((cp >> 6) & 0x3F)));
        out.push_back(char(0x80 | (cp & 0x3F)));
    } else {
        out.push_back(char(0xF0 | (cp >> 18)));
        out.push_back(char(0x80 | ((cp >> 12) & 0x3F)));
        out.push_back(char(0x80 | ((cp >> 6) & 0x3F)));
        out.push_back(char(0x80 | (cp & 0x3F)));
    }
}

void AppendWide(std::wstring& out, uint32_t cp) {
    if (sizeof(wchar_t) == 2 && cp >= 0x10000) {
        cp -= 0x10000;
        out.push_back(wchar_t(0xD800 | (cp >> 10)));
        out.push_back(wchar_t(0xDC00 | (cp & 0x3FF)));
    } else {
        out.push_back(wchar_t(cp));
    }
}

}  // namespace

std::string ToNarrow(const std::wstring& wide) {
    std::string out;
    out.reserve(wide.size());
    for (size_t i = 0; i < wide.size(); ++i) {
        uint32_t cp = uint32_t(wide[i]);
        if (sizeof(wchar_t) == 2 && cp >= 0xD800 && cp < 0xDC00 && i + 1 < wide.size()) {
            uint32_t low = uint32_t(wide[i + 1]);
            if (low >= 0xDC00 && low < 0xE000) {
                cp = 0x10000 + ((cp - 0xD800) << 10) + (low - 0xDC00);
                ++i;
            }
        }
        if (cp > 0x10FFFF) cp = 0xFFFD;
        AppendUtf8(out, cp);
    }
    return out;
}

std::wstring ToWide(const std::string& narrow) {
    std::wstring out;
    out.reserve(narrow.size());
    const auto* s = reinterpret_cast<const unsigned char*>(narrow.data());
    size_t n = narrow.size();
    for (size_t i = 0; i < n;) {
        unsigned char c = s[i];
        int extra = c < 0x80 ? 0 : (c >> 5) == 0x6 ? 1 : (c >> 4) == 0xE ? 2 : (c >> 3) == 0x1E ? 3 : -1;
        if (extra < 0 || i + size_t(extra) >= n) {
            AppendWide(out, 0xFFFD);
            ++i;
            continue;
        }
        uint32_t cp = extra == 0 ? c : extra == 1 ? (c & 0x1F) : extra == 2 ? (c & 0x0F) : (c & 0x07);
        bool ok = true;
        for (int k = 1; k <= extra; ++k) {
            if ((s[i + k] & 0xC0) != 0x80) { ok = false; break; }
            cp = (cp << 6) | (s[i + k] & 0x3F);
        }
        if (!ok) {
            AppendWide(out, 0xFFFD);
            ++i;
            continue;
        }
        AppendWide(out, cp);
        i += size_t(extra) + 1;
    }
    return out;
}

}  // namespace platform
