// Version texts.
#pragma once

#include <SorvexCommonExport.h>

#include <string>

namespace WindowsAgentCommon {

/// Returns "major.minor.patch", formatted with "%d.%d.%d".
SORVEXCOMMON_EXPORT std::string FormatVersion(int major, int minor, int patch);

/// Version of the host framework.
SORVEXCOMMON_EXPORT std::string GetHostVersion();

/// The operating system's own version text.
SORVEXCOMMON_EXPORT std::string GetOperatingSystemVersion();

}  // namespace WindowsAgentCommon
