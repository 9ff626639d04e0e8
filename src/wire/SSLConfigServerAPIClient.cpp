#include "wire/SSLConfigServerAPIClient.h"

#include <host/LoggerFactory.h>

namespace SSLConfigServerProto {

using WindowsAgentCommon::ISerializer;

ISSLConfigServerAPIClient::~ISSLConfigServerAPIClient() = default;

const SSLConfigServerAPIClient::ExchangeTexts SSLConfigServerAPIClient::connectionEstablishmentTexts{
    "Sending connection establishment request...", "Sent connection establishment request.",
    "Receiving connection establishment response..."};

SSLConfigServerAPIClient::SSLConfigServerAPIClient(WireProtocol protocol, const char* loggerNameFormat,
                                                   const std::string& applicationIdentifier)
    : m_protocol(protocol),
      m_log(WindowsAgentCommon::LoggerFactory::GetLogger(
          WindowsAgentCommon::Format(loggerNameFormat, applicationIdentifier))) {}

void SSLConfigServerAPIClient::SetIdentity(IdentityRecord& request, const std::string& applicationIdentifier,
                                           std::string_view applicationToken) const {
  SetWireString(request.wireProtocolVersion, WireVersionText(m_protocol));
  SetWireString(request.applicationIdentifier, applicationIdentifier);
  SetWireString(request.applicationToken, applicationToken);
}

std::uint32_t SSLConfigServerAPIClient::GetReserved() const { return 0; }

std::uint32_t SSLConfigServerAPIClient::RegisterInstance(ISerializer& serializer, const std::string& osVersion,
                                                         const std::string& agentVersion,
                                                         const std::string& autoCreationParameters) {
  RegisterInstanceRequest request;
  SetWireString(request.osVersion, osVersion);
  SetWireString(request.agentVersion, agentVersion);
  SetWireString(request.autoCreationParameters, autoCreationParameters);
  CompleteRequest(request, m_protocol);
  RegisterInstanceResponse response;
  Exchange(serializer,
           {"Sending register instance request...", "Sent register instance request.",
            "Receiving register instance response..."},
           request, response);
  m_log.Debug("Received register instance response (result code %u)", response.resultCode);
  return response.resultCode;
}

std::uint32_t SSLConfigServerAPIClient::UpdateStatus(ISerializer& serializer, std::uint32_t status,
                                                     std::uint32_t statusTime) {
  UpdateStatusRequest request;
  request.status = status;
  request.statusTime = statusTime;
  CompleteRequest(request, m_protocol);
  UpdateStatusResponse response;
  Exchange(serializer,
           {"Sending update status request...", "Sent update status request.", "Receiving update status response..."},
           request, response);
  m_log.Debug("Received update status response (result code %u)", response.resultCode);
  return response.resultCode;
}

std::uint32_t SSLConfigServerAPIClient::ConfigurationUpdate(ISerializer& serializer, const std::string& currentMD5) {
  ConfigurationUpdateRequest request;
  SetWireString(request.currentMD5, currentMD5);
  CompleteRequest(request, m_protocol);
  ConfigurationUpdateResponse response(m_protocol);
  // What was held goes before its successor comes, so that there is room for that.
  const auto replaceHeld = [&](std::string_view field) {
    if (field == "serverPublicKey") m_serverPublicKey.Release();
    if (field == "configurationData") {
      m_serverPublicKey.Take(response.serverPublicKey, m_protocol);
      m_configuration.Release();
    }
  };
  Exchange(serializer,
           {"Sending configuration update request...", "Sent configuration update request.",
            "Receiving configuration update response..."},
           request, response, replaceHeld);
  if (m_configuration.Take(response.configurationData, m_protocol)) {
    m_log.Debug("Received configuration update response (result code %u)", response.resultCode);
  } else {
    m_log.Debug("Received empty configuration update response (result code %u)", response.resultCode);
  }
  return response.resultCode;
}

std::uint32_t SSLConfigServerAPIClient::CodeUpdate(ISerializer& serializer, const std::string& currentVersion) {
  CodeUpdateRequest request;
  SetWireString(request.currentVersion, currentVersion);
  CompleteRequest(request, m_protocol);
  CodeUpdateResponse response(m_protocol);
  Exchange(serializer,
           {"Sending code update request...", "Sent code update request.", "Receiving code update response..."},
           request, response, [&](std::string_view field) {
             if (field == "codeData") m_code.Release();
           });
  if (m_code.Take(response.codeData, m_protocol)) {
    m_log.Debug("Received code update response (result code %u)", response.resultCode);
  } else {
    m_log.Debug("Received empty code update response (result code %u)", response.resultCode);
  }
  return response.resultCode;
}

bool SSLConfigServerAPIClient::GetConfigurationData(std::shared_ptr<ACE_Message_Block>& block, std::string& md5) const {
  return m_configuration.GetCopy(block, md5);
}

bool SSLConfigServerAPIClient::GetCodeData(std::shared_ptr<ACE_Message_Block>& block, std::string& md5) const {
  return m_code.GetCopy(block, md5);
}

bool SSLConfigServerAPIClient::GetServerPublicKey(std::shared_ptr<ACE_Message_Block>& block) const {
  std::string md5;
  return m_serverPublicKey.GetCopy(block, md5);
}

}  // namespace SSLConfigServerProto
