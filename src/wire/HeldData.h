// What a client keeps from a response.
#pragma once

#include <CommunicationAPI/SSLConfigServerProtocolDefinition.h>

#include <ace/Message_Block.h>

#include <memory>
#include <string>

namespace SSLConfigServerProto {

/// Data that a response delivered, with their MD5, until the next exchange of the same kind.
class HeldData {
 public:
  void Release();

  /// Takes the data of `binary` without copying them; returns false when it has none. The MD5 is the digest that came
  /// with them; in version 1.0, which has none, it is computed.
  bool Take(WireBinary& binary, WireProtocol protocol);

  /// Returns a copy; false with no block and an empty text when nothing is held.
  bool GetCopy(std::shared_ptr<ACE_Message_Block>& block, std::string& md5) const;

 private:
  std::shared_ptr<ACE_Message_Block> m_pBlock;
  std::string m_strMD5;
};

}  // namespace SSLConfigServerProto
