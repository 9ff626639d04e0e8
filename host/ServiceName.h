// The names of services in the service repository.
#pragma once

#include <string>

namespace WindowsAgentCommon {

/// Returns the service's name in ACE's repository.
inline std::string GetRepositoryName(const std::string& serviceName) { return serviceName + "_Dynamic_Service"; }

}  // namespace WindowsAgentCommon
