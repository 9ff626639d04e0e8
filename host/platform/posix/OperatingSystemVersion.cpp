#include <host/VersionText.h>

#include <sys/utsname.h>

namespace WindowsAgentCommon {

std::string GetOperatingSystemVersion() {
  utsname names{};
  if (::uname(&names) == -1) return "unknown";
  return std::string(names.sysname) + ' ' + names.release;
}

}  // namespace WindowsAgentCommon
