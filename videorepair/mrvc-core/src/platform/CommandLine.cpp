#include "platform/CommandLine.h"

namespace platform {

std::vector<std::wstring> SplitCommandLine(const std::wstring& commandLine) {
    std::vector<std::wstring> args;
    std::wstring current;
    bool inQuotes = false;
    bool haveToken = false;
    for (wchar_t c : commandLine) {
        if (c == L'"') {
            inQuotes = !inQuotes;
            haveToken = true;
        } else if ((c == L' ' || c == L'\t') && !inQuotes) {
            if (haveToken) args.push_back(current);
            current.clear();
            haveToken = false;
        } else {
            current.push_back(c);
            haveToken = true;
        }
    }
    if (haveToken) args.push_back(current);
    return args;
}

}  // namespace platform
