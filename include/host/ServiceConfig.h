// The host's description of a service component.
#pragma once

#include <host/ParameterBlock.h>

#include <string>

namespace WindowsAgentCommon {

/// A copyable value: five descriptive texts and the component's parameter block.
struct ServiceConfig {
  std::string m_strName;         ///< text 1: the component's name, for example "AgentCore"
  std::string m_strDisplayName;  ///< text 2: its name as shown to people
  std::string m_strDescription;  ///< text 3: what it does
  std::string m_strModule;       ///< text 4: the module file it is loaded from
  std::string m_strEntryPoint;   ///< text 5: the factory function in that module
  ParameterBlock m_parameters;
};

}  // namespace WindowsAgentCommon
