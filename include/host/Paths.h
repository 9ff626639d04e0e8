// The agent's directories.
#pragma once

#include <SorvexCommonExport.h>

#include <string>

namespace WindowsAgentCommon {

/// Directory of the agent's configuration, without a separator at its end.
SORVEXCOMMON_EXPORT std::wstring GetConfigPath();

/// Directory in which patch archives wait, without a separator at its end.
SORVEXCOMMON_EXPORT std::wstring GetPatchPath();

}  // namespace WindowsAgentCommon
