// The server sent an answer that the exchange does not accept.
#pragma once

#include <host/Exceptions.h>

namespace SSLConfigServerProto {

class ProtocolException : public WindowsAgentCommon::SocketException {
 public:
  using SocketException::SocketException;
  ~ProtocolException() override;
};

}  // namespace SSLConfigServerProto
