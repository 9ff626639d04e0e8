// Texts that the connections to a configuration server have in common.
#pragma once

#include <host/EnvironmentBlockHelper.h>

#include <functional>
#include <string>
#include <vector>

namespace VaroCommunicationAPI {

/// Returns "&name=value" for each log-source auto-creation parameter, in the host's order. It begins with "&",
/// deliberately. Names and values are sent as `encode` returns them.
std::string AutoCreationText(const WindowsAgentCommon::EnvironmentBlockHelper& parameters,
                             const std::function<std::string(const std::string&)>& encode);

/// Returns the components, each for this version of the agent, with "," between them.
std::string ComponentList(const std::vector<std::string>& names);

}  // namespace VaroCommunicationAPI
