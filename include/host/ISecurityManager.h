// The host service that owns the process's cryptographic set-up.
#pragma once

#include <SorvexCommonExport.h>

namespace WindowsAgentCommon {

/// A host with such a service initialises the TLS library itself, before it loads other services.
class SORVEXCOMMON_EXPORT ISecurityManager {
 public:
  virtual ~ISecurityManager();

  /// Whether the TLS library is ready for use.
  virtual bool IsTlsReady() const = 0;

  static const char* GetServiceName() { return "ISecurityManager"; }
};

}  // namespace WindowsAgentCommon
