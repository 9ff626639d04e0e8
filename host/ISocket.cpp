#include <host/ISocket.h>

namespace WindowsAgentCommon {

// Defined here so that the interface has one v-table and one type_info in the whole process.
ISocket::~ISocket() = default;

}  // namespace WindowsAgentCommon
