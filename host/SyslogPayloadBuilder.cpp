#include "SyslogPayloadBuilder.h"

#include "SyslogHeader.h"

namespace WindowsAgentCommon {

SyslogPayloadBuilder::~SyslogPayloadBuilder() = default;

void SyslogPayloadBuilder::BuildPayload(const Event& event, std::string& payload) const {
  SyslogHeader header;
  header.AppendPriority(event.m_level);
  header.Append("1 ");
  header.AppendRfc3339(UtcTime(event.m_time));
  header.Append(' ');
  header.AppendName(event.m_strHost, SyslogHeader::LONGEST_HOST);
  header.Append(' ');
  header.AppendName(GetLastPathComponent(event.m_strSource), SyslogHeader::LONGEST_APPLICATION);
  header.Append(" - - -");
  // A message without text ends after its structured data.
  if (!event.m_strText.empty()) header.Append(' ');
  payload.assign(header.GetText());
  payload.append(event.m_strText);
}

}  // namespace WindowsAgentCommon
