#include "wire/SSLConfigServerAPIClient_v1.h"

#include "wire/ProtocolException.h"

namespace SSLConfigServerProto {

SSLConfigServerAPIClient_v1::SSLConfigServerAPIClient_v1(const std::string& applicationIdentifier,
                                                         std::string_view applicationToken)
    : SSLConfigServerAPIClient(WireProtocol::Version1, "Code.SSLConfigServerAPIClient_v1.%s", applicationIdentifier) {
  SetIdentity(m_connectionEstablishment, applicationIdentifier, applicationToken);
  CompleteRequest(m_connectionEstablishment, m_protocol);
}

std::uint32_t SSLConfigServerAPIClient_v1::ConnectionEstablishment(WindowsAgentCommon::ISerializer& serializer,
                                                                   std::uint32_t) {
  ConnectionEstablishmentResponse response;
  Exchange(serializer, connectionEstablishmentTexts, m_connectionEstablishment, response);
  if (response.requestType != WIRE_REQ_TYPE_CONNECTION_ESTABLISHMENT) {
    m_log.Debug("Received bad/junk response from configuration server");
    throw ProtocolException("SSLConfigServerAPIClient_v1",
                            "SSLConfigServerProto::SSLConfigServerAPIClient_v1::ConnectionEstablishment", __LINE__);
  }
  m_log.Debug("Received connection establishment response (result code %u)", response.resultCode);
  return response.resultCode;
}

}  // namespace SSLConfigServerProto
