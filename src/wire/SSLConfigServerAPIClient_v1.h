// The client of wire protocol 1.0.
#pragma once

#include "wire/SSLConfigServerAPIClient.h"

namespace SSLConfigServerProto {

/// Has no server key, and computes the MD5 texts of what it receives.
class SSLConfigServerAPIClient_v1 : public SSLConfigServerAPIClient {
 public:
  /// Keeps its own copies, and wipes that of the token on destruction.
  SSLConfigServerAPIClient_v1(const std::string& applicationIdentifier, std::string_view applicationToken);

  /// The only exchange that checks the type of the response.
  std::uint32_t ConnectionEstablishment(WindowsAgentCommon::ISerializer& serializer,
                                        std::uint32_t connectionFlags) override;

 private:
  ConnectionEstablishmentRequest m_connectionEstablishment;
};

}  // namespace SSLConfigServerProto
