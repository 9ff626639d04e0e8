// The host service that makes payload builders by name.
#pragma once

#include <SorvexCommonExport.h>
#include <host/IPayloadBuilder.h>

#include <memory>
#include <string>

namespace WindowsAgentCommon {

class SORVEXCOMMON_EXPORT IPayloadFactory {
 public:
  virtual ~IPayloadFactory();

  /// Makes a builder of the named type: "SyslogPayloadBuilder" (RFC 5424), "SyslogBsdPayloadBuilder" (RFC 3164) or
  /// "RawPayloadBuilder" (the event's text). For any other name returns false and leaves `builder` unchanged.
  virtual bool CreatePayloadBuilder(const std::string& typeName, std::shared_ptr<IPayloadBuilder>& builder) = 0;

  static const char* GetServiceName() { return "IPayloadFactory"; }
};

}  // namespace WindowsAgentCommon
