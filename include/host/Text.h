// Text in the host framework: narrow strings hold UTF-8, wide strings carry file paths and host names.
#pragma once

#include <SorvexCommonExport.h>

#include <filesystem>
#include <string>
#include <string_view>

namespace WindowsAgentCommon {

/// A narrow string that holds UTF-8.
using utf8string = std::string;

/// Converts UTF-8 to the platform's wide text (UTF-16 or UTF-32). An invalid sequence becomes U+FFFD in UTF-16. In
/// UTF-32 each of its bytes becomes U+DC00 plus the byte, and `WideToUtf8` restores the byte: file names that are bytes
/// and not UTF-8 survive the conversion to wide text and back.
SORVEXCOMMON_EXPORT std::wstring Utf8ToWide(std::string_view text);

/// Converts wide text to UTF-8. A lone surrogate or a value above U+10FFFF becomes U+FFFD, except that in UTF-32 U+DC80
/// to U+DCFF become the bytes 0x80 to 0xFF.
SORVEXCOMMON_EXPORT utf8string WideToUtf8(std::wstring_view text);

/// Returns the path that `text` names, independent of the process's locale.
SORVEXCOMMON_EXPORT std::filesystem::path WideToPath(std::wstring_view text);

/// Returns `path` as the wide text that the host's operations take.
SORVEXCOMMON_EXPORT std::wstring PathToWide(const std::filesystem::path& path);

}  // namespace WindowsAgentCommon
