#include <host/IConnectionFactory.h>

namespace WindowsAgentCommon {

// Defined here so that the interface has one v-table and one type_info in the whole process.
IConnectionFactory::~IConnectionFactory() = default;

}  // namespace WindowsAgentCommon
