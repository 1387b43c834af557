#include "platform/CommandLine.h"

namespace platform {

// Windows' own rules (CommandLineToArgvW): blanks separate arguments outside
// double quotes; 2n backslashes before a quote give n backslashes and the quote
// opens or closes a group, 2n+1 give n backslashes and a literal quote; other
// backslashes are literal.
std::vector<std::wstring> SplitCommandLine(const std::wstring& commandLine) {
    std::vector<std::wstring> args;
    std::wstring current;
    bool inQuotes = false;
    bool haveToken = false;
    size_t backslashes = 0;
    for (wchar_t c : commandLine) {
        if (c == L'\\') {
            ++backslashes;
            haveToken = true;
            continue;
        }
        if (c == L'"') {
            current.append(backslashes / 2, L'\\');
            if (backslashes % 2 == 1) current.push_back(L'"');
            else inQuotes = !inQuotes;
            backslashes = 0;
            haveToken = true;
            continue;
        }
        current.append(backslashes, L'\\');
        backslashes = 0;
        if ((c == L' ' || c == L'\t') && !inQuotes) {
            if (haveToken) args.push_back(current);
            current.clear();
            haveToken = false;
        } else {
            current.push_back(c);
            haveToken = true;
        }
    }
    current.append(backslashes, L'\\');
    if (haveToken) args.push_back(current);
    return args;
}

}  // namespace platform
