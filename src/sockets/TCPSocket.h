// A destination socket over plain TCP.
#pragma once

#include "sockets/StreamDestinationSocket.h"

namespace VaroCommunicationAPI {

class TCPSocket : public StreamDestinationSocket {
 public:
  explicit TCPSocket(SocketServices services = {});
  ~TCPSocket() override;
};

}  // namespace VaroCommunicationAPI
