// The system's texts for its error numbers.
#pragma once

#include <SorvexCommonExport.h>

#include <string>

namespace WindowsAgentCommon {

/// Returns the system's text for one of its error numbers, UTF-8, without a line end; "error <number>" when it has
/// none. Any thread.
SORVEXCOMMON_EXPORT std::string GetLastErrorText(int error);

}  // namespace WindowsAgentCommon
