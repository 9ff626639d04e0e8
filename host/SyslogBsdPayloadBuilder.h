// The payload builder "SyslogBsdPayloadBuilder".
#pragma once

#include <host/IPayloadBuilder.h>

namespace WindowsAgentCommon {

/// Builds RFC 3164 messages: local time, and the host's name without its domain.
class SyslogBsdPayloadBuilder : public IPayloadBuilder {
 public:
  ~SyslogBsdPayloadBuilder() override;

  void BuildPayload(const Event& event, std::string& payload) const override;
};

}  // namespace WindowsAgentCommon
