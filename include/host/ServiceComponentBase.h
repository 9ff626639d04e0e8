// Base of every service component: the ACE interface, the stored configuration and the two state flags.
#pragma once

#include <host/IServiceComponent.h>

#include <string>

namespace WindowsAgentCommon {

/// Joins the ACE service `AceBase` and the component's `Interface`. The ACE operations (`init`, `fini`, `info`,
/// `suspend`, `resume`) are those of `AceBase`. Derived classes implement `Initialize` and `GetVersion`.
template <class Interface, class AceBase>
class ServiceComponentBase : public AceBase, public Interface {
 public:
  std::string GetServiceConfigText1() const override { return m_serviceConfig.m_strName; }
  std::string GetServiceConfigText2() const override { return m_serviceConfig.m_strDisplayName; }
  std::string GetServiceConfigText3() const override { return m_serviceConfig.m_strDescription; }
  std::string GetServiceConfigText4() const override { return m_serviceConfig.m_strModule; }
  std::string GetServiceConfigText5() const override { return m_serviceConfig.m_strEntryPoint; }
  bool IsInitialized() const override { return m_bInitialized; }
  bool IsRestartRequested() const override { return m_bRestartRequested; }

 protected:
  bool m_bInitialized = false;
  bool m_bRestartRequested = false;
  ServiceConfig m_serviceConfig;
};

}  // namespace WindowsAgentCommon
