#include <host/VaroTask.h>

namespace WindowsAgentCommon {

VaroTask::VaroTask() = default;

// Defined here so that the class has one v-table and one type_info in the whole process.
VaroTask::~VaroTask() = default;

}  // namespace WindowsAgentCommon
