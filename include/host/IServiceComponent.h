// The contract between every service component and the host.
#pragma once

#include <SorvexCommonExport.h>
#include <host/ServiceConfig.h>

#include <string>

namespace WindowsAgentCommon {

/// Results of `IServiceComponent::Initialize`.
enum ServiceInitializeResult : int {
  SERVICE_INITIALIZE_READY = 1,               ///< the component can be used
  SERVICE_INITIALIZE_DEPENDENCY_MISSING = 2,  ///< a host service that it needs could not be loaded
  SERVICE_INITIALIZE_FAILED = 3,              ///< it cannot be used; the log says why
};

/// Slots 0 to 9 of every component's interface. Operations are declared in slot order.
class SORVEXCOMMON_EXPORT IServiceComponent {
 public:
  virtual ~IServiceComponent();                           // 0
  virtual std::string GetServiceConfigText1() const = 0;  // 1
  virtual std::string GetServiceConfigText2() const = 0;  // 2
  virtual std::string GetServiceConfigText3() const = 0;  // 3
  virtual std::string GetServiceConfigText4() const = 0;  // 4
  virtual std::string GetServiceConfigText5() const = 0;  // 5

  /// Prepares the component; `config` is copied. Returns a `ServiceInitializeResult`. Call it from one thread, before
  /// any other operation; a second call after a successful one returns ready at once.
  virtual int Initialize(const ServiceConfig& config) = 0;  // 6

  /// Version text "major.minor.patch".
  virtual std::string GetVersion() const = 0;  // 7

  /// Whether `Initialize` has succeeded and the component has not been shut down since.
  virtual bool IsInitialized() const = 0;  // 8

  /// Whether the component asks the host to be restarted. A component that never asks leaves it false.
  virtual bool IsRestartRequested() const = 0;  // 9
};

}  // namespace WindowsAgentCommon
