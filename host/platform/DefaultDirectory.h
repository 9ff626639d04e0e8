// Where the agent lives when nobody says otherwise.
#pragma once

#include <string>

namespace WindowsAgentCommon {

/// Returns the platform's directory for the agent's configuration, without a separator at its end.
std::wstring GetDefaultConfigPath();

}  // namespace WindowsAgentCommon
