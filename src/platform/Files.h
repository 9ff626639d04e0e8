// Reading the small files of an installation.
#pragma once

#include "platform/SecretText.h"

#include <cstddef>
#include <string>

namespace VaroCommunicationAPI::Platform {

/// Reads at most `maxBytes` from the start of an existing file that others may write meanwhile. `path` is wide and may
/// use either of the system's separators. Returns 0, or the system's own error number with `content` empty.
int ReadFileHead(const std::wstring& path, std::size_t maxBytes, SecretText& content);

/// What stands between the configuration directory and the name of a certificate file.
extern const wchar_t* const configSeparator;

}  // namespace VaroCommunicationAPI::Platform
