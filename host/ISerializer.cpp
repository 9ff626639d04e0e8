#include <host/ISerializer.h>

namespace WindowsAgentCommon {

ISerializer::ISerializer() = default;

// Defined here so that the interface has one v-table and one type_info in the whole process.
ISerializer::~ISerializer() = default;

}  // namespace WindowsAgentCommon
