#include <host/VersionText.h>

#include <host/Log.h>

namespace WindowsAgentCommon {

std::string FormatVersion(int major, int minor, int patch) { return Format("%d.%d.%d", major, minor, patch); }

std::string GetHostVersion() { return SORVEX_HOST_VERSION; }

}  // namespace WindowsAgentCommon
