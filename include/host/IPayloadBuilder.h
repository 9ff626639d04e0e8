// Turns an event into the payload sent to a destination.
#pragma once

#include <SorvexCommonExport.h>
#include <host/Event.h>

#include <string>

namespace WindowsAgentCommon {

class SORVEXCOMMON_EXPORT IPayloadBuilder {
 public:
  virtual ~IPayloadBuilder();

  /// Replaces `payload` with the payload of `event`, reusing its capacity. Adds no line feed; keeps those of the
  /// event's text. Any thread, several at once.
  virtual void BuildPayload(const Event& event, std::string& payload) const = 0;
};

}  // namespace WindowsAgentCommon
