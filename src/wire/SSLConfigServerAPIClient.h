// What the clients of both versions of the wire protocol share: everything except establishing the connection.
#pragma once

#include "wire/HeldData.h"
#include "wire/ISSLConfigServerAPIClient.h"
#include "wire/RecordIo.h"

#include <host/Log.h>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

namespace SSLConfigServerProto {

class SSLConfigServerAPIClient : public ISSLConfigServerAPIClient {
 public:
  std::uint32_t GetReserved() const override;
  std::uint32_t RegisterInstance(WindowsAgentCommon::ISerializer& serializer, const std::string& osVersion,
                                 const std::string& agentVersion, const std::string& autoCreationParameters) override;
  std::uint32_t UpdateStatus(WindowsAgentCommon::ISerializer& serializer, std::uint32_t status,
                             std::uint32_t statusTime) override;
  std::uint32_t ConfigurationUpdate(WindowsAgentCommon::ISerializer& serializer,
                                    const std::string& currentMD5) override;
  std::uint32_t CodeUpdate(WindowsAgentCommon::ISerializer& serializer, const std::string& currentVersion) override;
  bool GetConfigurationData(std::shared_ptr<ACE_Message_Block>& block, std::string& md5) const override;
  bool GetCodeData(std::shared_ptr<ACE_Message_Block>& block, std::string& md5) const override;
  bool GetServerPublicKey(std::shared_ptr<ACE_Message_Block>& block) const override;

 protected:
  /// `loggerNameFormat` takes the application identifier.
  SSLConfigServerAPIClient(WireProtocol protocol, const char* loggerNameFormat,
                           const std::string& applicationIdentifier);

  /// What is logged before and after the request is written, and before the response is read.
  struct ExchangeTexts {
    const char* m_sending;
    const char* m_sent;
    const char* m_receiving;
  };
  static const ExchangeTexts connectionEstablishmentTexts;

  /// Sets the agent's identity and the version that it speaks.
  void SetIdentity(IdentityRecord& request, const std::string& applicationIdentifier,
                   std::string_view applicationToken) const;

  /// The common shape of every exchange, up to the response. `beforeField` as in `ReadRecord`.
  template <class Request, class Response, class BeforeField = ReadOn>
  void Exchange(WindowsAgentCommon::ISerializer& serializer, const ExchangeTexts& texts, const Request& request,
                Response& response, BeforeField beforeField = {}) {
    m_log.Debug(texts.m_sending);
    WriteRecord(serializer, request);
    m_log.Debug(texts.m_sent);
    m_log.Debug(texts.m_receiving);
    ReadRecord(serializer, response, std::move(beforeField));
  }

  const WireProtocol m_protocol;
  const WindowsAgentCommon::Log m_log;

 private:
  HeldData m_configuration;
  HeldData m_serverPublicKey;  ///< of version 2.0
  HeldData m_code;
};

}  // namespace SSLConfigServerProto
