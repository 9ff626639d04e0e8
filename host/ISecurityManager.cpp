#include <host/ISecurityManager.h>

namespace WindowsAgentCommon {

// Defined here so that the interface has one v-table and one type_info in the whole process.
ISecurityManager::~ISecurityManager() = default;

}  // namespace WindowsAgentCommon
