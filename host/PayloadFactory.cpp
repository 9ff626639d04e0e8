#include "PayloadFactory.h"

#include "RawPayloadBuilder.h"
#include "SyslogBsdPayloadBuilder.h"
#include "SyslogPayloadBuilder.h"

namespace WindowsAgentCommon {

PayloadFactory::PayloadFactory() = default;

PayloadFactory::~PayloadFactory() = default;

bool PayloadFactory::CreatePayloadBuilder(const std::string& typeName, std::shared_ptr<IPayloadBuilder>& builder) {
  if (typeName == "SyslogPayloadBuilder") {
    builder = std::make_shared<SyslogPayloadBuilder>();
  } else if (typeName == "SyslogBsdPayloadBuilder") {
    builder = std::make_shared<SyslogBsdPayloadBuilder>();
  } else if (typeName == "RawPayloadBuilder") {
    builder = std::make_shared<RawPayloadBuilder>();
  } else {
    return false;
  }
  return true;
}

}  // namespace WindowsAgentCommon
