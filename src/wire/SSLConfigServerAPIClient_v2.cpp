#include "wire/SSLConfigServerAPIClient_v2.h"

#include "platform/TimeZone.h"
#include "wire/ProtocolMismatchException.h"
#include "wire/TimeZoneText.h"

#include <chrono>

namespace SSLConfigServerProto {

namespace {

constexpr const char* sourceFile = "SSLConfigServerAPIClient_v2";
constexpr const char* establishment = "SSLConfigServerProto::SSLConfigServerAPIClient_v2::ConnectionEstablishment";

std::int64_t SecondsSinceEpoch() {
  return std::chrono::floor<std::chrono::seconds>(std::chrono::system_clock::now()).time_since_epoch().count();
}

}  // namespace

SSLConfigServerAPIClient_v2::SSLConfigServerAPIClient_v2(const std::string& applicationIdentifier,
                                                         std::string_view applicationToken,
                                                         ACE_Message_Block& publicKey)
    : SSLConfigServerAPIClient(WireProtocol::Version2, "Code.SSLConfigServerAPIClient_v2.%s", applicationIdentifier) {
  SetIdentity(m_connectionEstablishment, applicationIdentifier, applicationToken);
  SetWireString(m_connectionEstablishment.timeZone, TimeZoneText(VaroCommunicationAPI::Platform::CurrentTimeZone()));
  SetWireBinary(m_connectionEstablishment.public_key, publicKey);
  publicKey.rd_ptr(publicKey.length());
  CompleteRequest(m_connectionEstablishment, m_protocol);
}

std::uint32_t SSLConfigServerAPIClient_v2::ConnectionEstablishment(WindowsAgentCommon::ISerializer& serializer,
                                                                   std::uint32_t connectionFlags) {
  m_connectionEstablishment.connection_flags = connectionFlags;
  m_connectionEstablishment.timestamp = SecondsSinceEpoch();
  ConnectionEstablishmentResponse2 response;
  Exchange(serializer, connectionEstablishmentTexts, m_connectionEstablishment, response, [&](std::string_view field) {
    if (field == "recordSize") CheckType(response.requestType);
  });
  if (m_log.IsEnabled(WindowsAgentCommon::LogLevel::Debug)) {
    m_log.Debug("Received connection establishment response (result code %u, wire versions %s)", response.resultCode,
                WindowsAgentCommon::Format("cli:%s --> svr:%s", WireVersionText(m_protocol),
                                           response.wireProtocolVersion.View()));
  }
  return response.resultCode;
}

void SSLConfigServerAPIClient_v2::CheckType(std::uint32_t requestType) const {
  switch (requestType) {
    case WIRE_REQ_TYPE_CONNECTION_ESTABLISHMENT_2: return;
    case WIRE_REQ_TYPE_CONNECTION_ESTABLISHMENT:
      throw ProtocolMismatchException(sourceFile, establishment, __LINE__,
                                      std::string("cli:") + WireVersionText(m_protocol) + " --> svr:1.0");
    default:
      m_log.Debug("Received bad/junk response from configuration server");
      throw ProtocolException(sourceFile, establishment, __LINE__);
  }
}

}  // namespace SSLConfigServerProto
