// The host's component factory: which services exist, how they are loaded and configured.
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

  /// Loads the service unless it is loaded. After success the service is registered in the current `ACE_Service_Config`
  /// as "<service name>_Dynamic_Service" until the host unloads it. On failure returns false and logs the reason, which
  /// may be an exception from the service's code, or a service that needs itself to be loaded first. Waits while
  /// another thread loads the same service. A service being loaded may call the host, also from its own threads; it
  /// only must not wait for a thread that asks for this same service.
  virtual bool LoadService(const std::string& serviceName) = 0;

  /// Returns a component's configuration object, or null for an unknown component. It is the object itself, not a copy:
  /// a caller's changes persist. Owned by the factory. Callers that change it must serialise among themselves.
  virtual ServiceConfig* GetServiceConfig(const std::string& componentName) = 0;
};

/// Returns the process's component factory, or null when the host has none. Not owned by the caller.
SORVEXCOMMON_EXPORT IComponentFactory* GetComponentFactory();

}  // namespace WindowsAgentCommon
