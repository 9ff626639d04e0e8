#include "SyslogBsdPayloadBuilder.h"

#include "SyslogHeader.h"

namespace WindowsAgentCommon {

SyslogBsdPayloadBuilder::~SyslogBsdPayloadBuilder() = default;

void SyslogBsdPayloadBuilder::BuildPayload(const Event& event, std::string& payload) const {
  SyslogHeader header;
  header.AppendPriority(event.m_level);
  header.AppendBsdTime(event.m_time);
  header.Append(' ');
  header.AppendHostWithoutDomain(event.m_strHost, SyslogHeader::LONGEST_HOST);
  header.Append(' ');
  header.AppendTag(GetLastPathComponent(event.m_strSource));
  header.Append(": ");
  payload.assign(header.GetText());
  payload.append(event.m_strText);
}

}  // namespace WindowsAgentCommon
