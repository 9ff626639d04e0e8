// Reading the small files of an installation.
#pragma once

#include "platform/SecretText.h"

#include <cstddef>
#include <string>

namespace VaroCommunicationAPI::Platform {

/// Reads at most `maxBytes` from the start of an existing regular file, shared only with other readers where the system
/// has sharing (Windows). `path` is wide and may use either of the system's separators. Returns 0, or the system's
/// error number with `content` empty; a file that is not regular (a pipe, a device) is refused at once.
int ReadFileHead(const std::wstring& path, std::size_t maxBytes, SecretText& content);

/// What separates the configuration directory from the name of a certificate file.
extern const wchar_t* const configSeparator;

}  // namespace VaroCommunicationAPI::Platform
