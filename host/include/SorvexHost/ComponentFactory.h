// The reference component factory: a program fills it, installs it, and loads services through it.
#pragma once

#include <host/IComponentFactory.h>

#include <filesystem>
#include <memory>
#include <string>

namespace WindowsAgentCommon {

/// Loads services through ACE's service configurator. One per process is installed at a time.
class SORVEXCOMMON_EXPORT ComponentFactory : public IComponentFactory {
 public:
  ComponentFactory();
  /// Unloads what it loaded, last first, and uninstalls itself.
  ~ComponentFactory() override;
  ComponentFactory(const ComponentFactory&) = delete;
  ComponentFactory& operator=(const ComponentFactory&) = delete;

  /// Makes this the factory that `GetComponentFactory` returns.
  void Install();

  /// Registers a service of the shared library `module`, made by its function `_make_<className>`.
  void RegisterService(const std::string& serviceName, const std::filesystem::path& module,
                       const std::string& className);

  /// Registers this library's own services: `IPayloadFactory` and `IStatisticsServer`.
  void RegisterBuiltInServices();

  /// Adds or replaces the configuration of the component `config.m_strName`.
  void SetServiceConfig(const ServiceConfig& config);

  /// Removes a loaded service from the repository, which destroys it. Does nothing when it is not loaded.
  void UnloadService(const std::string& serviceName);

  bool IsServiceRegistered(const std::string& serviceName) const override;
  bool LoadService(const std::string& serviceName) override;
  ServiceConfig* GetServiceConfig(const std::string& componentName) override;

 private:
  struct State;
  std::unique_ptr<State> m_pState;
};

}  // namespace WindowsAgentCommon
