// The payload builder "RawPayloadBuilder".
#pragma once

#include <host/IPayloadBuilder.h>

namespace WindowsAgentCommon {

/// Builds the event's text and nothing else.
class RawPayloadBuilder : public IPayloadBuilder {
 public:
  ~RawPayloadBuilder() override;

  void BuildPayload(const Event& event, std::string& payload) const override;
};

}  // namespace WindowsAgentCommon
