// Texts that the connections to a configuration server share.
#pragma once

#include <host/EnvironmentBlockHelper.h>

#include <functional>
#include <string>
#include <vector>

namespace VaroCommunicationAPI {

/// Returns "&name=value" for each log-source auto-creation parameter, in the host's order. It begins with "&",
/// deliberately. Names and values are passed through `encode`.
std::string AutoCreationText(const WindowsAgentCommon::EnvironmentBlockHelper& parameters,
                             const std::function<std::string(const std::string&)>& encode);

/// Returns the components, each for this version of the agent, separated by ",".
std::string ComponentList(const std::vector<std::string>& names);

}  // namespace VaroCommunicationAPI
