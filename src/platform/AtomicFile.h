// Files that others see whole or not at all.
#pragma once

#include <string>
#include <string_view>

namespace VaroCommunicationAPI::Platform {

/// Writes `content` to a new file next to `path`, has the system store it, and then renames it to `path`. Everybody may
/// read the file; only its owner (on Windows also the system and its administrators) may write it. Returns 0, or the
/// system's error number; then no new file is left and the old one stays.
int WriteFileAtomically(const std::wstring& path, std::string_view content);

}  // namespace VaroCommunicationAPI::Platform
