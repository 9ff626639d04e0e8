// The parameter block: how every component of the agent is configured.
#pragma once

#include <map>
#include <string>

namespace WindowsAgentCommon {

/// Keys and values, both UTF-8. Keys are case-sensitive and may occur more than once.
using ParameterBlock = std::multimap<std::string, std::string>;

}  // namespace WindowsAgentCommon
