// The client of wire protocol 2.0.
#pragma once

#include "wire/SSLConfigServerAPIClient.h"

namespace SSLConfigServerProto {

/// Receives data with their digests, which it neither computes nor verifies, and the server's key with a configuration.
class SSLConfigServerAPIClient_v2 : public SSLConfigServerAPIClient {
 public:
  /// `publicKey` is the agent's, from `Platform::ExportPublicKey`: its unread bytes are consumed. The client keeps its
  /// own copies, and wipes that of the token on destruction.
  SSLConfigServerAPIClient_v2(const std::string& applicationIdentifier, std::string_view applicationToken,
                              ACE_Message_Block& publicKey);

  /// Checks the type of the response before reading anything else: the rest of a 1.0 server's response stays unread.
  std::uint32_t ConnectionEstablishment(WindowsAgentCommon::ISerializer& serializer,
                                        std::uint32_t connectionFlags) override;

 private:
  void CheckType(std::uint32_t requestType) const;

  ConnectionEstablishmentRequest2 m_connectionEstablishment;
};

}  // namespace SSLConfigServerProto
