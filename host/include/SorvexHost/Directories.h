// Setting the agent's directories.
#pragma once

#include <SorvexCommonExport.h>

#include <string>

namespace WindowsAgentCommon {

/// Sets what `GetConfigPath` returns, without trailing separators. Default: the platform's own directory.
SORVEXCOMMON_EXPORT void SetConfigPath(const std::wstring& path);

/// Sets what `GetPatchPath` returns, without trailing separators. Empty, the default: "patch" below what
/// `GetConfigPath` returns.
SORVEXCOMMON_EXPORT void SetPatchPath(const std::wstring& path);

}  // namespace WindowsAgentCommon
