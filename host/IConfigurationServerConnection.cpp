#include <host/IConfigurationServerConnection.h>

namespace WindowsAgentCommon {

IConfigurationServerConnection::IConfigurationServerConnection() = default;

// Defined here so that the interface has one v-table and one type_info in the whole process.
IConfigurationServerConnection::~IConfigurationServerConnection() = default;

}  // namespace WindowsAgentCommon
