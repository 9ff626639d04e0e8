// MD5 texts, as the configuration server compares them.
#pragma once

#include <SorvexCommonExport.h>

#include <cstddef>
#include <string>

namespace WindowsAgentCommon {

/// Returns the MD5 of `size` bytes as 32 lower-case hexadecimal characters, or an empty text on a system without MD5.
SORVEXCOMMON_EXPORT std::string MD5Sum(const void* data, std::size_t size);

/// Returns the MD5 of a file's content, or an empty text when it cannot be read or is not a regular file.
SORVEXCOMMON_EXPORT std::string MD5Sum(const std::wstring& path);

}  // namespace WindowsAgentCommon
