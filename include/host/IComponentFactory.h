// The host's component factory: which services there are, how they are loaded and configured.
#pragma once

#include <SorvexCommonExport.h>
#include <host/ServiceConfig.h>

#include <string>

namespace WindowsAgentCommon {

/// Operations may be called from any thread.
class SORVEXCOMMON_EXPORT IComponentFactory {
 public:
  virtual ~IComponentFactory();

  /// Whether a service of this name can be loaded.
  virtual bool IsServiceRegistered(const std::string& serviceName) const = 0;

  /// Loads the service unless it is loaded. On success the service stands in the current `ACE_Service_Config` under
  /// the name "<service name>_Dynamic_Service" until the host unloads it. Returns false, with the reason in the log,
  /// when it cannot be loaded; an exception out of the service's code is such a reason, and so is a service that would
  /// need itself to be loaded first. While another thread loads the same service, this one waits for it. A service may
  /// ask the host for anything while it is loaded, from threads of its own as well; only for a thread that asks for the
  /// very service it must not wait.
  virtual bool LoadService(const std::string& serviceName) = 0;

  /// Returns the configuration object of a component, or null when the component is unknown. The object itself, not a
  /// copy: what a caller changes stays changed. Owned by the factory. Callers that change it serialise among
  /// themselves.
  virtual ServiceConfig* GetServiceConfig(const std::string& componentName) = 0;
};

/// Returns the process's component factory, or null when the host has none. Not owned by the caller.
SORVEXCOMMON_EXPORT IComponentFactory* GetComponentFactory();

}  // namespace WindowsAgentCommon
