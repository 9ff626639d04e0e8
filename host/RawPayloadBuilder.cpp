#include "RawPayloadBuilder.h"

namespace WindowsAgentCommon {

RawPayloadBuilder::~RawPayloadBuilder() = default;

void RawPayloadBuilder::BuildPayload(const Event& event, std::string& payload) const {
  payload.assign(event.m_strText);
}

}  // namespace WindowsAgentCommon
