#include "platform/SystemVersion.h"

#include <windows.h>

namespace VaroCommunicationAPI::Platform {

unsigned int SystemVersionNumber() {
  static const unsigned int number = [] {
    OSVERSIONINFOW version{};
    version.dwOSVersionInfoSize = sizeof version;
    return GetVersionExW(&version) ? version.dwMajorVersion * 10 + version.dwMinorVersion : 0;
  }();
  return number;
}

}  // namespace VaroCommunicationAPI::Platform
