// The payload builder "SyslogPayloadBuilder".
#pragma once

#include <host/IPayloadBuilder.h>

namespace WindowsAgentCommon {

/// Builds RFC 5424 messages without structured data. The text is passed on byte for byte (MSG-ANY): an event does not
/// say which encoding its text has, so no byte-order mark claims UTF-8.
class SyslogPayloadBuilder : public IPayloadBuilder {
 public:
  ~SyslogPayloadBuilder() override;

  void BuildPayload(const Event& event, std::string& payload) const override;
};

}  // namespace WindowsAgentCommon
