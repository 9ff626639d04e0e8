// The agent's default directory.
#pragma once

#include <string>

namespace WindowsAgentCommon {

/// Returns the platform's directory for the agent's configuration, without a trailing separator.
std::wstring GetDefaultConfigPath();

}  // namespace WindowsAgentCommon
