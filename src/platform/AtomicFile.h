// Files that others see whole or not at all.
#pragma once

#include <string>
#include <string_view>

namespace VaroCommunicationAPI::Platform {

/// Writes `content` to a new file beside `path`, has the system store it, and then gives it the name `path` in place of
/// what was there. Everybody may read the file and only its owner (on Windows also the system and its administrators)
/// may write it. Returns 0, or the system's own error number; nothing new is left then, and what was there stays.
int WriteFileAtomically(const std::wstring& path, std::string_view content);

}  // namespace VaroCommunicationAPI::Platform
