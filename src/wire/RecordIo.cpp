#include "wire/RecordIo.h"

#include <host/LoggerFactory.h>

#include <string>

namespace SSLConfigServerProto {

void LogFailedField(const char* operation, const char* record, const char* field) {
  WindowsAgentCommon::LoggerFactory::GetLogger(std::string("Code.SSLConfigServerAPIClient.") + operation)
      .Debug("Failed at the field %s of %s.", field, record);
}

}  // namespace SSLConfigServerProto
