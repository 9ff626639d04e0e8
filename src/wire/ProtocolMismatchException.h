// The server uses another version of the wire protocol.
#pragma once

#include "wire/ProtocolException.h"

#include <string>

namespace SSLConfigServerProto {

class ProtocolMismatchException : public ProtocolException {
 public:
  /// `message` is "cli:<version> --> svr:<version>", each version being digits, a dot and digits. For any other message
  /// both versions are empty.
  ProtocolMismatchException(std::string file, std::string function, int line, const std::string& message);
  ~ProtocolMismatchException() override;

  const std::string& GetClientVersion() const noexcept;
  const std::string& GetServerVersion() const noexcept;

 private:
  std::string m_strClientVersion;
  std::string m_strServerVersion;
};

}  // namespace SSLConfigServerProto
