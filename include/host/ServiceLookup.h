// Finding a service by the name of its interface.
#pragma once

#include <SorvexCommonExport.h>

#include <ace/Service_Object.h>

namespace WindowsAgentCommon {

/// Returns the loaded service that is registered in the current `ACE_Service_Config` as "<service
/// name>_Dynamic_Service", or null. Owned by the service repository; valid until the service is unloaded. Any thread.
SORVEXCOMMON_EXPORT ACE_Service_Object* _getService(const char* serviceName);

/// Returns the loaded service that implements `Interface`, or null when there is none or it has another type.
template <class Interface>
Interface* GetService() {
  return dynamic_cast<Interface*>(_getService(Interface::GetServiceName()));
}

}  // namespace WindowsAgentCommon
