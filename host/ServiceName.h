// How a service is called in the service repository.
#pragma once

#include <string>

namespace WindowsAgentCommon {

/// Returns the name under which the service stands in ACE's repository.
inline std::string GetRepositoryName(const std::string& serviceName) { return serviceName + "_Dynamic_Service"; }

}  // namespace WindowsAgentCommon
