// The exchanges of the wire protocol, one operation per request, and what their responses delivered.
#pragma once

#include <host/ISerializer.h>

#include <ace/Message_Block.h>

#include <cstdint>
#include <memory>
#include <string>

namespace SSLConfigServerProto {

/// One thread at a time. Every exchange writes one request and reads one response through the given serializer, and
/// returns the response's result code without interpreting it. Throws `SocketException` when a serializer fails or a
/// length exceeds its bound, and `std::bad_alloc` when out of memory (data may be 100 MiB); the stream is then out of
/// step. Operations are declared in slot order.
class ISSLConfigServerAPIClient {
 public:
  virtual ~ISSLConfigServerAPIClient();  // 0

  /// `connectionFlags` are `ConnectionFlags`; version 1.0 does not send them. Throws `ProtocolException` when the
  /// response has another type; the client of version 2.0 throws `ProtocolMismatchException` for the type of 1.0.
  virtual std::uint32_t ConnectionEstablishment(WindowsAgentCommon::ISerializer& serializer,
                                                std::uint32_t connectionFlags) = 0;  // 1

  virtual std::uint32_t GetReserved() const = 0;  // 2: 0

  virtual std::uint32_t RegisterInstance(WindowsAgentCommon::ISerializer& serializer, const std::string& osVersion,
                                         const std::string& agentVersion,
                                         const std::string& autoCreationParameters) = 0;  // 3
  virtual std::uint32_t UpdateStatus(WindowsAgentCommon::ISerializer& serializer, std::uint32_t status,
                                     std::uint32_t statusTime) = 0;  // 4
  virtual std::uint32_t ConfigurationUpdate(WindowsAgentCommon::ISerializer& serializer,
                                            const std::string& currentMD5) = 0;  // 5
  virtual std::uint32_t CodeUpdate(WindowsAgentCommon::ISerializer& serializer,
                                   const std::string& currentVersion) = 0;  // 6

  /// Returns true and a copy of what the last exchange of the kind delivered; without it returns false, with no block
  /// and an empty text. Like the two below, throws `std::bad_alloc` when out of memory.
  virtual bool GetConfigurationData(std::shared_ptr<ACE_Message_Block>& block, std::string& md5) const = 0;  // 7
  virtual bool GetCodeData(std::shared_ptr<ACE_Message_Block>& block, std::string& md5) const = 0;           // 8
  virtual bool GetServerPublicKey(std::shared_ptr<ACE_Message_Block>& block) const = 0;                      // 9
};

}  // namespace SSLConfigServerProto
