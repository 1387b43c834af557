// UTF-8 on the command line, wide strings at the library's interface.
#pragma once

#include <string>

namespace wide_text {

std::wstring ToWide(const std::string& utf8);
std::string ToNarrow(const std::wstring& wide);

}  // namespace wide_text
