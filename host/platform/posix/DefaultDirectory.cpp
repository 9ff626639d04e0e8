#include "platform/DefaultDirectory.h"

namespace WindowsAgentCommon {

std::wstring GetDefaultConfigPath() { return L"/etc/sorvex"; }

}  // namespace WindowsAgentCommon
