// The agent's directories.
#pragma once

#include <SorvexCommonExport.h>

#include <string>

namespace WindowsAgentCommon {

/// The agent's configuration directory, without a trailing separator.
SORVEXCOMMON_EXPORT std::wstring GetConfigPath();

/// The directory where patch archives wait, without a trailing separator.
SORVEXCOMMON_EXPORT std::wstring GetPatchPath();

}  // namespace WindowsAgentCommon
